#pragma once

#include "Kiv/Log.h"
#include "OrderedTable/InterfaceCore.h"
#include "OrderedTable/TableAttributes.h"
#include "OrderedTable/TableDescriptor.h"
#include "OrderedTable/TableModules.h"
#include "QuarnBastil/EntryLog.h"
#include "QuarnBastil/FamilyLogs.h"
#include "QuarnBastil/InfraTypes.h"
#include "QuarnBastil/Interface.h"
#include "QuarnBastil/SwTable.h"
#include "QuarnBastil/SwTableHelperBase.h"

/// Generates a family's descriptor from its traits. Included only by the family's own source.
namespace QuarnBastil {

/// Class names of a family: its prefix and the role.
template <class Family>
struct FamilyNames {
  static constexpr auto kTable = Family::kPrefix + "SwTable";
  static constexpr auto kWrapper = Family::kPrefix + "EntryWrapper";
  static constexpr auto kLog = Family::kPrefix + "EntryLog";
  static constexpr auto kInterface = Family::kPrefix + "Interface";
  static constexpr auto kRegistryKey = Fenrik::FixedString("QuarnBastil::") + kInterface.text;
};

/// Log and trace handles of a family. Log handles are created when the library is loaded; trace
/// handles are registered by the first trace site that tests them.
template <class Family>
struct FamilyHandles {
  using Handle = Kiv::TraceHandle;
  using Names = FamilyNames<Family>;

  inline static FamilyLogHandles logs;
  inline static constinit Handle table{Kiv::kConstantHandle, Names::kTable.text};
  inline static constinit Handle writes{Kiv::kConstantHandle, Names::kTable.text};
  inline static constinit Handle reads{Kiv::kConstantHandle, Names::kTable.text};
  inline static constinit Handle iteration{Kiv::kConstantHandle, "SwTableIter"};
  inline static constinit Handle log{Kiv::kConstantHandle, Names::kLog.text};
  inline static constinit Handle interface { Kiv::kConstantHandle, Names::kInterface.text };
};

/// Typed calls behind the descriptor's function pointers; each only casts and calls. Those used
/// once per table are marked cold, so that they are optimized for size.
template <class F>
struct FamilyCalls {
  using Key = typename F::Key;
  using Entry = typename F::Entry;
  using Table = typename F::SwTable;
  using Wrapper = typename F::EntryWrapper;
  using HandlePtr = Fenrik::Ptr<Asic::OrderedSwTable::EntryHandle>;
  using WrapperPtr = Fenrik::Ptr<Asic::EntryWrapperBase>;

  static const Key& keyAt(const void* key) { return *static_cast<const Key*>(key); }
  static Table& tableOf(Asic::OrderedSwTable& table) { return static_cast<Table&>(table); }
  static Fenrik::Ptr<Wrapper> wrapperOf(Asic::EntryWrapperBase& wrapper) {
    return Fenrik::Ptr<Wrapper>(static_cast<Wrapper*>(&wrapper));
  }
  static typename F::SwTableHelperBase& helperOf(Fenrik::Node& helper) {
    return static_cast<typename F::SwTableHelperBase&>(helper);
  }

