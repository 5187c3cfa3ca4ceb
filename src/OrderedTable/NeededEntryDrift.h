#pragma once

#include "Drift/FlatValue.h"
#include "Drift/RecordText.h"
#include "KivSharedMem/Collection.h"
#include "OrderedTable/TableVersion.h"

namespace Asic {

/// The requirements of one log record: it may be applied once the hardware has each of these
/// versions.
struct QUARNBASTIL_EXPORT NeededEntryRecord final : Drift::FlatValue<NeededEntryRecord> {
  /// Records are numbered consecutively from 1, independent of the versions that they concern.
  using Key = LogVersion;

  /// The number of tables of one agent; a larger set is split over several records.
  static constexpr std::size_t kVersions = 16;

  /// Number of this record.
  LogVersion sequence;
  /// The log record that has the requirements. Ascends with `sequence`.
  LogVersion version;
  /// Number of used elements of `needed`.
  std::uint32_t count = 0;
  /// The required versions, one per table.
  std::array<TableVersion, kVersions> needed{};

  static constexpr auto fields() {
    using Self = NeededEntryRecord;
    return std::array{DRIFT_FIELD_AT(Self, sequence, 0), DRIFT_FIELD_AT(Self, version, 8),
                      DRIFT_FIELD_AT(Self, count, 16), DRIFT_FIELD_AT(Self, needed, 20)};
  }
};
static_assert(sizeof(NeededEntryRecord) == 212);

/// The non-empty needed sets of one table's log, stored next to the log.
///
/// Process and thread: written by the agent on the table thread, before the version that has the
/// set is announced; read by the hardware writer.
class QUARNBASTIL_EXPORT NeededEntryDrift final
    : public KivSharedMem::DenseCollection<NeededEntryDrift, NeededEntryRecord> {
 public:
  static constexpr std::string_view kEntityName = "Asic::NeededEntryDrift";
  static constexpr std::string_view kAttributeName = "neededEntry";

  using DenseCollection::DenseCollection;

  void neededEntryIs(const NeededEntryRecord& record) { recordIs(record); }
  void neededEntryDel(LogVersion sequence) { recordDel(sequence.value()); }
  void neededEntryDelAll() { recordDelAll(); }
  /// Ensures that one more record can be stored. Throws what storing it would throw.
  void neededEntryRoom() { recordRoom(); }
};

}  // namespace Asic
