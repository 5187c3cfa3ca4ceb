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
#include "QuarnLpmLib/IndexBankKey.h"

namespace QuarnLpmLib {

struct QUARNBASTIL_EXPORT SmallAdsDataModelEntryKey final
    : IndexBankKey<SmallAdsDataModelEntryKey> {
  using IndexBankKey::IndexBankKey;
};

/// Result of the small prefix search for a row.
struct QUARNBASTIL_EXPORT SmallAdsDataModelLogEntry : Drift::FlatValue<SmallAdsDataModelLogEntry> {
  using Key = SmallAdsDataModelEntryKey;

  Key key;
  std::uint32_t nextHop = 0;
  std::uint32_t label = 0;
  std::array<std::uint32_t, 3> words{};

  SmallAdsDataModelLogEntry() = default;
  explicit SmallAdsDataModelLogEntry(const Key& ofKey) noexcept : key(ofKey) {}

  static constexpr auto fields() {
    using Self = SmallAdsDataModelLogEntry;
    return std::array{DRIFT_FIELD_AT(Self, key, 0), DRIFT_FIELD_AT(Self, nextHop, 4),
                      DRIFT_FIELD_AT(Self, label, 8), DRIFT_FIELD_AT(Self, words, 12)};
  }
};
static_assert(sizeof(SmallAdsDataModelLogEntry) == 24);

struct QUARNBASTIL_EXPORT SmallAdsDataModelResourceKeys : Asic::NoResourceKeys {};

struct QUARNBASTIL_EXPORT SmallAdsDataModelEntry final
    : Asic::TableEntry<SmallAdsDataModelLogEntry, SmallAdsDataModelResourceKeys> {
  using TableEntry::TableEntry;
};

struct QUARNBASTIL_EXPORT SmallAdsDataModelConfigDriftEntry final
    : Asic::ConfigDriftEntry<SmallAdsDataModelLogEntry, SmallAdsDataModelResourceKeys> {
  using ConfigDriftEntry::ConfigDriftEntry;
};
static_assert(Asic::configStandsAt<SmallAdsDataModelConfigDriftEntry>(28, 36));

struct QUARNBASTIL_EXPORT SmallAdsDataModelLogDriftEntry final
    : Asic::LogDriftEntry<SmallAdsDataModelLogEntry> {
  using LogDriftEntry::LogDriftEntry;
};

class QUARNBASTIL_EXPORT SmallAdsDataModelConfigDrift final
    : public Asic::ConfigDrift<SmallAdsDataModelConfigDrift, SmallAdsDataModelConfigDriftEntry> {
 public:
  static constexpr std::string_view kEntityName = "QuarnLpmLib::SmallAdsDataModelConfigDrift";
  using ConfigDrift::ConfigDrift;
};

class QUARNBASTIL_EXPORT SmallAdsDataModelEntryLogDrift final
    : public Asic::EntryLogDrift<SmallAdsDataModelEntryLogDrift, SmallAdsDataModelLogDriftEntry> {
 public:
  static constexpr std::string_view kEntityName = "QuarnLpmLib::SmallAdsDataModelEntryLogDrift";
  using EntryLogDrift::EntryLogDrift;
};

}  // namespace QuarnLpmLib
