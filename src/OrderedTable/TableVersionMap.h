#pragma once

#include <memory>

#include "KivSharedMem/EntityManager.h"
#include "OrderedTable/CorruptionGuard.h"
#include "OrderedTable/TableVersionDrift.h"

namespace Asic {

/// The agent's view of a group's table-version map. The hardware writer owns the collection and may
/// start, stop and rebuild it at any time. Until it has started for the first time the agent
/// provides an empty collection, so that there is a doorbell to wait on.
///
/// Threads: the table thread.
class QUARNBASTIL_EXPORT TableVersionMap final : public Fenrik::NodeClass<TableVersionMap> {
 public:
  TableVersionMap(const Fenrik::Ptr<KivSharedMem::EntityManager>& manager,
                  const Fenrik::String& path);
  ~TableVersionMap() override;

  /// The hardware writer's report for the table. Damage reads as not found or as version 0; a
  /// version that no log can have reached counts as damage.
  Found<TableVersionRecord> find(SwTableId tableId) const;

  /// Whether the doorbell was rung, or the collection replaced, since the last `seenIs`.
  bool moved() const noexcept { return doorbellNow() != seen_; }
  /// Marks all rings so far as seen. Call before reading.
  void seenIs() noexcept;
  /// Reading was interrupted; unread reports remain.
  void seenDel() noexcept { seen_ = kNever; }
  /// Checks whether the collection was replaced, and opens the new one if so. Costs a system call.
  void refresh();

  /// The doorbell to wait on. Its file is null while there is no collection.
  Drift::BellSeen bell() const noexcept { return {file_.get(), static_cast<std::uint32_t>(seen_)}; }

 private:
  /// A doorbell that never rings.
  static constexpr std::uint32_t kSilent = 0;
  /// Differs from every 32-bit doorbell count.
  static constexpr std::uint64_t kNever = UINT64_MAX;

  std::uint32_t doorbellNow() const noexcept {
    return __atomic_load_n(doorbell_, __ATOMIC_ACQUIRE);
  }
  void open();
  void tell(const Fenrik::String& trouble);

  Fenrik::Ptr<KivSharedMem::EntityManager> manager_;
  Fenrik::String path_;
  std::unique_ptr<Drift::DriftFile> file_;
  Fenrik::Ptr<Drift::DriftMap<TableVersionRecord>> map_;
  /// The doorbell of `file_`, or `kSilent`. An idle pump reads `doorbell_` and `seen_` of every
  /// group and nothing else.
  const std::uint32_t* doorbell_ = &kSilent;
  /// Doorbell count at the last `seenIs`; `kNever` while reports may be unread regardless of it.
  std::uint64_t seen_ = kNever;
  /// Why there is no collection. Each new reason is logged once.
  Fenrik::String trouble_;
};

}  // namespace Asic