  static HandlePtr makeHandle(const Asic::EntryVersion& version, const void* key,
                              Asic::OrderedSwTable& table) {
    return Fenrik::ptrIsImpl<typename F::EntryHandle>(version, keyAt(key), &tableOf(table));
  }
  static WrapperPtr makeWrapper(const void* entry, const void* key, const HandlePtr& handle) {
    auto wrapper = Fenrik::ptrIsImpl<Wrapper>(*static_cast<const Entry*>(entry), handle);
    wrapper->keyIs(keyAt(key));
    return wrapper;
  }
  static WrapperPtr makeKeyWrapper(const void* key, const HandlePtr& handle) {
    return Fenrik::ptrIsImpl<Wrapper>(Entry(keyAt(key)), handle);
  }
  static Fenrik::Ptr<Asic::ResolverEntry> makeResolverEntry(
      const Fenrik::Ptr<const Asic::DependencyEntryHandle>& dependency, Asic::EntryFlags flags,
      Asic::OrderedSwTable& table, const WrapperPtr& wrapper) {
    return Fenrik::ptrIsImpl<typename F::ResolverEntry>(dependency, flags, &tableOf(table),
                                                        wrapperOf(*wrapper));
  }
  [[gnu::cold]] static Fenrik::Ptr<Fenrik::Node> makeHelper() {
    return Kiv::Impl::made<typename F::SwTableHelperBase>();
  }
  [[gnu::cold]] static Fenrik::Ptr<Asic::SwTableIteratorStateBase> makeIteratorState() {
    return Kiv::Impl::made<typename F::IteratorState>();
  }
  [[gnu::cold]] static Fenrik::Ptr<Fenrik::Node> makeEntries() {
    return Kiv::Impl::made<typename F::SwTableEntries_py>();
  }
  [[gnu::cold]] static void entriesAdd(Fenrik::Node& entries, const void* entry) {
    static_cast<typename F::SwTableEntries_py&>(entries).tableEntriesIs(
        *static_cast<const Entry*>(entry));
  }
  [[gnu::cold]] static Fenrik::Ptr<Asic::OrderedSwTable> makeTable(
      const Fenrik::Ptr<const Asic::CanonicalTableName>& name, Asic::UnitId unitId,
      Asic::OrderedSwTableSet* set, const Fenrik::Ptr<Asic::EntryLogCore>& log,
      const Fenrik::Ptr<Asic::GroupResolver>& resolver) {
    return Fenrik::ptrIsImpl<Table>(
        name, F::kTableId, unitId, set,
        Fenrik::Ptr<typename F::EntryLog>(static_cast<typename F::EntryLog*>(log.get())), resolver);
  }
  [[gnu::cold]] static Fenrik::Ptr<Asic::EntryLogCore> makeLog(
      Asic::SwTableId tableId, const Fenrik::Ptr<Stavro::EntityManager>& entityManager,
      const Fenrik::Ptr<Asic::GroupInterface>& groupInterface, const Fenrik::String& agentName) {
    return Fenrik::ptrIsImpl<typename F::EntryLog>(tableId, entityManager, groupInterface,
                                                   agentName);
  }

  static void finalizeOnSuccess(Fenrik::Node& helper, Asic::EntryWrapperBase& wrapper,
                                bool isDelete, Asic::OrderedSwTable& table) {
    helperOf(helper).finalizeOnSuccess(wrapperOf(wrapper), isDelete,
                                       Fenrik::Ptr<Table>(&tableOf(table)));
  }
  static bool finalizeOnFailure(Fenrik::Node& helper, Asic::EntryWrapperBase& wrapper,
                                bool isDelete, Asic::OrderedSwTable& table) {
    return helperOf(helper).finalizeOnFailure(wrapperOf(wrapper), isDelete,
                                              Fenrik::Ptr<Table>(&tableOf(table)));
  }
  static bool finalizeOnResourceUpdate(Fenrik::Node& helper, Asic::EntryWrapperBase& wrapper,
                                       Asic::OrderedSwTable& table, bool someResourceHasFailed) {
    return helperOf(helper).finalizeOnResourceUpdate(
        wrapperOf(wrapper), Fenrik::Ptr<Table>(&tableOf(table)), someResourceHasFailed);
  }
};

template <class F>
Asic::TableDescriptor::Records familyRecords() {
  using Config = typename F::ConfigDriftEntry;
  using Log = typename F::LogDriftEntry;
  using Layout = Asic::LogRecordLayout;
  static_assert(offsetof(Log, flags) == Layout::kFlags && offsetof(Log, unitId) == Layout::kUnit &&
                offsetof(Log, logEntry) == Layout::kLogEntry && offsetof(Config, logEntry) == 0);
  constexpr auto kResourceKeys = Asic::flatShapeOf<typename F::ResourceKeys>();
  static_assert(sizeof(typename F::Entry) == sizeof(typename F::LogEntry) + kResourceKeys.size);
  static const typename F::Entry defaultEntry{typename F::Key()};
  return {.key = Asic::flatShapeOf<typename F::Key>(),
          .logEntry = Asic::flatShapeOf<typename F::LogEntry>(),
          .resourceKeys = kResourceKeys,
          .resourceKeysInEntry = kResourceKeys.empty() ? 0 : sizeof(typename F::LogEntry),
          .entrySize = sizeof(typename F::Entry),
          .resourceKeysOffset = offsetof(Config, rsrcKeys),
          .logVersionOffset = offsetof(Config, logVersion),
          .isDeletedOffset = offsetof(Config, isDeleted),
          .configSize = sizeof(Config),
          .logSize = sizeof(Log),
          .defaultEntry = &defaultEntry};
}

/// The family's types by role.
template <class F>
struct FamilyRoles {
  template <class T>
  static constexpr const Kiv::ValueType* kPtr = &Kiv::kValueType<Fenrik::Ptr<T>>;

