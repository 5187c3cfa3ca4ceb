#pragma once

#include "Drift/FlatValue.h"
#include "Drift/RecordText.h"
#include "KivSharedMem/Collection.h"
#include "OrderedTable/TableVersion.h"

namespace Asic {

/// What one log record needs of other tables: the record may be applied when the hardware has each
/// of these versions.
struct QUARNBASTIL_EXPORT NeededEntryRecord final : Drift::FlatValue<NeededEntryRecord> {
  /// Records are numbered on from 1, whatever versions they concern.
  using Key = LogVersion;

  /// As many tables as an agent has; a larger set takes several records.
  static constexpr std::size_t kVersions = 16;

  LogVersion sequence;
  /// The log record that is concerned; ascending with `sequence`.
  LogVersion version;
  std::uint32_t count = 0;
  std::array<TableVersion, kVersions> needed{};

  static constexpr auto fields() {
    using Self = NeededEntryRecord;
    return std::array{DRIFT_FIELD_AT(Self, sequence, 0), DRIFT_FIELD_AT(Self, version, 8),
                      DRIFT_FIELD_AT(Self, count, 16), DRIFT_FIELD_AT(Self, needed, 20)};
  }
};
static_assert(sizeof(NeededEntryRecord) == 212);

/// The needed sets of one table's log, beside it: only those that hold something.
///
/// Process and thread: written by the agent, on the table thread, before the version that needs the
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
  /// Sees to it that one more record can be stored: throws what storing it would throw.
  void neededEntryRoom() { recordRoom(); }
};

}  // namespace Asic
