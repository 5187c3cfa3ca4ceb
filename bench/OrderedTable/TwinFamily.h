#pragma once

#include <array>
#include <cstdint>

#include "QuarnBastil/FamilyClasses.h"
#include "QuarnBastil/TcamActionTypes.h"

/// A family whose entries have the size of `TcamAction`'s and use no resources.
namespace Twin {

struct Key final : QuarnBastil::BankIndexKey<Key> {
  using BankIndexKey::BankIndexKey;
};

struct LogEntry : Drift::FlatValue<LogEntry> {
  using Key = Twin::Key;

  Key key;
  std::array<std::uint32_t, 32> words{};

  LogEntry() = default;
  explicit LogEntry(const Key& ofKey) noexcept : key(ofKey) {}
  static constexpr auto fields() {
    return std::array{DRIFT_FIELD_AT(LogEntry, key, 0), DRIFT_FIELD_AT(LogEntry, words, 4)};
  }
};

struct ResourceKeys : Asic::NoResourceKeys {};

struct Entry final : Asic::TableEntry<LogEntry, ResourceKeys> {
  using TableEntry::TableEntry;
};
static_assert(sizeof(Entry) == sizeof(QuarnBastil::TcamActionEntry));

struct ConfigDriftEntry final : Asic::ConfigDriftEntry<LogEntry, ResourceKeys> {
  using Asic::ConfigDriftEntry<LogEntry, ResourceKeys>::ConfigDriftEntry;
};

struct LogDriftEntry final : Asic::LogDriftEntry<LogEntry> {
  using Asic::LogDriftEntry<LogEntry>::LogDriftEntry;
};

class QUARNBASTIL_EXPORT TwinConfigDrift final
    : public Asic::ConfigDrift<TwinConfigDrift, ConfigDriftEntry> {
 public:
  static constexpr std::string_view kEntityName = "Twin::TwinConfigDrift";
  using ConfigDrift::ConfigDrift;
};
class QUARNBASTIL_EXPORT TwinEntryLogDrift final
    : public Asic::EntryLogDrift<TwinEntryLogDrift, LogDriftEntry> {
 public:
  static constexpr std::string_view kEntityName = "Twin::TwinEntryLogDrift";
  using EntryLogDrift::EntryLogDrift;
};

QUARNBASTIL_DECLARE_FAMILY(Twin);

struct QUARNBASTIL_EXPORT TwinFamily : TwinFamilyClasses {
  static constexpr Asic::SwTableId kTableId{0x04, 0x08, 0x0703};

  using Key = Twin::Key;
  using Entry = Twin::Entry;
  using LogEntry = Twin::LogEntry;
  using ResourceKeys = Twin::ResourceKeys;
  using ConfigDriftEntry = Twin::ConfigDriftEntry;
  using LogDriftEntry = Twin::LogDriftEntry;
  using ConfigDrift = TwinConfigDrift;
  using EntryLogDrift = TwinEntryLogDrift;
  using EntryHandleBase = Asic::TypedEntryHandle<Key, SwTable>;
  using Constants = QuarnBastil::FamilyConstants<TwinFamily>;

  static constexpr std::uint32_t kTransientAddEntrySalt = 0x2ffd72db;
  static constexpr std::uint32_t kTransientRemoveEntrySalt = 0xd01adfb7;
  static constexpr std::uint32_t kTransientVersionForKeySalt = 0xb8e1afed;
  static constexpr std::uint32_t kTableConfigDriftSalt = 0x6a267e96;
  static constexpr std::uint32_t kTableEntriesSalt = 0xba7c9045;
};

QUARNBASTIL_FAMILY(Twin, twin);

}  // namespace Twin
