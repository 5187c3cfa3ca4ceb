#pragma once

#include <array>
#include <limits>

#include "Drift/FlatValue.h"
#include "Drift/RecordText.h"
#include "Fenrik/Export.h"
#include "OrderedTable/EntryFlags.h"
#include "OrderedTable/LogVersion.h"
#include "OrderedTable/UnitId.h"

namespace Asic {

/// One change of a table: the record of its entry log, which all units of the table share. A table
/// delete carries a default entry.
///
/// The hardware writer reads it in another process, so this layout is a format and must not change.
template <class LogEntry>
struct QUARNBASTIL_EXPORT LogDriftEntry : Drift::FlatValue<LogDriftEntry<LogEntry>> {
  using Key = LogVersion;

  /// Unit of a record that does not concern a unit.
  static constexpr UnitId kNoUnit{std::numeric_limits<std::uint16_t>::max()};

  /// Position in the log; the record's key.
  LogVersion version;
  /// The kind of change.
  EntryFlags flags;
  /// The unit that changed.
  UnitId unitId = kNoUnit;
  /// The entry written or removed.
  LogEntry logEntry;

  LogDriftEntry() = default;
  LogDriftEntry(LogVersion v, EntryFlags f, UnitId unit, const LogEntry& entry) noexcept
      : version(v), flags(f), unitId(unit), logEntry(entry) {}

  static constexpr auto fields() {
    using Self = LogDriftEntry;
    return std::array{DRIFT_FIELD_AT(Self, version, 0), DRIFT_FIELD_AT(Self, flags, 8),
                      DRIFT_FIELD_AT(Self, unitId, 10), DRIFT_FIELD_AT(Self, logEntry, 12)};
  }
};

}  // namespace Asic
