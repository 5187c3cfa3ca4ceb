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
#include "QuarnLpmLib/PrefixBlock.h"
#include "QuarnLpmLib/PrefixKey.h"

namespace QuarnLpmLib {

struct QUARNBASTIL_EXPORT BigBbDataModelEntryKey final : PrefixKey<BigBbDataModelEntryKey> {
  using PrefixKey::PrefixKey;
};

/// A block of the prefix search that covers a 32-bit prefix.
struct QUARNBASTIL_EXPORT BigBbDataModelLogEntry : Drift::FlatValue<BigBbDataModelLogEntry> {
  using Key = BigBbDataModelEntryKey;

  Key key;
  PrefixBlock block;

  BigBbDataModelLogEntry() = default;
  explicit BigBbDataModelLogEntry(const Key& ofKey) noexcept : key(ofKey) {}

  static constexpr auto fields() {
    using Self = BigBbDataModelLogEntry;
    return std::array{DRIFT_FIELD_AT(Self, key, 0), DRIFT_FIELD_AT(Self, block, 8)};
  }
};
static_assert(sizeof(BigBbDataModelLogEntry) == 72);

struct QUARNBASTIL_EXPORT BigBbDataModelResourceKeys : Asic::NoResourceKeys {};

struct QUARNBASTIL_EXPORT BigBbDataModelEntry final
    : Asic::TableEntry<BigBbDataModelLogEntry, BigBbDataModelResourceKeys> {
  using TableEntry::TableEntry;
};

struct QUARNBASTIL_EXPORT BigBbDataModelConfigDriftEntry final
    : Asic::ConfigDriftEntry<BigBbDataModelLogEntry, BigBbDataModelResourceKeys> {
  using ConfigDriftEntry::ConfigDriftEntry;
};
static_assert(Asic::configStandsAt<BigBbDataModelConfigDriftEntry>(76, 84));

struct QUARNBASTIL_EXPORT BigBbDataModelLogDriftEntry final
    : Asic::LogDriftEntry<BigBbDataModelLogEntry> {
  using LogDriftEntry::LogDriftEntry;
};

class QUARNBASTIL_EXPORT BigBbDataModelConfigDrift final
    : public Asic::ConfigDrift<BigBbDataModelConfigDrift, BigBbDataModelConfigDriftEntry> {
 public:
  static constexpr std::string_view kEntityName = "QuarnLpmLib::BigBbDataModelConfigDrift";
  using ConfigDrift::ConfigDrift;
};

class QUARNBASTIL_EXPORT BigBbDataModelEntryLogDrift final
    : public Asic::EntryLogDrift<BigBbDataModelEntryLogDrift, BigBbDataModelLogDriftEntry> {
 public:
  static constexpr std::string_view kEntityName = "QuarnLpmLib::BigBbDataModelEntryLogDrift";
  using EntryLogDrift::EntryLogDrift;
};

}  // namespace QuarnLpmLib
