#pragma once

#include <concepts>
#include <cstdint>

#include "Drift/Format.h"
#include "Fenrik/Format.h"
#include "Fenrik/Module.h"
#include "Fenrik/NodeClass.h"
#include "OrderedTable/Constants.h"
#include "OrderedTable/OrderedSwTable.h"
#include "OrderedTable/SwTableIteratorState.h"
#include "OrderedTable/TypedEntryHandle.h"

namespace Asic {
struct ResourceHooks;
struct TableDescriptor;
}  // namespace Asic

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
  /// Of the table's attributes and of an iterator state's. A block of 128 numbers belongs to each
  /// class between `Fenrik::Node` and the final one; a data model puts one more between.
  static constexpr std::uint16_t kSwTableFieldBase = 640;
  static constexpr std::uint16_t kIteratorFieldBase = 256;
  /// Live and deleted entries of one unit: its rows are numbered in 16 bits.
  static constexpr Drift::Format::Word kConfigCapacity = 65'536;
  /// Records that wait for the hardware, over all units: seconds of it at full rate.
  static constexpr Drift::Format::Word kLogCapacity = 1'000'000;
  /// Null: the table is not linked to resources.
  static constexpr const Asic::ResourceHooks* kResourceHooks = nullptr;
  /// Rows that such a link adds to the table's attributes, at `SwTable::kLinkField`.
  static constexpr std::uint16_t kLinkFields = 0;

  using SwTableBase = Asic::OrderedSwTable;
  using IteratorStateBase = Asic::SwTableIteratorStateBase;
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

/// What the families over the prefix data models have in common.
template <class Classes>
struct PrefixFamily : Classes {
  static constexpr const char* kGroupName = "QuarnBastilPrefixOuter";
  static constexpr std::uint16_t kSwTableFieldBase = 768;
  static constexpr std::uint16_t kIteratorFieldBase = 384;
};

/// The family's facts for the compiled-once logic; defined in its own source.
template <class Family>
QUARNBASTIL_EXPORT const Asic::TableDescriptor& descriptorOf();

/// The shared-memory paths of a family.
template <class Family>
class FamilyConstants {
 public:
  static Fenrik::String configDriftPath(Asic::UnitId unitId) {
    return Asic::Constants::configDriftPath(canonicalGroupName(), Family::kTableNamespace,
                                            Family::kTableName, unitId);
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
