#pragma once

#include "Fenrik/NodeClass.h"
#include "KivSharedMem/EntityManager.h"
#include "OrderedTable/NeededEntry.h"
#include "OrderedTable/NeededEntryDrift.h"

namespace Asic {

/// Announces to the hardware writer how far it may read the log of one table, and what each record
/// requires of other tables before it may be applied.
///
/// Threads: the table thread.
///
/// I1. The needed set of a version is in shared memory before the version is announced.
/// I2. Versions that a crashed agent logged and did not announce are announced at the takeover.
///     They require everything announced until then, since whatever they depended on was announced
///     before.
class QUARNBASTIL_EXPORT TableAnnouncer final : public Fenrik::NodeClass<TableAnnouncer> {
 public:
  /// `log` is the table's mounted log. Mounts the needed sets next to it. Throws
  /// `Drift::MountException`, `Drift::NoSpaceException`.
  TableAnnouncer(SwTableId tableId, const Fenrik::Ptr<KivSharedMem::Entity>& log,
                 const Fenrik::Ptr<KivSharedMem::EntityManager>& manager);
  ~TableAnnouncer() override;

  /// The announced versions of all tables, whether their logs are mounted or not, except of one.
  /// Throws `Drift::MountException` if the directory cannot be read.
  static Fenrik::Ptr<const NeededEntry> everythingAnnounced(
      const KivSharedMem::EntityManager& manager, SwTableId except);

  SwTableId tableId() const noexcept { return tableId_; }
  LogVersion announced() const noexcept { return announced_; }
  const Fenrik::Ptr<KivDrift::CollectionControl>& neededControl() const noexcept {
    return needed_->collectionControl();
  }

  /// Announces a logged version that requires `needed`, which may be null.
  void announce(LogVersion version, const NeededEntry* needed);
  /// Ensures that a set of so many versions can be stored. Throws what storing it would throw.
  void makeRoom(std::size_t versions);
  /// The hardware has all versions up to this one: drops their needed sets.
  void cleaned(LogVersion version);
  /// Wakes the hardware writer if a version was announced since the last ring. `reports` is the
  /// file in which the hardware writer marks itself asleep or awake, or null.
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
  /// Number of the next needed set.
  LogVersion sequence_;
  /// A version was announced since the last ring.
  bool ringDue_ = false;
};

}  // namespace Asic
