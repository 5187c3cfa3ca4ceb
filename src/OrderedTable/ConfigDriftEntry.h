#pragma once

#include <array>

#include "Drift/FlatValue.h"
#include "Drift/RecordText.h"
#include "Fenrik/Export.h"
#include "OrderedTable/LogVersion.h"

namespace Asic {

/// Resource keys of a family that needs no resource. Carries no data, but keeps its place in the
/// configuration record.
struct alignas(4) NoResourceKeys {
  static constexpr std::array<Drift::RecordField, 0> fields() { return {}; }
  friend constexpr bool operator==(const NoResourceKeys&, const NoResourceKeys&) noexcept {
    return true;
  }
};

/// One configured entry and the version of its last change: the record of a unit's configuration
/// collection. The entry comes first, and within it the key.
///
/// The hardware writer reads it in another process, so this layout is a format and must not change.
template <class LogEntry, class ResourceKeys>
struct QUARNBASTIL_EXPORT ConfigDriftEntry
    : Drift::FlatValue<ConfigDriftEntry<LogEntry, ResourceKeys>> {
  using Key = typename LogEntry::Key;

  /// The configured entry, which begins with its key.
  LogEntry logEntry;
  /// Identify the resources that the entry uses.
  ResourceKeys rsrcKeys;
  /// Version of the last log record that changed the entry.
  LogVersion logVersion;
  /// Set when the entry is removed. The record remains until the hardware acknowledges the removal.
  bool isDeleted = false;

  ConfigDriftEntry() = default;
  ConfigDriftEntry(const LogEntry& entry, const ResourceKeys& keys, LogVersion version,
                   bool deleted) noexcept
      : logEntry(entry), rsrcKeys(keys), logVersion(version), isDeleted(deleted) {}

  static constexpr auto fields() {
    using Self = ConfigDriftEntry;
    return std::array{DRIFT_FIELD_AT(Self, logEntry, 0),
                      DRIFT_FIELD_AT(Self, rsrcKeys, sizeof(LogEntry)),
                      DRIFT_FIELD_AT(Self, logVersion, sizeof(LogEntry) + sizeof(ResourceKeys)),
                      DRIFT_FIELD(Self, isDeleted)};
  }
};

/// Whether the two fields that every reader of a configuration needs are at these offsets.
template <class Record>
constexpr bool configStandsAt(std::size_t logVersion, std::size_t isDeleted) {
  return offsetof(Record, logVersion) == logVersion && offsetof(Record, isDeleted) == isDeleted;
}

}  // namespace Asic
