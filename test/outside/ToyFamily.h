#pragma once

#include "Drift/FlatValue.h"
#include "Drift/RecordText.h"
#include "OrderedTable/ConfigDrift.h"
#include "OrderedTable/ConfigDriftEntry.h"
#include "OrderedTable/EntryLogDrift.h"
#include "OrderedTable/LogDriftEntry.h"
#include "OrderedTable/TableEntry.h"
#include "QuarnBastil/FamilyClasses.h"

/// A table family of two fields that lives in somebody else's library: it costs what any further
/// family costs, and its collections may be as small as its owner wants them.
namespace Toy {

struct Key final {
  std::uint32_t number = 0;

  constexpr Key() noexcept = default;
  constexpr explicit Key(std::uint32_t n) noexcept : number(n) {}
  constexpr std::uint32_t hash(std::uint32_t seed) const noexcept {
    return Kiv::hashSingleAttr(seed, number);
  }
  static bool isEq(const void* a, const void* b) noexcept {
    return *static_cast<const Key*>(a) == *static_cast<const Key*>(b);
  }
  friend constexpr auto operator<=>(const Key&, const Key&) noexcept = default;
  static constexpr auto fields() { return std::array{DRIFT_FIELD_AT(Key, number, 0)}; }
};

struct LogEntry : Drift::FlatValue<LogEntry> {
  using Key = Toy::Key;

  Key key;
  std::uint32_t value = 0;

  LogEntry() = default;
  explicit LogEntry(const Key& ofKey) noexcept : key(ofKey) {}
  static constexpr auto fields() {
    return std::array{DRIFT_FIELD_AT(LogEntry, key, 0), DRIFT_FIELD_AT(LogEntry, value, 4)};
  }
};

struct ResourceKeys : Asic::NoResourceKeys {};

struct Entry final : Asic::TableEntry<LogEntry, ResourceKeys> {
  using TableEntry::TableEntry;
};

struct ConfigDriftEntry final : Asic::ConfigDriftEntry<LogEntry, ResourceKeys> {
  using Asic::ConfigDriftEntry<LogEntry, ResourceKeys>::ConfigDriftEntry;
};

struct LogDriftEntry final : Asic::LogDriftEntry<LogEntry> {
  using Asic::LogDriftEntry<LogEntry>::LogDriftEntry;
};

class QUARNBASTIL_EXPORT ToyConfigDrift final
    : public Asic::ConfigDrift<ToyConfigDrift, ConfigDriftEntry> {
 public:
  static constexpr std::string_view kEntityName = "Toy::ToyConfigDrift";
  using ConfigDrift::ConfigDrift;
};
class QUARNBASTIL_EXPORT ToyEntryLogDrift final
    : public Asic::EntryLogDrift<ToyEntryLogDrift, LogDriftEntry> {
 public:
  static constexpr std::string_view kEntityName = "Toy::ToyEntryLogDrift";
  using EntryLogDrift::EntryLogDrift;
};

QUARNBASTIL_DECLARE_FAMILY(Toy);
QUARNBASTIL_DECLARE_FAMILY(SmallToy);

/// What both have in common.
template <class Classes>
struct QUARNBASTIL_EXPORT Family : Classes {
  using Key = Toy::Key;
  using Entry = Toy::Entry;
  using LogEntry = Toy::LogEntry;
  using ResourceKeys = Toy::ResourceKeys;
  using ConfigDriftEntry = Toy::ConfigDriftEntry;
  using LogDriftEntry = Toy::LogDriftEntry;
  using ConfigDrift = Toy::ToyConfigDrift;
  using EntryLogDrift = Toy::ToyEntryLogDrift;
  using EntryHandleBase = Asic::TypedEntryHandle<Key, typename Classes::SwTable>;

  static constexpr std::uint32_t kTransientAddEntrySalt = 0x243f6a88;
  static constexpr std::uint32_t kTransientRemoveEntrySalt = 0x85a308d3;
  static constexpr std::uint32_t kTransientVersionForKeySalt = 0x13198a2e;
  static constexpr std::uint32_t kTableConfigDriftSalt = 0x03707344;
  static constexpr std::uint32_t kTableEntriesSalt = 0xa4093822;
};

/// With the limits of the real families.
struct QUARNBASTIL_EXPORT ToyFamily : Family<ToyFamilyClasses> {
  static constexpr Asic::SwTableId kTableId{0x04, 0x08, 0x0701};
  using Constants = QuarnBastil::FamilyConstants<ToyFamily>;
};

/// With limits that a few operations reach.
struct QUARNBASTIL_EXPORT SmallToyFamily : Family<SmallToyFamilyClasses> {
  static constexpr Asic::SwTableId kTableId{0x04, 0x08, 0x0702};
  static constexpr Drift::Format::Word kLogCapacity = 6;
  static constexpr Drift::Format::Word kConfigCapacity = 4;
  using Constants = QuarnBastil::FamilyConstants<SmallToyFamily>;
};

QUARNBASTIL_FAMILY(Toy, toy);
QUARNBASTIL_FAMILY(SmallToy, smallToy);

}  // namespace Toy
