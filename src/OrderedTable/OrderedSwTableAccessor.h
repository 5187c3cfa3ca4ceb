#pragma once

#include <optional>
#include <type_traits>
#include <utility>

#include "Drift/DriftError.h"
#include "Drift/DriftMap.h"
#include "Fenrik/Assert.h"
#include "Fenrik/Format.h"
#include "Kiv/System.h"
#include "Kiv/Trace.h"
#include "OrderedTable/CorruptionGuard.h"
#include "OrderedTable/EntryHandle.h"
#include "OrderedTable/GroupResolver.h"
#include "OrderedTable/NeededEntry.h"
#include "OrderedTable/OrderedSwTableSet.h"
#include "OrderedTable/ResolverEntry.h"

namespace Asic {

/// The generic bodies of a software table's reads. `T` may be const; the accessor is a value that
/// holds the table's pointer and nothing else.
template <class T>
class TableReads {
 public:
  using Table = std::remove_const_t<T>;
  using Types = typename Table::Types;
  using Key = typename Types::Key;
  using Entry = typename Types::Entry;

  /// The log of a table takes its full capacity and not one record more: an operation waits while
  /// the log holds more records than this.
  static constexpr Drift::Word kLogRoomLimit = Types::kLogCapacity - 1;

  explicit TableReads(T* table) noexcept : table_(table) {}

  /// Whether the key exists as the client sees the table.
  bool entryHas(const Key& key) const {
    KIV_TRACE(trace(), 8, "", "key: {}", key);
    if (table_->transientAddEntryHas(key)) return true;
    if (table_->transientRemoveEntryHas(key)) return false;
    if (table_->transientRemoveAllVersion().valid()) return false;
    return table_->entryLog()->entryHas(key, table_->unitId());
  }

  /// The entry as the client sees it, or a default one. A remove-all in flight does not hide it.
  Entry entryReadGeneric(const Key& key) const {
    KIV_TRACE(trace(), 8, "", "key: {}", key);
    if (const auto* const added = table_->transientAddEntryFind(key)) return added->entry();
    if (table_->transientRemoveEntryHas(key)) return Entry(Key());
    // One look-up answers both questions that are asked of the log and of the configuration.
    if (const auto* const record = table_->entryLog()->liveRecord(key, table_->unitId())) {
      KIV_TRACE_AS("entryFromConfig", trace(), 8, "", "key: {}", key);
      return entryOf(*record);
    }
    KIV_TRACE(trace(), 1, "", "Failed to find entry for key: {}", key);
    return Entry(Key());
  }

  /// The configured entry, or a default one.
  Entry entryFromConfig(const Key& key) const {
    KIV_TRACE(trace(), 8, "", "key: {}", key);
    const auto entryLog = table_->entryLog();
    const auto config = entryLog->tableConfigDrift(table_->unitId());
    return entryOf(*guardedLook(*config->map(), key).record);
  }

  /// Number of entries as the client sees them. Walks what is in flight, not what is configured.
  std::uint32_t entrys() const {
    const auto adds = static_cast<std::uint32_t>(table_->transientAddEntryCount());
    if (table_->transientRemoveAllVersion().valid()) return adds;
    const auto& log = *table_->entryLog();
    const UnitId unit = table_->unitId();
    const std::uint32_t configured = log.entrys(unit);
    std::uint32_t added = adds;
    for (auto it = table_->transientAddEntryIterator(); it; ++it) {
      if (log.entryHas(it.key(), unit)) --added;
    }
    auto removed = static_cast<std::uint32_t>(table_->transientRemoveEntryCount());
    for (auto it = table_->transientRemoveEntryIterator(); it; ++it) {
      if (!log.entryHas(it.key(), unit)) --removed;
    }
    return added + configured - removed;
  }

