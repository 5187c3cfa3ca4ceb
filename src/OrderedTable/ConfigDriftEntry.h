#pragma once

#include <array>

#include "Drift/FlatValue.h"
#include "Drift/RecordText.h"
#include "Fenrik/Export.h"
#include "OrderedTable/LogVersion.h"

namespace Asic {

/// The resource keys of a family that needs no resource: no data, but their room in the
/// configuration record stays.
struct alignas(4) NoResourceKeys {
  static constexpr std::array<Drift::RecordField, 0> fields() { return {}; }
  friend constexpr bool operator==(const NoResourceKeys&, const NoResourceKeys&) noexcept {
    return true;
  }
};

/// What is configured under one key, and since which version: the record of a unit's configuration
/// collection. The entry stands first, and the key first in it.
///
/// The hardware writer reads it in another process, so its layout is a format: it never changes.
template <class LogEntry, class ResourceKeys>
struct QUARNBASTIL_EXPORT ConfigDriftEntry
    : Drift::FlatValue<ConfigDriftEntry<LogEntry, ResourceKeys>> {
  using Key = typename LogEntry::Key;

  LogEntry logEntry;
  ResourceKeys rsrcKeys;
  /// Of the last log record that concerned the entry.
  LogVersion logVersion;
  /// The entry was removed; the record stays until the hardware has acknowledged that.
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

/// Whether the two fields that every reader of a configuration needs stand where it looks.
template <class Record>
constexpr bool configStandsAt(std::size_t logVersion, std::size_t isDeleted) {
  return offsetof(Record, logVersion) == logVersion && offsetof(Record, isDeleted) == isDeleted;
}

}  // namespace Asic
