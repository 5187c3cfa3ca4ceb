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

struct QUARNBASTIL_EXPORT BigAdsDataModelEntryKey final : PrefixKey<BigAdsDataModelEntryKey> {
  using PrefixKey::PrefixKey;
};

/// Result of the prefix search for a 32-bit prefix.
struct QUARNBASTIL_EXPORT BigAdsDataModelLogEntry : Drift::FlatValue<BigAdsDataModelLogEntry> {
  using Key = BigAdsDataModelEntryKey;

  Key key;
  std::uint32_t nextHop = 0;
  std::uint32_t label = 0;
  std::array<std::uint32_t, 4> words{};

  BigAdsDataModelLogEntry() = default;
  explicit BigAdsDataModelLogEntry(const Key& ofKey) noexcept : key(ofKey) {}

  static constexpr auto fields() {
    using Self = BigAdsDataModelLogEntry;
    return std::array{DRIFT_FIELD_AT(Self, key, 0), DRIFT_FIELD_AT(Self, nextHop, 8),
                      DRIFT_FIELD_AT(Self, label, 12), DRIFT_FIELD_AT(Self, words, 16)};
  }
};
static_assert(sizeof(BigAdsDataModelLogEntry) == 32);

struct QUARNBASTIL_EXPORT BigAdsDataModelResourceKeys : Asic::NoResourceKeys {};

struct QUARNBASTIL_EXPORT BigAdsDataModelEntry final
    : Asic::TableEntry<BigAdsDataModelLogEntry, BigAdsDataModelResourceKeys> {
  using TableEntry::TableEntry;
};

struct QUARNBASTIL_EXPORT BigAdsDataModelConfigDriftEntry final
    : Asic::ConfigDriftEntry<BigAdsDataModelLogEntry, BigAdsDataModelResourceKeys> {
  using ConfigDriftEntry::ConfigDriftEntry;
};
static_assert(Asic::configStandsAt<BigAdsDataModelConfigDriftEntry>(36, 44));

struct QUARNBASTIL_EXPORT BigAdsDataModelLogDriftEntry final
    : Asic::LogDriftEntry<BigAdsDataModelLogEntry> {
  using LogDriftEntry::LogDriftEntry;
};

class QUARNBASTIL_EXPORT BigAdsDataModelConfigDrift final
    : public Asic::ConfigDrift<BigAdsDataModelConfigDrift, BigAdsDataModelConfigDriftEntry> {
 public:
  static constexpr std::string_view kEntityName = "QuarnLpmLib::BigAdsDataModelConfigDrift";
  using ConfigDrift::ConfigDrift;
};

class QUARNBASTIL_EXPORT BigAdsDataModelEntryLogDrift final
    : public Asic::EntryLogDrift<BigAdsDataModelEntryLogDrift, BigAdsDataModelLogDriftEntry> {
 public:
  static constexpr std::string_view kEntityName = "QuarnLpmLib::BigAdsDataModelEntryLogDrift";
  using EntryLogDrift::EntryLogDrift;
};

}  // namespace QuarnLpmLib
