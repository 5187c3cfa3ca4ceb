#pragma once

#include "Drift/FlatValue.h"
#include "Drift/RecordText.h"
#include "KivSharedMem/Collection.h"
#include "KivSharedMem/EntityManager.h"
#include "OrderedTable/TableVersion.h"

namespace Asic {

/// The hardware writer's progress in the log of one table.
struct QUARNBASTIL_EXPORT TableVersionRecord final : Drift::FlatValue<TableVersionRecord> {
  using Key = SwTableId;

  /// The table that the report concerns.
  SwTableId tableId;
  /// All log records up to this version are in hardware.
  LogVersion logVersion;

  TableVersionRecord() = default;
  explicit TableVersionRecord(const TableVersion& version) noexcept
      : tableId(version.tableId()), logVersion(version.logVersion()) {}

  static constexpr auto fields() {
    using Self = TableVersionRecord;
    return std::array{DRIFT_FIELD_AT(Self, tableId, 0), DRIFT_FIELD_AT(Self, logVersion, 4)};
  }
};
static_assert(sizeof(TableVersionRecord) == 12);

/// The table-version map of a group: the hardware writer's reports, one record per table.
///
/// Process and thread: written only by the hardware writer, which rings the doorbell after each
/// write; read by the agent, which treats it as untrusted input.
class QUARNBASTIL_EXPORT TableVersionDrift final
    : public KivSharedMem::HashedCollection<TableVersionDrift, TableVersionRecord> {
 public:
  static constexpr std::string_view kEntityName = "Asic::TableVersionDrift";
  static constexpr std::string_view kAttributeName = "tableVersion";
  /// More tables than any group has.
  static constexpr Drift::Word kCapacity = 256;

  using HashedCollection::HashedCollection;

  /// Mounts a group's map for writing, through the hardware writer's manager. Throws
  /// `Drift::MountException`.
  static Fenrik::Ptr<TableVersionDrift> mounted(
      const Fenrik::Ptr<KivSharedMem::EntityManager>& manager,
      const Fenrik::String& canonicalGroup);

  /// Reports that the table's log is in hardware up to a version.
  void tableVersionIs(const TableVersion& version) { recordIs(TableVersionRecord(version)); }
  void tableVersionDel(SwTableId tableId) { recordDel(tableId); }
};

}  // namespace Asic