  /// Whether the table still owes the hardware anything.
  bool hasPendingHwWrites() const {
    const auto& log = *table_->entryLog();
    const bool pending = table_->transientAddEntryCount() != 0 ||
                         table_->transientRemoveEntryCount() != 0 ||
                         table_->transientRemoveAllVersion().valid() ||
                         log.tableVersion() != log.tableStatusVersion();
    KIV_TRACE(trace(), 3, "", " pendingHwWrites for swTable: tableId: {}, unitId{} is {}",
              table_->tableId(), table_->unitId(), pending);
    return pending;
  }

  /// What a queued operation is and what holds it up, for people.
  template <class QueueItem>
  ResolverEntry::Waiting waitingOf(const QueueItem& item) const {
    ResolverEntry::Waiting waiting;
    waiting.table = table_->canonicalName()->name();
    waiting.unit = table_->unitId().value();
    waiting.key = Fenrik::formatString("{}", item.swTableEntry()->key());
    waiting.operation = item.isTableDeleted()   ? "remove all"
                        : item.isEntryDeleted() ? "remove"
                                                : "write";
    waiting.reason = waitingReason(item);
    return waiting;
  }

 protected:
  template <class QueueItem>
  Fenrik::String waitingReason(const QueueItem& item) const {
    const Drift::Word records = table_->entryLog()->tableEntryLog()->records();
    if (records > kLogRoomLimit) {
      return Fenrik::formatString("no room in the log: {} records wait for the hardware", records);
    }
    const auto& dependency = item.dependantEntryHandle();
    if (dependency != nullptr && dependency->entryState() == EntryState::entryPending) {
      return Fenrik::formatString("{}, key {}: {}", dependency->tableName(), dependency->keyText(),
                                  dependency->entryState());
    }
    return Types::ResourceHooks::waitingReason(*table_, *item.swTableEntry());
  }

  /// One handle for const and one for other tables, both of the table's bare class name.
  KIV_TRACE_ACCESSOR static const Kiv::TraceHandle& _defaultTraceHandle() {
    static constinit const Kiv::TraceHandle handle(Kiv::kConstantHandle,
                                                   Kiv::kBareTypeName<T>.data());
    return handle;
  }
  KIV_TRACE_ACCESSOR static const Kiv::TraceHandle& trace() { return _defaultTraceHandle(); }

  using Record = typename Types::ConfigDriftEntry;

  /// What a record of the configuration is to a client.
  static Entry entryOf(const Record& record) {
    // A version says that it is no default record, without a look at the rest.
    const bool isDefault =
        record.logVersion == LogVersion(0) && Record::isEq(&record, &kDefaultRecord<Record>);
    if (record.isDeleted || isDefault) return Entry(Key());
    return Entry(record.logEntry, record.rsrcKeys);
  }

  T* table_;
};

/// The generic bodies of write, remove, commit and acknowledgement, once for all tables.
template <class T>
class OrderedSwTableAccessor : public TableReads<T> {
 public:
  using Base = TableReads<T>;
  using Types = typename T::Types;
  using typename Base::Entry;
  using typename Base::Key;
  using Wrapper = typename Types::EntryWrapper;
  using QueueItem = typename Types::ResolverEntry;
  using Handle = typename T::EntryHandle;
  using HandlePtr = Fenrik::Ptr<Handle>;
  using WrapperPtr = Fenrik::Ptr<Wrapper>;
  using DependencyPtr = Fenrik::Ptr<const DependencyEntryHandle>;
  using ResponseHandler = typename Handle::ResponseHandler;
  using NeededPtr = Fenrik::Ptr<const NeededEntry>;

  using Base::Base;
  using Base::entryFromConfig;

  HandlePtr entryWriteGeneric(const Key& key, const Entry& entry, const DependencyPtr& dep,
                              const ResponseHandler& handler) {
    KIV_TRACE(trace(), 8, "", "key: {}", key);
    HandlePtr handle = handleForNextVersion(__func__, key, handler);
    const WrapperPtr wrapper = Fenrik::ptrIsImpl<Wrapper>(entry, handle);
    wrapper->keyIs(key);
    table_->transientRemoveEntryDel(key);
    table_->transientAddEntryIs(wrapper);
    Types::ResourceHooks::writeQueued(*table_, wrapper);
    enqueue(Fenrik::ptrIsImpl<QueueItem>(dep, EntryFlags(EntryFlags::kWrite), table_, wrapper));
    KIV_TRACE(trace(), 2, "", "Done processing write for key: {} ", key);
    table_->stats()->entryWriteCntInc(1);
    updateGroup();
    return handle;
  }

