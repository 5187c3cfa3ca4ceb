#pragma once

#include <array>
#include <cstdint>

#include "Drift/FlatValue.h"
#include "Drift/RecordText.h"
#include "Fenrik/Export.h"
#include "OrderedTable/ConfigDrift.h"
#include "OrderedTable/ConfigDriftEntry.h"
#include "OrderedTable/EntryLogDrift.h"
#include "OrderedTable/LogDriftEntry.h"
#include "OrderedTable/TableEntry.h"
#include "QuarnLpmLib/PrefixKey.h"

namespace QuarnLpmLib {

struct QUARNBASTIL_EXPORT TcamDataModelEntryKey final : PrefixKey<TcamDataModelEntryKey> {
  using PrefixKey::PrefixKey;
};

/// A prefix matched by content, not by search.
struct QUARNBASTIL_EXPORT TcamDataModelLogEntry : Drift::FlatValue<TcamDataModelLogEntry> {
  using Key = TcamDataModelEntryKey;

  Key key;
  std::array<std::uint32_t, 2> value{};
  std::array<std::uint32_t, 2> mask{};
  std::uint32_t nextHop = 0;
  std::uint32_t label = 0;

  TcamDataModelLogEntry() = default;
  explicit TcamDataModelLogEntry(const Key& ofKey) noexcept : key(ofKey) {}

  static constexpr auto fields() {
    using Self = TcamDataModelLogEntry;
    return std::array{DRIFT_FIELD_AT(Self, key, 0), DRIFT_FIELD_AT(Self, value, 8),
                      DRIFT_FIELD_AT(Self, mask, 16), DRIFT_FIELD_AT(Self, nextHop, 24),
                      DRIFT_FIELD_AT(Self, label, 28)};
  }
};
static_assert(sizeof(TcamDataModelLogEntry) == 32);

struct QUARNBASTIL_EXPORT TcamDataModelResourceKeys : Asic::NoResourceKeys {};

struct QUARNBASTIL_EXPORT TcamDataModelEntry final
    : Asic::TableEntry<TcamDataModelLogEntry, TcamDataModelResourceKeys> {
  using TableEntry::TableEntry;
};

struct QUARNBASTIL_EXPORT TcamDataModelConfigDriftEntry final
    : Asic::ConfigDriftEntry<TcamDataModelLogEntry, TcamDataModelResourceKeys> {
  using ConfigDriftEntry::ConfigDriftEntry;
};
static_assert(Asic::configStandsAt<TcamDataModelConfigDriftEntry>(36, 44));

struct QUARNBASTIL_EXPORT TcamDataModelLogDriftEntry final
    : Asic::LogDriftEntry<TcamDataModelLogEntry> {
  using LogDriftEntry::LogDriftEntry;
};

class QUARNBASTIL_EXPORT TcamDataModelConfigDrift final
    : public Asic::ConfigDrift<TcamDataModelConfigDrift, TcamDataModelConfigDriftEntry> {
 public:
  static constexpr std::string_view kEntityName = "QuarnLpmLib::TcamDataModelConfigDrift";
  using ConfigDrift::ConfigDrift;
};

class QUARNBASTIL_EXPORT TcamDataModelEntryLogDrift final
    : public Asic::EntryLogDrift<TcamDataModelEntryLogDrift, TcamDataModelLogDriftEntry> {
 public:
  static constexpr std::string_view kEntityName = "QuarnLpmLib::TcamDataModelEntryLogDrift";
  using EntryLogDrift::EntryLogDrift;
};

}  // namespace QuarnLpmLib
