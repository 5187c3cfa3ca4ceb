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
class EntryWrapperBase;
struct ResourceHooks;
struct TableDescriptor;
struct HelperAttributes;
struct InterfaceAttributes;
struct ResolverEntryAttributes;
template <std::uint16_t fieldBase, class LinkRow>
struct TableAttributes;
template <class ResourceRows>
struct WrapperAttributes;
}  // namespace Asic

namespace QuarnBastil {

/// Defaults that hold for most families. A family's traits derive from `FamilyClasses`, which names
/// its final classes, and define
///   identity:  kTableId
///   types:     Key, Entry, LogEntry, ResourceKeys, ConfigDriftEntry, LogDriftEntry, ConfigDrift,
///              EntryLogDrift, EntryHandleBase, Constants
///   salts:     hash salts of its keyed collections
/// and whatever differs from these defaults.
struct FamilyDefaults {
  static constexpr const char* kAgentName = "QuarnBastil";
  static constexpr const char* kTableNamespace = "QuarnBastil";
  static constexpr const char* kGroupName = "QuarnBastilGroup";
  /// First attribute numbers of the table and of an iterator state. Each class between
  /// `Fenrik::Node` and the final class has a block of 128 numbers; a data model adds one class.
  static constexpr std::uint16_t kSwTableFieldBase = 640;
  static constexpr std::uint16_t kIteratorFieldBase = 256;
  /// Entries of one unit, including those in deletion: rows have 16-bit numbers.
  static constexpr Drift::Format::Word kConfigCapacity = 65'536;
  /// Unacknowledged records of all units: seconds of work for the hardware at full rate.
  static constexpr Drift::Format::Word kLogCapacity = 1'000'000;
  /// Null if the table uses no resources.
  static constexpr const Asic::ResourceHooks* kResourceHooks = nullptr;
  /// The attribute that links the table to resources; void if it uses none.
  using LinkRow = void;

  using SwTableBase = Asic::OrderedSwTable;
  using EntryWrapperBase = Asic::EntryWrapperBase;
  /// The link to the resource table; void if the table uses no resources.
  using ResourceLinkage = void;
  using IteratorStateBase = Asic::SwTableIteratorStateBase;
};

/// The classes of a family by role, and their modules. The first argument is the family's prefix,
/// which is also the table's name.
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

/// Common facts of the families based on the prefix data models.
template <class Classes>
struct PrefixFamily : Classes {
  static constexpr const char* kGroupName = "QuarnBastilPrefixOuter";
  static constexpr std::uint16_t kSwTableFieldBase = 768;
  static constexpr std::uint16_t kIteratorFieldBase = 384;
};

/// The family's descriptor; defined in the family's own source.
template <class Family>
QUARNBASTIL_EXPORT const Asic::TableDescriptor& descriptorOf();

/// The family's types for inspection; defined in the family's own source.
template <class Family>
struct FamilyRoles;

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

/// Checked against the traits of every family, so that an omission is reported at the family's
/// line.
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