  HandlePtr entryRemoveGeneric(const Key& key, const DependencyPtr& dep,
                               const ResponseHandler& handler) {
    KIV_TRACE(trace(), 8, "", " Key: {} ", key);
    HandlePtr handle = handleForNextVersion(__func__, key, handler);
    const WrapperPtr wrapper = Fenrik::ptrIsImpl<Wrapper>(Entry(key), handle);
    const auto item =
        Fenrik::ptrIsImpl<QueueItem>(dep, EntryFlags(EntryFlags::kEntryDelete), table_, wrapper);
    table_->transientAddEntryDel(key);
    table_->transientRemoveEntryIs(wrapper);
    enqueue(item);
    KIV_TRACE(trace(), 2, "", " Done processing remove for key: {} ", key);
    table_->stats()->entryRemoveCntInc(1);
    updateGroup();
    return handle;
  }

  void entryRemoveAllGeneric(const DependencyPtr& dep, const ResponseHandler& handler) {
    KIV_TRACE(trace(), 8, "", "");
    const HandlePtr handle = makeHandle(kFirstVersion, Key(), handler);
    const WrapperPtr wrapper = Fenrik::ptrIsImpl<Wrapper>(Entry(Key()), handle);
    const auto item =
        Fenrik::ptrIsImpl<QueueItem>(dep, EntryFlags(EntryFlags::kTableDelete), table_, wrapper);
    table_->transientAddEntryDelAll();
    table_->transientRemoveEntryDelAll();
    const MajorVersion version = table_->transientRemoveAllVersion();
    if (version.valid()) {
      KIV_TRACE(trace(), 8, "", "Found valid table remove all version: {}", version);
      table_->transientRemoveAllVersionIs(version.next());
    } else {
      KIV_TRACE(trace(), 8, "", "No remove all operation currently enqueued");
      table_->transientRemoveAllVersionIs(MajorVersion(0));
    }
    enqueue(item);
    KIV_TRACE(trace(), 2, "", "Done processing remove all ");
    updateGroup();
  }

  bool isResolverEntryResolved(const Fenrik::Ptr<QueueItem>& item) {
    const Wrapper& wrapper = *item->swTableEntry();
    if (table_->entryLog()->tableEntryLog()->records() > Base::kLogRoomLimit) {
      KIV_TRACE(trace(), 1, "", "key: {}, isEntryDeleted: {} : no space in entryLog!",
                wrapper.key(), item->isEntryDeleted());
      return false;
    }
    if (const DependencyPtr& dependency = item->dependantEntryHandle(); dependency != nullptr) {
      if (dependency->entryState() == EntryState::entryPending) {
        KIV_TRACE(trace(), 3, "", "key: {} dependant entry not yet resolved", wrapper.key());
        return false;
      }
      KIV_TRACE(trace(), 3, "", "key: {} dependant entry is resolved", wrapper.key());
    }
    if (!item->isEntryDeleted()) {
      table_->setRsrcPtrs(item->swTableEntry(), true);
      if (!Types::ResourceHooks::resolved(*table_, item->swTableEntry())) return false;
    }
    KIV_TRACE(trace(), 3, "", "key: {}, isEntryDeleted: {}, isTableDeleted: {}, resolved: true",
              wrapper.key(), item->isEntryDeleted(), item->isTableDeleted());
    return true;
  }

