#pragma once

#include <memory>

#include "KivSharedMem/EntityManager.h"
#include "OrderedTable/CorruptionGuard.h"
#include "OrderedTable/TableVersionDrift.h"

namespace Asic {

/// The agent's view of a group's table-version map. The hardware writer owns the collection and may
/// come, go and rebuild it at any time; before its first start the agent makes it, empty, so that
/// there is a doorbell to sleep at.
///
/// Threads: the table thread.
class QUARNBASTIL_EXPORT TableVersionMap final : public Fenrik::NodeClass<TableVersionMap> {
 public:
  TableVersionMap(const Fenrik::Ptr<KivSharedMem::EntityManager>& manager,
                  const Fenrik::String& path);
  ~TableVersionMap() override;

  /// What the hardware writer reported for the table. Damage reads as not found, or as version 0;
  /// a version that no log can have reached is damage, too.
  Found<TableVersionRecord> find(SwTableId tableId) const;

  /// Whether the bell was rung, or the collection replaced, since the last `seen`.
  bool moved() const noexcept { return fresh_ || (file_ != nullptr && file_->doorbell() != seen_); }
  /// Takes note of the bell before a look behind it.
  void seenIs() noexcept;
  /// The look was cut short: there is still something behind the bell.
  void seenDel() noexcept { fresh_ = true; }
  /// Looks whether the collection was replaced, and opens the new one then. Costs a system call.
  void refresh();

  /// What to sleep at; its file is null while there is no collection.
  Drift::BellSeen bell() const noexcept { return {file_.get(), seen_}; }

 private:
  void open();
  void tell(const Fenrik::String& trouble);

  Fenrik::Ptr<KivSharedMem::EntityManager> manager_;
  Fenrik::String path_;
  std::unique_ptr<Drift::DriftFile> file_;
  Fenrik::Ptr<Drift::DriftMap<TableVersionRecord>> map_;
  std::uint32_t seen_ = 0;
  bool fresh_ = true;
  /// Why there is no collection; told once for each reason.
  Fenrik::String trouble_;
};

}  // namespace Asic
