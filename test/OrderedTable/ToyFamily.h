#pragma once

#include "Drift/FlatValue.h"
#include "Drift/RecordText.h"
#include "OrderedTable/ConfigDrift.h"
#include "OrderedTable/ConfigDriftEntry.h"
#include "OrderedTable/EntryLogDrift.h"
#include "OrderedTable/LogDriftEntry.h"
#include "OrderedTable/TableEntry.h"
#include "QuarnBastil/EntryLog.h"
#include "QuarnBastil/InfraTypes.h"
#include "QuarnBastil/Interface.h"
#include "QuarnBastil/SwTable.h"
#include "QuarnBastil/SwTableHelperBase.h"
#include "Support/FamilyMemory.h"

/// A table family of two fields that lives in the tests: it costs what any further family costs,
/// and its collections may be as small as a test wants them.
namespace Toy {

/// The limits of the real families.
struct Usual {
  static constexpr const char* kTableName = "Toy";
  static constexpr Asic::SwTableId kTableId{0x04, 0x08, 0x0701};
  static constexpr Drift::Format::Word kLogCapacity = 1'000'000;
  static constexpr Drift::Format::Word kConfigCapacity = 65'536;
  static constexpr std::string_view kConfigName = "Toy::UsualConfigDrift";
  static constexpr std::string_view kLogName = "Toy::UsualEntryLogDrift";
};

/// Limits that a few operations reach.
struct Small {
  static constexpr const char* kTableName = "SmallToy";
  static constexpr Asic::SwTableId kTableId{0x04, 0x08, 0x0702};
  static constexpr Drift::Format::Word kLogCapacity = 6;
  static constexpr Drift::Format::Word kConfigCapacity = 4;
  static constexpr std::string_view kConfigName = "Toy::SmallConfigDrift";
  static constexpr std::string_view kLogName = "Toy::SmallEntryLogDrift";
};

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

template <class Limits>
class ConfigDrift final : public Asic::ConfigDrift<ConfigDrift<Limits>, ConfigDriftEntry> {
 public:
  static constexpr std::string_view kEntityName = Limits::kConfigName;
  using Asic::ConfigDrift<ConfigDrift<Limits>, ConfigDriftEntry>::ConfigDrift;
};

template <class Limits>
class EntryLogDrift final : public Asic::EntryLogDrift<EntryLogDrift<Limits>, LogDriftEntry> {
 public:
  static constexpr std::string_view kEntityName = Limits::kLogName;
  using Asic::EntryLogDrift<EntryLogDrift<Limits>, LogDriftEntry>::EntryLogDrift;
};

inline const KivSharedMem::EntityRegistrations<ConfigDrift<Usual>, EntryLogDrift<Usual>,
                                               ConfigDrift<Small>, EntryLogDrift<Small>>
    kEntities;

template <class Limits>
class SwTable;
template <class Limits>
class EntryHandle;
template <class Limits>
class SwTableEntries_py;
template <class Limits>
class SwTableIteratorState;
template <class Limits>
class EntryWrapper;
template <class Limits>
class ResolverEntry;
template <class Limits>
class SwTableHelperBase;
template <class Limits>
class EntryLog;
template <class Limits>
class Interface;

template <class Limits>
struct Family
    : QuarnBastil::FamilyClasses<"Toy", SwTable<Limits>, EntryHandle<Limits>,
                                 SwTableEntries_py<Limits>, SwTableIteratorState<Limits>,
                                 EntryWrapper<Limits>, ResolverEntry<Limits>,
                                 SwTableHelperBase<Limits>, EntryLog<Limits>, Interface<Limits>> {
  static constexpr const char* kTableName = Limits::kTableName;
  static constexpr Asic::SwTableId kTableId = Limits::kTableId;
  static constexpr Drift::Format::Word kLogCapacity = Limits::kLogCapacity;
  static constexpr Drift::Format::Word kConfigCapacity = Limits::kConfigCapacity;

  using Key = Toy::Key;
  using Entry = Toy::Entry;
  using LogEntry = Toy::LogEntry;
  using ResourceKeys = Toy::ResourceKeys;
  using ConfigDriftEntry = Toy::ConfigDriftEntry;
  using LogDriftEntry = Toy::LogDriftEntry;
  using ConfigDrift = Toy::ConfigDrift<Limits>;
  using EntryLogDrift = Toy::EntryLogDrift<Limits>;
  using EntryHandleBase = Asic::TypedEntryHandle<Key, Toy::SwTable<Limits>>;
  using Constants = QuarnBastil::FamilyConstants<Family>;

  static constexpr std::uint32_t kTransientAddEntrySalt = 0x243f6a88;
  static constexpr std::uint32_t kTransientRemoveEntrySalt = 0x85a308d3;
  static constexpr std::uint32_t kTransientVersionForKeySalt = 0x13198a2e;
  static constexpr std::uint32_t kTableConfigDriftSalt = 0x03707344;
  static constexpr std::uint32_t kTableEntriesSalt = 0xa4093822;
};

template <class Limits>
class EntryHandle final : public QuarnBastil::SwTableEntryHandle<Family<Limits>> {
 public:
  using QuarnBastil::SwTableEntryHandle<Family<Limits>>::SwTableEntryHandle;
};
template <class Limits>
class SwTableEntries_py final : public QuarnBastil::SwTableEntriesPy<Family<Limits>> {};
template <class Limits>
class SwTableIteratorState final : public QuarnBastil::SwTableIteratorState<Family<Limits>> {};
template <class Limits>
class EntryWrapper final : public QuarnBastil::EntryWrapper<Family<Limits>> {
 public:
  using QuarnBastil::EntryWrapper<Family<Limits>>::EntryWrapper;
};
template <class Limits>
class ResolverEntry final : public QuarnBastil::ResolverEntry<Family<Limits>> {
 public:
  using QuarnBastil::ResolverEntry<Family<Limits>>::ResolverEntry;
};
template <class Limits>
class SwTableHelperBase : public QuarnBastil::SwTableHelperBase<Family<Limits>> {};
template <class Limits>
class EntryLog final : public QuarnBastil::EntryLog<Family<Limits>> {
 public:
  using QuarnBastil::EntryLog<Family<Limits>>::EntryLog;
};
template <class Limits>
class SwTable final : public QuarnBastil::SwTable<Family<Limits>> {
 public:
  using QuarnBastil::SwTable<Family<Limits>>::SwTable;
};
template <class Limits>
class Interface final : public QuarnBastil::Interface<Family<Limits>> {
 public:
  using QuarnBastil::Interface<Family<Limits>>::Interface;
};

static_assert(QuarnBastil::FamilyTraits<Family<Usual>> && QuarnBastil::FamilyTraits<Family<Small>>);

}  // namespace Toy

using ToyFamily = Toy::Family<Toy::Usual>;
using SmallToyFamily = Toy::Family<Toy::Small>;

template <class Limits>
struct Support::Numbers<Toy::Family<Limits>> {
  static Toy::Key key(Key key) { return Toy::Key(key); }
  static Key number(const Toy::Key& key) { return key.number; }
  static void valueIs(auto& entry, Value value) { entry.value = value; }
  static Value value(const auto& entry) { return entry.value; }
};

namespace QuarnBastil {
extern template class SwTable<ToyFamily>;
extern template class EntryLog<ToyFamily>;
extern template class Interface<ToyFamily>;
extern template class SwTable<SmallToyFamily>;
extern template class EntryLog<SmallToyFamily>;
extern template class Interface<SmallToyFamily>;
}  // namespace QuarnBastil