  void commitEntry(const Fenrik::Ptr<ResolverEntry>& resolverEntry) {
    const auto item = Fenrik::dynamicPtrCast<QueueItem>(resolverEntry);
    const WrapperPtr wrapper = item->swTableEntry();
    const DependencyPtr dependency = item->dependantEntryHandle();
    const bool isEntryDelete = item->isEntryDeleted();
    const bool isTableDelete = item->isTableDeleted();
    KIV_TRACE(trace(), 8, "", "Entry: {}, isEntryDeleted: {}, isTableDeleted: {}", wrapper->entry(),
              isEntryDelete, isTableDelete);
    FENRIK_ASSERT_TEXT(!(isEntryDelete && isTableDelete), "!( isEntryDelete && isTableDelete )");
    HandlePtr entryHandle = Fenrik::dynamicPtrCast<Handle>(wrapper->entryHandle());
    FENRIK_ASSERT_TEXT(entryHandle != nullptr, "entryHandle != NULL");
    const EntryVersion entryConfVersion = entryHandle->version();
    if (!isTableDelete) FENRIK_ASSERT(entryConfVersion.valid());
    const Operation operation{wrapper, dependency, entryHandle, entryConfVersion};
    if (dependency != nullptr && entryFailed(dependency->entryState())) {
      failForDependency(operation, isTableDelete);
    } else if (const auto refusal = refusalOf(wrapper->key(), item->flags())) {
      reject(operation, item->flags(), *refusal);
      updateGroup();
      return;
    } else if (isTableDelete) {
      commitTableDelete(operation);
    } else if (isEntryDelete) {
      commitRemove(operation);
    } else {
      commitWrite(operation);
    }
    updateGroup();
    table_->stats()->lastCommitTimeIs(Kiv::System::currentTimeUtc());
    table_->stats()->commitCntInc(1);
  }

  /// Logs a configured entry again whose resolved fields have changed. Null when the key has no
  /// configured entry.
  Fenrik::Ptr<const OrderedSwTable::EntryHandle> updateEntry(const Key& key) {
    const auto entryLog = table_->entryLog();
    if (!entryLog->entryHas(key, table_->unitId())) {
      KIV_TRACE(trace(), 3, "", " key: {} entry does not exist ", key);
      return nullptr;
    }
    HandlePtr handle;
    const WrapperPtr wrapper = entryWrapperFromConfig(key, false, handle);
    const auto oldLogEntry = wrapper->logEntry();
    wrapper->setResolvedFields();
    const bool commitToLog =
        table_->swTableHelper()->finalizeOnResourceUpdate(wrapper, tablePtr(), false);
    if (!(wrapper->logEntry() == oldLogEntry) && commitToLog) {
      const auto neededEntry = table_->getNeededEntrySet(wrapper);
      const LogVersion logVersion =
          entryLog->entryIs(wrapper->logEntry(), wrapper->rsrcKeys(), neededEntry, table_->unitId(),
                            table_->stats(), false);
      handle->logVersionIs(logVersion);
      handle->entryStateIs(EntryState::entryInLog);
      table_->stats()->updateCntInc(1);
      KIV_TRACE(trace(), 3, "", " key: {}, neededEntry: {}, entryLogVersion: {} ", key, neededEntry,
                logVersion);
    } else {
      KIV_TRACE(trace(), 3, "",
                " key: {}, commitToLog: {}, no change in logEntry or don't commit to log", key,
                commitToLog);
      handle->logVersionIs(entryLog->entryLogVersion(key, table_->unitId()));
      handle->entryStateIs(EntryState::entryInLog);
    }
    return handle;
  }

  /// Clears the unit through the log. A unit that has nothing configured is left alone, and so is
  /// `entryHandle` then.
  void delAllEntries(bool releaseResources, NeededPtr neededEntry, HandlePtr& entryHandle) {
    KIV_TRACE(trace(), 8, "", " releaseResources: {}, neededEntry:{} ", releaseResources,
              neededEntry);
    const auto entryLog = table_->entryLog();
    const auto config = entryLog->tableConfigDrift(table_->unitId());
    if (config == nullptr || config->map()->driftMapSize() == 0) return;
    if (releaseResources && wantsClearedEntries(entryHandle)) {
      guardedWalk(*config->map(), [&](const auto& record) {
        if (record.isDeleted) return;
        const WrapperPtr wrapper = entryWrapperFromConfig(record.logEntry.key, false, entryHandle);
        Types::ResourceHooks::entryCleared(*table_, wrapper);
      });
    }
    const LogVersion logVersion = entryLog->tableDel(neededEntry, table_->unitId());
    if (entryHandle != nullptr) {
      entryHandle->logVersionIs(logVersion);
      entryHandle->entryStateIs(EntryState::entryInLog);
    }
    table_->stats()->tableClearCntInc(1);
  }