  static constexpr std::array<const Kiv::ValueType*, Asic::TableRole::kCount> kTypes{
      nullptr,
      &Kiv::kValueType<typename F::Key>,
      &Kiv::kValueType<typename F::Entry>,
      &Kiv::kValueType<typename F::LogEntry>,
      &Kiv::kValueType<typename F::ResourceKeys>,
      kPtr<typename F::SwTableHelperBase>,
      kPtr<typename F::EntryWrapper>,
      kPtr<typename F::EntryHandle>,
      kPtr<typename F::EntryLog>,
      kPtr<typename F::IteratorState>,
      kPtr<typename F::SwTableEntries_py>,
      kPtr<typename F::SwTable>,
      kPtr<typename F::Interface>};
};

template <class F>
const Asic::TableDescriptor& descriptorOf() {
  using Calls = FamilyCalls<F>;
  using Names = FamilyNames<F>;
  using Handles = FamilyHandles<F>;
  static const Asic::TableDescriptor descriptor{
      .tableId = F::kTableId,
      .tableName = F::kTableName,
      .tableNamespace = F::kTableNamespace,
      .agentName = F::kAgentName,
      .groupName = F::kGroupName,
      .tableFieldBase = F::kSwTableFieldBase,
      .tableType = Kiv::typeOf<typename F::SwTable>(),
      .handleType = typeid(typename F::EntryHandle),
      .resolverEntryType = typeid(typename F::ResolverEntry),
      .keyIsEq = &F::Key::isEq,
      .names = {Names::kTable.text, Names::kWrapper.text, Names::kLog.text, Names::kInterface.text,
                Names::kRegistryKey.text},
      .traces = {Handles::table, Handles::writes, Handles::reads, Handles::iteration, Handles::log,
                 Handles::interface, Handles::table},
      .records = familyRecords<F>(),
      .collections = {F::ConfigDrift::kEntityName, F::EntryLogDrift::kEntityName,
                      F::kConfigCapacity, F::kLogCapacity},
      .make = {&Calls::makeHandle, &Calls::makeWrapper, &Calls::makeKeyWrapper,
               &Calls::makeResolverEntry, &Calls::makeHelper, &Calls::makeIteratorState,
               &Calls::makeEntries, &Calls::entriesAdd, &Calls::makeTable, &Calls::makeLog},
      .helper = {&Calls::finalizeOnSuccess, &Calls::finalizeOnFailure,
                 &Calls::finalizeOnResourceUpdate},
      .salts = {F::kTableEntriesSalt, F::kTransientAddEntrySalt, F::kTransientRemoveEntrySalt,
                F::kTransientVersionForKeySalt, F::kTableConfigDriftSalt},
      .lostLog = &Handles::logs.error,
      .resources = F::kResourceHooks};
  return descriptor;
}

}  // namespace QuarnBastil
