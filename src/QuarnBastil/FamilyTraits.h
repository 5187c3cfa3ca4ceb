#pragma once

#include <algorithm>
#include <array>
#include <concepts>
#include <cstdint>

#include "Drift/Format.h"
#include "Fenrik/Format.h"
#include "Fenrik/Module.h"
#include "Fenrik/NodeClass.h"
#include "Kiv/TraceHandle.h"
#include "OrderedTable/Constants.h"
#include "OrderedTable/OrderedSwTable.h"
#include "OrderedTable/ResourceHooks.h"
#include "OrderedTable/SwTableIteratorState.h"
#include "OrderedTable/TypedEntryHandle.h"

namespace QuarnBastil {

/// What holds for most families. The traits of a family derive from `FamilyClasses`, which names
/// its final classes, and state
///   identity:  kTableId
///   types:     Key, Entry, LogEntry, ResourceKeys, ConfigDriftEntry, LogDriftEntry, ConfigDrift,
///              EntryLogDrift, EntryHandleBase, Constants
///   salts:     of its keyed collections
/// and what differs from the facts here.
struct FamilyDefaults {
  static constexpr const char* kAgentName = "QuarnBastil";
  static constexpr const char* kTableNamespace = "QuarnBastil";
  static constexpr const char* kGroupName = "QuarnBastilGroup";
  static constexpr Fenrik::Storage kWrapperStorage = Fenrik::Storage::slabPerWrite;
  /// Of the table's attributes; a family whose table has a base class of its own counts from 768.
  static constexpr std::uint16_t kSwTableFieldBase = 640;
  /// Live and deleted entries of one unit: its rows are numbered in 16 bits.
  static constexpr Drift::Format::Word kConfigCapacity = 65'536;
  /// Records that wait for the hardware, over all units: seconds of it at full rate.
  static constexpr Drift::Format::Word kLogCapacity = 1'000'000;

  using SwTableBase = Asic::OrderedSwTable;
  using IteratorStateBase = Asic::SwTableIteratorStateBase;
  using ResourceHooks = Asic::NoResourceHooks;
};

/// The classes of a family by their roles, and the modules in which they stand. The first argument
/// is the family's prefix, which is also the name of its table.
template <Fenrik::FixedString prefix, class SwTableClass, class EntryHandleClass,
          class SwTableEntriesClass, class IteratorStateClass, class EntryWrapperClass,
          class ResolverEntryClass, class SwTableHelperBaseClass, class EntryLogClass,
          class InterfaceClass>
struct FamilyClasses : FamilyDefaults {
  static constexpr auto kPrefix = prefix;
  static constexpr const char* kTableName = kPrefix.text;

  using SwTable = SwTableClass;
  using EntryHandle = EntryHandleClass;
  using SwTableEntries_py = SwTableEntriesClass;
  using IteratorState = IteratorStateClass;
  using EntryWrapper = EntryWrapperClass;
  using ResolverEntry = ResolverEntryClass;
  using SwTableHelperBase = SwTableHelperBaseClass;
  using EntryLog = EntryLogClass;
  using Interface = InterfaceClass;

  using InfraTypesModule = Kiv::Module<prefix + "InfraTypes", EntryWrapper, ResolverEntry>;
  using SwTableModule =
      Kiv::Module<prefix + "SwTable", EntryHandle, SwTableEntries_py, SwTable, IteratorState>;
  using SwTableHelperBaseModule = Kiv::Module<prefix + "SwTableHelperBase", SwTableHelperBase>;
  using EntryLogModule = Kiv::Module<prefix + "EntryLog", EntryLog>;
  using InterfaceModule = Kiv::Module<prefix + "Interface", Interface>;
};

/// The bare name of a class.
template <class T>
constexpr const char* className() {
  return Kiv::kBareTypeName<T>.data();
}

/// The trace handles of a family, each made at its first use.
template <class Family>
struct QUARNBASTIL_EXPORT FamilyTraces {
  /// Of the table and of what is in flight.
  KIV_TRACE_ACCESSOR static const Kiv::TraceHandle& swTable() {
    static constinit const Kiv::TraceHandle handle(Kiv::kConstantHandle,
                                                   className<typename Family::SwTable>());
    return handle;
  }
  KIV_TRACE_ACCESSOR static const Kiv::TraceHandle& entryLog() {
    static constinit const Kiv::TraceHandle handle(Kiv::kConstantHandle,
                                                   className<typename Family::EntryLog>());
    return handle;
  }
  KIV_TRACE_ACCESSOR static const Kiv::TraceHandle& interface() {
    static constinit const Kiv::TraceHandle handle(Kiv::kConstantHandle,
                                                   className<typename Family::Interface>());
    return handle;
  }
};

/// Constant texts put together while compiling, with a zero byte behind them.
template <class Parts>
inline constexpr auto kJoined = [] {
  constexpr std::size_t size = [] {
    std::size_t total = 0;
    for (const std::string_view part : Parts::parts()) total += part.size();
    return total;
  }();
  std::array<char, size + 1> text{};
  auto place = text.begin();
  for (const std::string_view part : Parts::parts()) place = std::ranges::copy(part, place).out;
  return text;
}();

/// The shared-memory paths of a family.
template <class Family>
class QUARNBASTIL_EXPORT FamilyConstants {
 public:
  static Fenrik::String configDriftPath(Asic::UnitId unitId) {
    return Fenrik::formatString(
        "{}{}",
        Asic::Constants::canonicalGroupTableConfigDriftPathBase(
            canonicalGroupName(), Family::kTableNamespace, Family::kTableName),
        unitId);
  }
  static Fenrik::String tableEntryLogDriftPath() {
    return Asic::Constants::canonicalGroupTableEntryLogDriftPath(
        canonicalGroupName(), Family::kTableNamespace, Family::kTableName, Family::kTableId);
  }
  static Fenrik::String canonicalGroupName() {
    return Asic::Constants::canonicalizeGroupName(Family::kAgentName, Family::kGroupName);
  }
};

/// Stands under the traits of every family, so that what is missing is reported at its own line.
template <class F>
concept FamilyTraits = requires {
  { F::kTableName } -> std::convertible_to<const char*>;
  { F::kTableId } -> std::convertible_to<Asic::SwTableId>;
  { F::kTransientAddEntrySalt } -> std::convertible_to<std::uint32_t>;
  { F::kTransientRemoveEntrySalt } -> std::convertible_to<std::uint32_t>;
  { F::kTransientVersionForKeySalt } -> std::convertible_to<std::uint32_t>;
  { F::kTableConfigDriftSalt } -> std::convertible_to<std::uint32_t>;
  { F::kTableEntriesSalt } -> std::convertible_to<std::uint32_t>;
  requires std::derived_from<typename F::Entry, typename F::LogEntry>;
  requires std::same_as<typename F::Entry::ResourceKeys, typename F::ResourceKeys>;
  requires std::same_as<typename F::LogEntry::Key, typename F::Key>;
  requires std::derived_from<typename F::SwTable, typename F::SwTableBase>;
  requires std::derived_from<typename F::EntryHandle, Asic::OrderedSwTable::EntryHandle>;
  requires std::derived_from<typename F::IteratorState, typename F::IteratorStateBase>;
  typename F::EntryWrapper;
  typename F::ResolverEntry;
  typename F::SwTableHelperBase;
  typename F::EntryLog;
  typename F::Interface;
  typename F::SwTableEntries_py;
};

}  // namespace QuarnBastil