  void clearTable(bool releaseResources) {
    KIV_TRACE(trace(), 8, "", "");
    HandlePtr none;
    delAllEntries(releaseResources, nullptr, none);
  }

  /// Turns a configured entry back into a wrapper; makes a handle if there is none.
  WrapperPtr entryWrapperFromConfig(const Key& key, bool refreshRsrcPtrs, HandlePtr& handle) {
    KIV_TRACE(trace(), 8, "", "key: {}, refreshRsrcPtrs: {}", key, refreshRsrcPtrs);
    const Entry entry = entryFromConfig(key);
    if (handle == nullptr) handle = Fenrik::ptrIsImpl<Handle>(kFirstVersion, key, table_);
    WrapperPtr wrapper = Fenrik::ptrIsImpl<Wrapper>(entry, handle);
    wrapper->keyIs(key);
    table_->setRsrcPtrs(wrapper, refreshRsrcPtrs);
    wrapper->retrieveClientData();
    return wrapper;
  }

  void tableStatusVersion(LogVersion version) {
    KIV_TRACE(trace(), 8, "", "tableVersion: {}", version);
    table_->entryLog()->cleanupEntryLog(version);
    table_->groupResolver()->updateGenId();
    for (HandlePtr handle = table_->entryHandleInLogFront(); handle != nullptr;
         handle = table_->entryHandleInLogFront()) {
      if (version < handle->logVersion()) break;
      table_->entryHandleInLogDeq();
      KIV_TRACE(trace(), 3, "", "Processing version: {}, key: {}", handle->logVersion(),
                handle->key());
      finish(handle);
    }
    table_->swTableSet()->maybeUpdatePendingHwWrites();
  }

 private:
  /// What a commit works on.
  struct Operation {
    const WrapperPtr& wrapper;
    const DependencyPtr& dependency;
    const HandlePtr& handle;
    const EntryVersion& version;
  };

  static constexpr EntryVersion kFirstVersion{MajorVersion(0), 0};
  /// The roads of a commit trace under its name.
  static constexpr const char* kCommit = "commitEntry";

  using Base::table_;
  using Base::trace;

  Fenrik::Ptr<T> tablePtr() const { return Fenrik::Ptr<T>(table_); }

  HandlePtr makeHandle(const EntryVersion& version, const Key& key,
                       const ResponseHandler& handler) {
    HandlePtr handle = Fenrik::ptrIsImpl<Handle>(version, key, table_);
    if (handler) handle->responseHandlerIs(handler);
    handle->entryStateIs(EntryState::entryPending);
    return handle;
  }

  /// Counts the operation among those in flight on its key and makes its handle.
  HandlePtr handleForNextVersion(const char* function, const Key& key,
                                 const ResponseHandler& handler) {
    EntryVersion version = kFirstVersion;
    if (const auto found = table_->transientVersionForKeyGet(key)) {
      const EntryVersion& currEntryVersion = *found;
      FENRIK_ASSERT(currEntryVersion.valid());
      version = currEntryVersion.next();
    } else {
      KIV_TRACE_AS(function, trace(), 8, "", " Key: {} not found in entry version collection", key);
    }
    table_->transientVersionForKeyIs(key, version);
    return makeHandle(version, key, handler);
  }

  void enqueue(const Fenrik::Ptr<QueueItem>& item) {
    GroupResolver& resolver = *table_->groupResolver();
    const GroupResolver::QueueingScope queueing(resolver);
    resolver.resolverQueueEnq(item);
    resolver.updateGenId();
  }

