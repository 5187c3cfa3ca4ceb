#pragma once

#include "Fenrik/NodeClass.h"
#include "KivSharedMem/EntityManager.h"
#include "OrderedTable/NeededEntry.h"
#include "OrderedTable/NeededEntryDrift.h"

namespace Asic {

/// Tells the hardware writer how far it may go in the log of one table, and what each record needs
/// of other tables before it may be applied.
///
/// Threads: the table thread.
///
/// I1. The needed set of a version is in shared memory before the version is announced.
/// I2. What a death left logged but not announced is announced at the takeover, and needs
///     everything that was announced until then: whatever it depended on was announced before it.
class QUARNBASTIL_EXPORT TableAnnouncer final : public Fenrik::NodeClass<TableAnnouncer> {
 public:
  /// Over the mounted log of a table. Mounts the needed sets beside it. Throws
  /// `Drift::MountException`, `Drift::NoSpaceException`.
  TableAnnouncer(SwTableId tableId, const Fenrik::Ptr<KivSharedMem::Entity>& log,
                 const Fenrik::Ptr<KivSharedMem::EntityManager>& manager);
  ~TableAnnouncer() override;

  SwTableId tableId() const noexcept { return tableId_; }
  LogVersion announced() const noexcept { return announced_; }
  const Fenrik::Ptr<KivDrift::CollectionControl>& neededControl() const noexcept {
    return needed_->collectionControl();
  }

  /// The version has been logged and needs `needed`, which may be null.
  void announce(LogVersion version, const NeededEntry* needed);
  /// Sees to it that a set of so many versions can be stored: throws what storing it would throw.
  void makeRoom(std::size_t versions);
  /// The hardware has everything up to the version: what it needed is of no interest any more.
  void cleaned(LogVersion version);
  /// Wakes the hardware writer, if anything was announced since the last ring. `reports` is a file
  /// of its own in which it may say that it is awake, or null.
  void ring(const Drift::DriftFile* reports) noexcept;
  const Drift::DriftFile& log() const noexcept { return log_->file(); }

 private:
  void takeOver(const KivSharedMem::EntityManager& manager);
  void neededStore(LogVersion version, const NeededEntry& needed);
  void neededStore(const NeededEntryRecord& record);

  SwTableId tableId_;
  Fenrik::Ptr<KivSharedMem::Entity> log_;
  Fenrik::Ptr<NeededEntryDrift> needed_;
  LogVersion announced_;
  /// Of the next needed set.
  LogVersion sequence_;
  bool ringDue_ = false;
};

}  // namespace Asic
