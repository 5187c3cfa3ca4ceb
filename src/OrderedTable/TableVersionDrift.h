#pragma once

#include "Drift/FlatValue.h"
#include "Drift/RecordText.h"
#include "KivSharedMem/Collection.h"
#include "KivSharedMem/EntityManager.h"
#include "OrderedTable/TableVersion.h"

namespace Asic {

/// How far the hardware writer has come in the log of one table.
struct QUARNBASTIL_EXPORT TableVersionRecord final : Drift::FlatValue<TableVersionRecord> {
  using Key = SwTableId;

  SwTableId tableId;
  /// Every record of the log up to this version is in hardware.
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

/// The table-version map of a group: the reports of the hardware writer, one record a table.
///
/// Process and thread: written by the hardware writer alone, which rings after it has written; read
/// by the agent, for which it is input from outside.
class QUARNBASTIL_EXPORT TableVersionDrift final
    : public KivSharedMem::HashedCollection<TableVersionDrift, TableVersionRecord> {
 public:
  static constexpr std::string_view kEntityName = "Asic::TableVersionDrift";
  static constexpr std::string_view kAttributeName = "tableVersion";
  /// Tables of one group, with room to spare.
  static constexpr Drift::Word kCapacity = 256;

  using HashedCollection::HashedCollection;

  /// The map of a group, mounted for writing through the hardware writer's manager. Throws
  /// `Drift::MountException`.
  static Fenrik::Ptr<TableVersionDrift> mounted(
      const Fenrik::Ptr<KivSharedMem::EntityManager>& manager,
      const Fenrik::String& canonicalGroup);

  /// Reports a version of a table.
  void tableVersionIs(const TableVersion& version) { recordIs(TableVersionRecord(version)); }
  void tableVersionDel(SwTableId tableId) { recordDel(tableId); }
};

}  // namespace Asic