  void updateGroup() {
    table_->groupResolver()->maybeUpdateSuspend();
    table_->swTableSet()->maybeUpdatePendingHwWrites();
  }

  /// Takes the committed operation out of the transient state, unless a later one on the key has
  /// overtaken it.
  template <bool isAdd>
  void removeFromTransient(const Operation& operation) {
    const Key key = operation.wrapper->key();
    const Wrapper* present = nullptr;
    if constexpr (isAdd) {
      present = table_->transientAddEntryFind(key);
    } else {
      present = table_->transientRemoveEntryFind(key);
    }
    if (present == nullptr) return;
    const EntryVersion& presentVersion = present->entryHandle()->version();
    if (!EntryVersion::isEq(&presentVersion, &operation.version)) return;
    if constexpr (isAdd) {
      table_->transientAddEntryDel(key);
    } else {
      table_->transientRemoveEntryDel(key);
    }
    table_->transientVersionForKeyDel(key);
  }

  static void finish(const HandlePtr& handle) {
    handle->entryStateIs(EntryState::entryDone);
    callHandler(handle);
  }

  static void callHandler(const HandlePtr& handle) {
    if (handle->responseHandler()) handle->responseHandler()(handle);
  }

  void inLog(const HandlePtr& handle) {
    handle->entryStateIs(EntryState::entryInLog);
    table_->entryHandleInLogEnq(handle);
  }

  /// What stands in the configuration before a commit. Only resources want to know it, so for a
  /// family without any the read is left out; its trace is not.
  std::optional<Entry> formerEntry(const Key& key) {
    if (!Types::ResourceHooks::kWantsFormerEntry && !trace().levelEnabled(8)) return {};
    return entryFromConfig(key);
  }
  void tellResources(const WrapperPtr& wrapper, const std::optional<Entry>& former, bool isDelete) {
    if constexpr (Types::ResourceHooks::kWantsFormerEntry) {
      Types::ResourceHooks::committed(*table_, wrapper, *former, isDelete);
    }
  }

  /// What a write needs of other tables by itself; null if that can be nothing and nobody traces.
  Fenrik::Ptr<NeededEntry> ownNeeded(const WrapperPtr& wrapper) {
    if (!Types::ResourceHooks::kAddsNeeded && !trace().levelEnabled(8)) return nullptr;
    return table_->getNeededEntrySet(wrapper);
  }
  /// The same with the dependency. Most operations need nothing: those share one set.
  NeededPtr neededWith(const DependencyPtr& dependency, Fenrik::Ptr<NeededEntry> needed) {
    if (dependency != nullptr) {
      if (needed == nullptr) needed = Fenrik::ptrIsImpl<NeededEntry>();
      needed->add(dependency->entryTableVersion());
    }
    return needed != nullptr ? NeededPtr(needed) : table_->nothingNeeded();
  }

  /// Whether each entry that is about to be cleared is to be looked at: for its resources, for the
  /// trace, or because the first of them makes the handle.
  static bool wantsClearedEntries(const HandlePtr& handle) {
    return Types::ResourceHooks::kWantsClearedEntries || handle == nullptr ||
           trace().levelEnabled(8);
  }

  void commitWrite(const Operation& operation) {
    const WrapperPtr& wrapper = operation.wrapper;
    wrapper->finalizeOnSuccess(tablePtr(), false);
    removeFromTransient<true>(operation);
    const auto own = ownNeeded(wrapper);
    const auto former = formerEntry(wrapper->key());
    const auto neededEntry = neededWith(operation.dependency, own);
    const auto entryLog = table_->entryLog();
    const LogVersion logVersion =
        entryLog->entryIs(wrapper->logEntry(), wrapper->rsrcKeys(), neededEntry, table_->unitId(),
                          table_->stats(), false);
    operation.handle->logVersionIs(logVersion);
    if (entryLog->tableStatusVersion() < logVersion) {
      inLog(operation.handle);
    } else {
      finish(operation.handle);
    }
    tellResources(wrapper, former, false);
  }

