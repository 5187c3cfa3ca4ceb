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
  bool moved() const noexcept { return bellNow() != seen_; }
  /// Takes note of the bell before a look behind it.
  void seenIs() noexcept;
  /// The look was cut short: there is still something behind the bell.
  void seenDel() noexcept { seen_ = kNever; }
  /// Looks whether the collection was replaced, and opens the new one then. Costs a system call.
  void refresh();

  /// What to sleep at; its file is null while there is no collection.
  Drift::BellSeen bell() const noexcept { return {file_.get(), static_cast<std::uint32_t>(seen_)}; }

 private:
  static constexpr std::uint32_t kSilent = 0;
  /// What no bell says.
  static constexpr std::uint64_t kNever = UINT64_MAX;

  std::uint32_t bellNow() const noexcept { return __atomic_load_n(bell_, __ATOMIC_ACQUIRE); }
  void open();
  void tell(const Fenrik::String& trouble);

  Fenrik::Ptr<KivSharedMem::EntityManager> manager_;
  Fenrik::String path_;
  std::unique_ptr<Drift::DriftFile> file_;
  Fenrik::Ptr<Drift::DriftMap<TableVersionRecord>> map_;
  /// Of the bell in `file_`, or of one that nobody rings. An idle pump asks every group: this word
  /// and the next are all that it looks at.
  const std::uint32_t* bell_ = &kSilent;
  /// What the bell said before the last look behind it.
  std::uint64_t seen_ = kNever;
  /// Why there is no collection; told once for each reason.
  Fenrik::String trouble_;
};

}  // namespace Asic
