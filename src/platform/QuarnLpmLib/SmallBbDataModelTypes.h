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

struct QUARNBASTIL_EXPORT SmallBbDataModelEntryKey final : WidePrefixKey<SmallBbDataModelEntryKey> {
  using WidePrefixKey::WidePrefixKey;
};

/// A block of the prefix search that covers a 64-bit prefix.
struct QUARNBASTIL_EXPORT SmallBbDataModelLogEntry : Drift::FlatValue<SmallBbDataModelLogEntry> {
  using Key = SmallBbDataModelEntryKey;

  Key key;
  PrefixBlock block;

  SmallBbDataModelLogEntry() = default;
  explicit SmallBbDataModelLogEntry(const Key& ofKey) noexcept : key(ofKey) {}

  static constexpr auto fields() {
    using Self = SmallBbDataModelLogEntry;
    return std::array{DRIFT_FIELD_AT(Self, key, 0), DRIFT_FIELD_AT(Self, block, 12)};
  }
};
static_assert(sizeof(SmallBbDataModelLogEntry) == 76);

struct QUARNBASTIL_EXPORT SmallBbDataModelResourceKeys : Asic::NoResourceKeys {};

struct QUARNBASTIL_EXPORT SmallBbDataModelEntry final
    : Asic::TableEntry<SmallBbDataModelLogEntry, SmallBbDataModelResourceKeys> {
  using TableEntry::TableEntry;
};

struct QUARNBASTIL_EXPORT SmallBbDataModelConfigDriftEntry final
    : Asic::ConfigDriftEntry<SmallBbDataModelLogEntry, SmallBbDataModelResourceKeys> {
  using ConfigDriftEntry::ConfigDriftEntry;
};
static_assert(Asic::configStandsAt<SmallBbDataModelConfigDriftEntry>(80, 88));

struct QUARNBASTIL_EXPORT SmallBbDataModelLogDriftEntry final
    : Asic::LogDriftEntry<SmallBbDataModelLogEntry> {
  using LogDriftEntry::LogDriftEntry;
};

class QUARNBASTIL_EXPORT SmallBbDataModelConfigDrift final
    : public Asic::ConfigDrift<SmallBbDataModelConfigDrift, SmallBbDataModelConfigDriftEntry> {
 public:
  static constexpr std::string_view kEntityName = "QuarnLpmLib::SmallBbDataModelConfigDrift";
  using ConfigDrift::ConfigDrift;
};

class QUARNBASTIL_EXPORT SmallBbDataModelEntryLogDrift final
    : public Asic::EntryLogDrift<SmallBbDataModelEntryLogDrift, SmallBbDataModelLogDriftEntry> {
 public:
  static constexpr std::string_view kEntityName = "QuarnLpmLib::SmallBbDataModelEntryLogDrift";
  using EntryLogDrift::EntryLogDrift;
};

}  // namespace QuarnLpmLib