  void commitRemove(const Operation& operation) {
    const WrapperPtr& wrapper = operation.wrapper;
    const auto former = formerEntry(wrapper->key());
    const auto neededEntry = neededWith(operation.dependency, nullptr);
    removeFromTransient<false>(operation);
    wrapper->finalizeOnSuccess(tablePtr(), true);
    const LogVersion logVersion =
        table_->entryLog()->entryDel(wrapper->key(), neededEntry, table_->unitId());
    operation.handle->logVersionIs(logVersion);
    if (logVersion != LogVersion(0)) {
      inLog(operation.handle);
    } else {
      finish(operation.handle);
    }
    tellResources(wrapper, former, true);
  }

  void commitTableDelete(const Operation& operation) {
    const MajorVersion currRemoveAllVersion = table_->transientRemoveAllVersion();
    FENRIK_ASSERT(currRemoveAllVersion.valid());
    KIV_TRACE_AS(kCommit, trace(), 8, "", "Committing table delete for version: {}",
                 currRemoveAllVersion);
    const auto neededEntry =
        neededWith(operation.dependency, table_->getNeededEntrySet(operation.wrapper));
    HandlePtr handle = operation.handle;
    delAllEntries(true, neededEntry, handle);
    removeAllDone(currRemoveAllVersion);
  }

  /// One remove-all fewer is in flight.
  void removeAllDone(MajorVersion current) {
    table_->transientRemoveAllVersionIs(
        current == MajorVersion(0) ? MajorVersion() : MajorVersion(current.value() - 1));
  }

  /// What speaks against storing the operation: a configuration that is full, or memory that has
  /// run out. Found out before anything is changed; nothing, as a rule.
  std::optional<Fenrik::String> refusalOf(const Key& key, EntryFlags flags) {
    try {
      table_->entryLog()->operationRoom(key, flags, table_->unitId());
      return {};
    } catch (const Drift::CollectionFullException& e) {
      return e.msg();
    } catch (const Drift::NoSpaceException& e) {
      return e.msg();
    }
  }

  /// Ends an operation that cannot be stored, as if it had never been asked for.
  void reject(const Operation& operation, EntryFlags flags, const Fenrik::String& refusal) {
    KIV_TRACE_AS(kCommit, trace(), 1, "",
                 "Rejected operation on table: {}, unitId: {}, key: {}, capacity: {}: {}",
                 table_->canonicalName()->name(), table_->unitId(), operation.wrapper->key(),
                 Types::kConfigCapacity, refusal);
    SwTableStats& stats = *table_->stats();
    constexpr auto kOneLess = ~0ULL;
    if (flags.isTableDeleted()) {
      removeAllDone(table_->transientRemoveAllVersion());
    } else if (flags.isEntryDeleted()) {
      removeFromTransient<false>(operation);
      stats.entryRemoveCntInc(kOneLess);
    } else {
      removeFromTransient<true>(operation);
      stats.entryWriteCntInc(kOneLess);
    }
    operation.handle->entryStateIs(EntryState::entryRejected);
    callHandler(operation.handle);
  }

  /// The transient state stays as it is: reads go on showing the operation that failed.
  void failForDependency(const Operation& operation, bool isTableDelete) {
    const Key key = operation.wrapper->key();
    if (isTableDelete) {
      KIV_TRACE_AS(kCommit, trace(), 1, "", "Failed dependent entry for remove all");
      KIV_TRACE_AS(kCommit, trace(), 1, "", "Failed to commit entry remove all operation");
    } else {
      KIV_TRACE_AS(kCommit, trace(), 1, "", "Failed dependent entry for key: {}", key);
      KIV_TRACE_AS(kCommit, trace(), 1, "", "Failed to commit entry key: {}", key);
    }
    operation.handle->entryStateIs(EntryState::entryDependencyFailed);
    callHandler(operation.handle);
  }
};

}  // namespace Asic
