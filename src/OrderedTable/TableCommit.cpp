#include "Drift/DriftError.h"
#include "Fenrik/Assert.h"
#include "Kiv/StrepFormatter.h"
#include "Kiv/System.h"
#include "Kiv/Trace.h"
#include "OrderedTable/OrderedSwTableSet.h"
#include "OrderedTable/ResourceHooks.h"
#include "OrderedTable/TableCore.h"

namespace Asic {

namespace {

/// Function name under which all branches of a commit are traced.
constexpr const char* kCommit = "commitEntry";

/// Text of the current exception, for the handle's rejection.
Fenrik::String textOfException(const char* who) {
  try {
    throw;
  } catch (const Fenrik::Exception& e) {
    return Fenrik::formatString("{} threw: {}", who, e.msg());
  } catch (const std::exception& e) {
    return Fenrik::formatString("{} threw: {}", who, e.what());
  } catch (...) {
    return Fenrik::formatString("{} threw", who);
  }
}

}  // namespace

bool TableCore::isResolverEntryResolved(const TableResolverEntry& item) {
  EntryWrapperBase& wrapper = *item.wrapper();
  const void* const key = wrapper.entryBytes();
  if (entryLog_->full()) {
    KIV_TRACE(trace(), 1, "", "key: {}, isEntryDeleted: {} : no space in entryLog!", textOf(key),
              item.isEntryDeleted());
    return false;
  }
  if (const DependencyPtr& dependency = item.dependantEntryHandle(); dependency != nullptr) {
    if (dependency->entryState() == EntryState::entryPending) {
      KIV_TRACE(trace(), 3, "", "key: {} dependant entry not yet resolved", textOf(key));
      return false;
    }
    KIV_TRACE(trace(), 3, "", "key: {} dependant entry is resolved", textOf(key));
  }
  if (!item.isEntryDeleted()) {
    setRsrcPtrs(wrapper, true);
    const ResourceHooks* const resources = descriptor_.resources;
    if (resources != nullptr && !resources->resolved(table_, wrapper)) return false;
  }
  KIV_TRACE(trace(), 3, "", "key: {}, isEntryDeleted: {}, isTableDeleted: {}, resolved: true",
            textOf(key), item.isEntryDeleted(), item.isTableDeleted());
  return true;
}

void TableCore::commitEntry(const Fenrik::Ptr<ResolverEntry>& resolverEntry) {
  const ResolverEntry& queued = *resolverEntry;
  FENRIK_ASSERT(typeid(queued) == descriptor_.resolverEntryType);
  const auto& item = static_cast<const TableResolverEntry&>(queued);
  const WrapperPtr wrapper = item.wrapper();
  const DependencyPtr dependency = item.dependantEntryHandle();
  KIV_TRACE(trace(), 8, "", "Entry: {}, isEntryDeleted: {}, isTableDeleted: {}",
            EntryText(descriptor_, wrapper->entryBytes()), item.isEntryDeleted(),
            item.isTableDeleted());
  FENRIK_ASSERT_TEXT(!(item.isEntryDeleted() && item.isTableDeleted()),
                     "!( isEntryDelete && isTableDelete )");
  const HandlePtr& entryHandle = wrapper->entryHandle();
  const Handle* const handle = entryHandle.get();
  FENRIK_ASSERT_TEXT(handle != nullptr && typeid(*handle) == descriptor_.handleType,
                     "entryHandle != NULL");
  const EntryVersion entryConfVersion = handle->version();
  if (!item.isTableDeleted()) FENRIK_ASSERT(entryConfVersion.valid());
  Operation operation{*wrapper, dependency, entryHandle, entryConfVersion, item.flags()};
  commit(operation);
  if (operation.thrown != nullptr) std::rethrow_exception(operation.thrown);
}

/// Completes the operation whatever is thrown. An operation that cannot be stored, or that a hook
/// refuses by an exception, is rejected.
void TableCore::commit(Operation& operation) {
  std::optional<Fenrik::String> refusal;
  try {
    if (operation.dependency != nullptr && entryFailed(operation.dependency->entryState())) {
      failForDependency(operation);
    } else if (refusal = refusalOf(operation); refusal) {
      // Handled below.
    } else if (operation.flags.isTableDeleted()) {
      commitTableDelete(operation);
    } else if (operation.flags.isEntryDeleted()) {
      commitRemove(operation);
    } else {
      commitWrite(operation);
    }
  } catch (const Drift::CollectionFullException& e) {
    refusal = e.msg();
  } catch (const Drift::NoSpaceException& e) {
    refusal = e.msg();
  } catch (...) {
    operation.thrown = std::current_exception();
    refusal = textOfException("the table's helper");
  }
  if (refusal && !operation.settled) {
    reject(operation, *refusal);
    updateGroup();
    return;
  }
  updateGroup();
  table_.stats()->lastCommitTimeIs(Kiv::System::currentTimeUtc());
  table_.stats()->commitCntInc(1);
}

void TableCore::commitWrite(Operation& operation) {
  EntryWrapperBase& wrapper = operation.wrapper;
  if (!resourceResolved(operation)) return giveUpForResource(operation);
  removeFromTransient(operation, Side::add);
  auto own = ownNeeded(wrapper);
  const std::byte* const former = formerEntry(wrapper.entryBytes());
  const NeededPtr neededEntry = neededOf(operation, std::move(own));
  const std::byte* const entry = wrapper.entryBytes();
  const LogVersion logVersion =
      entryLog_->entryIs(entry, entry + descriptor_.records.resourceKeysInEntry, neededEntry,
                         table_.unitId(), *table_.stats(), false);
  operation.settled = true;
  operation.handle->logVersionIs(logVersion);
  if (entryLog_->tableStatusVersion() < logVersion) {
    inLog(operation.handle);
  } else {
    finish(operation);
  }
  if (descriptor_.resources != nullptr) {
    descriptor_.resources->updateLocalUsage(table_, wrapper, former, false);
  }
}

/// Whether to commit a write: notifies the helper, or asks it if the resource failed.
bool TableCore::resourceResolved(Operation& operation) {
  const ResourceHooks* const resources = descriptor_.resources;
  EntryWrapperBase& wrapper = operation.wrapper;
  if (resources == nullptr || resources->checkResolveSuccess(table_, wrapper)) {
    wrapper.finalizeOnSuccess(descriptor_, table_, false);
    return true;
  }
  table_.stats()->resolveFailCntInc(1);
  return wrapper.finalizeOnFailure(descriptor_, table_, false);
}

void TableCore::commitRemove(Operation& operation) {
  EntryWrapperBase& wrapper = operation.wrapper;
  const KeyImage key = imageOf(wrapper.entryBytes());
  const std::byte* const former = formerEntry(wrapper.entryBytes());
  const NeededPtr neededEntry = neededOf(operation, nullptr);
  removeFromTransient(operation, Side::remove);
  wrapper.finalizeOnSuccess(descriptor_, table_, true);
  const LogVersion logVersion = entryLog_->entryDel(key.words(), neededEntry, table_.unitId());
  operation.settled = true;
  operation.handle->logVersionIs(logVersion);
  if (logVersion != LogVersion(0)) {
    inLog(operation.handle);
  } else {
    finish(operation);
  }
  if (descriptor_.resources != nullptr) {
    descriptor_.resources->updateLocalUsage(table_, wrapper, former, true);
  }
}

void TableCore::commitTableDelete(Operation& operation) {
  const MajorVersion& currRemoveAllVersion = transientRemoveAllVersion_;
  FENRIK_ASSERT(currRemoveAllVersion.valid());
  KIV_TRACE_AS(kCommit, trace(), 8, "", "Committing table delete for version: {}",
               currRemoveAllVersion);
  const NeededPtr neededEntry = neededOf(operation, getNeededEntrySet(operation.wrapper));
  HandlePtr handle = operation.handle;
  delAllEntries(true, neededEntry, handle);
  operation.settled = true;
  removeAllDone();
}

/// Counts down the remove-alls in flight.
void TableCore::removeAllDone() {
  const MajorVersion current = transientRemoveAllVersion_;
  if (!current.valid()) return;
  transientRemoveAllVersionIs(current == MajorVersion(0) ? MajorVersion()
                                                         : MajorVersion(current.value() - 1));
}

/// Removes the operation from the transient state, unless a later operation on the same key has
/// replaced it.
void TableCore::removeFromTransient(Operation& operation, Side side) {
  EntryWrapperBase& wrapper = operation.wrapper;
  InFlightKey* key = wrapper.inFlight_;
  const auto placeOf = [side](InFlightKey& of) -> WrapperPtr& {
    return side == Side::add ? of.add : of.remove;
  };
  if (key == nullptr || placeOf(*key).get() != &wrapper) {
    key = inFlight_.find(imageOf(wrapper.entryBytes()).words());
    if (key == nullptr || placeOf(*key) == nullptr) return;
    const EntryVersion& present = placeOf(*key)->entryHandle()->version();
    if (!EntryVersion::isEq(&present, &operation.version)) return;
  }
  const InFlight::Hold hold(inFlight_, *key);
  sideIs(side, *key, nullptr);
  versionDel(*key);
  inFlight_.settle(*key);
}

void TableCore::inLog(const HandlePtr& handle) {
  handle->entryStateIs(EntryState::entryInLog);
  entryHandleInLogEnq(handle);
}

void TableCore::finish(Operation& operation) {
  operation.handle->entryStateIs(EntryState::entryDone);
  callHandler(operation);
}

void TableCore::callHandler(Operation& operation) {
  if (!operation.handle->responseHandler()) return;
  try {
    operation.handle->responseHandler()(operation.handle);
  } catch (...) {
    if (operation.thrown == nullptr) operation.thrown = std::current_exception();
  }
}

/// The entry configured before a commit. Only resources use it, so without any it is read only if
/// the read is traced. Valid until the next commit.
const std::byte* TableCore::formerEntry(const void* key) {
  if (descriptor_.resources == nullptr && !readTrace().levelEnabled(8)) return nullptr;
  const auto* const none = static_cast<const std::byte*>(descriptor_.records.defaultEntry);
  former_.assign(none, none + descriptor_.records.entrySize);
  KIV_TRACE_AS("entryFromConfig", readTrace(), 8, "", "key: {}", textOf(key));
  ConfigStore* const config = entryLog_->config(table_.unitId());
  const ConfigRecord* const record = config->lookOwn(imageOf(key).words());
  if (record != nullptr && !record->isDeleted()) record->entryTo(former_.data());
  return former_.data();
}

Fenrik::Ptr<NeededEntry> TableCore::getNeededEntrySet(const EntryWrapperBase& wrapper) const {
  KIV_TRACE(ownTrace(), 8, name(), "key: {}", textOf(wrapper.entryBytes()));
  auto neededEntry = Fenrik::ptrIsImpl<NeededEntry>();
  if (descriptor_.resources != nullptr) {
    descriptor_.resources->addNeeded(table_, wrapper, *neededEntry);
  }
  return neededEntry;
}

/// Null when the set would be empty and tracing is off.
Fenrik::Ptr<NeededEntry> TableCore::ownNeeded(const EntryWrapperBase& wrapper) const {
  const bool any = descriptor_.resources != nullptr && descriptor_.resources->needsAny(wrapper);
  if (!any && !ownTrace().levelEnabled(8)) return nullptr;
  return getNeededEntrySet(wrapper);
}

/// Adds the version of the operation's dependency. Operations without requirements share one set.
TableCore::NeededPtr TableCore::neededOf(const Operation& operation,
                                         Fenrik::Ptr<NeededEntry> own) const {
  if (operation.dependency != nullptr) {
    if (own == nullptr) own = Fenrik::ptrIsImpl<NeededEntry>();
    own->add(operation.dependency->entryTableVersion());
  }
  return own != nullptr ? NeededPtr(std::move(own)) : nothingNeeded_;
}

/// Why the operation cannot be stored, or nullopt. Checked before anyone is notified of the
/// operation.
std::optional<Fenrik::String> TableCore::refusalOf(const Operation& operation) const {
  try {
    const KeyImage key = imageOf(operation.wrapper.entryBytes());
    entryLog_->operationRoom(key.words(), operation.flags, table_.unitId());
    return {};
  } catch (const Drift::CollectionFullException& e) {
    return e.msg();
  } catch (const Drift::NoSpaceException& e) {
    return e.msg();
  }
}

/// Ends an operation that cannot be stored; undoes its effect on reads and on the counters.
void TableCore::reject(Operation& operation, const Fenrik::String& reason) {
  KIV_TRACE_AS(kCommit, trace(), 1, "",
               "Rejected operation on table: {}, unitId: {}, key: {}, capacity: {}: {}",
               table_.canonicalName()->name(), table_.unitId(),
               textOf(operation.wrapper.entryBytes()), descriptor_.collections.configCapacity,
               reason);
  SwTableStats& stats = *table_.stats();
  constexpr auto kOneLess = ~0ULL;
  if (operation.flags.isTableDeleted()) {
    removeAllDone();
  } else if (operation.flags.isEntryDeleted()) {
    removeFromTransient(operation, Side::remove);
    stats.entryRemoveCntInc(kOneLess);
  } else {
    removeFromTransient(operation, Side::add);
    stats.entryWriteCntInc(kOneLess);
  }
  operation.handle->rejectionIs(reason);
  callHandler(operation);
}

/// Leaves the transient state unchanged: reads continue to show the failed operation.
void TableCore::failForDependency(Operation& operation) {
  const KeyText key = textOf(operation.wrapper.entryBytes());
  operation.settled = true;
  if (operation.flags.isTableDeleted()) {
    KIV_TRACE_AS(kCommit, trace(), 1, "", "Failed dependent entry for remove all");
    KIV_TRACE_AS(kCommit, trace(), 1, "", "Failed to commit entry remove all operation");
  } else {
    KIV_TRACE_AS(kCommit, trace(), 1, "", "Failed dependent entry for key: {}", key);
    KIV_TRACE_AS(kCommit, trace(), 1, "", "Failed to commit entry key: {}", key);
  }
  operation.handle->entryStateIs(EntryState::entryDependencyFailed);
  callHandler(operation);
}

/// Ends a write whose resource failed and which the helper abandoned.
void TableCore::giveUpForResource(Operation& operation) {
  operation.settled = true;
  removeFromTransient(operation, Side::add);
  KIV_TRACE_AS(kCommit, trace(), 1, "", "Failed to commit entry key: {}",
               textOf(operation.wrapper.entryBytes()));
  operation.handle->entryStateIs(EntryState::entryDependencyFailed);
  callHandler(operation);
}

void TableCore::giveUp(const TableResolverEntry& item) {
  item.wrapper()->entryHandle()->rejectionIs(Fenrik::formatString(
      "table {} of unit {} has gone", table_.canonicalName()->name(), table_.unitId()));
}

Fenrik::Ptr<OrderedSwTable::EntryHandle> TableCore::updateEntry(const void* key) {
  const Fenrik::Ptr<EntryLogCore> entryLog = entryLog_;
  const KeyImage image = imageOf(key);
  if (!entryLog->entryHas(image.words(), table_.unitId())) {
    KIV_TRACE(trace(), 3, "", " key: {} entry does not exist ", textOf(key));
    return nullptr;
  }
  HandlePtr handle;
  const WrapperPtr wrapper = entryWrapperFromConfig(image.words(), false, handle);
  const TableDescriptor::Records& shapes = descriptor_.records;
  // Taken from the table meanwhile: the helper may update another entry.
  std::vector<Word> oldLogEntry = std::move(oldLogEntry_);
  oldLogEntry.resize(shapes.logEntry.words());
  shapes.logEntry.toWords(wrapper->entryBytes(), oldLogEntry.data());
  const ResourceHooks* const resources = descriptor_.resources;
  bool failed = false;
  if (resources != nullptr) {
    resources->setResolvedFields(*wrapper);
    failed = !resources->checkResolveSuccess(table_, *wrapper);
  }
  const Fenrik::Ptr<Fenrik::Node> helper = swTableHelper_;
  const bool commitToLog = [&] {
    const IdentityGuard guard(shapes, wrapper->entryBytes());
    return descriptor_.helper.finalizeOnResourceUpdate(*helper, *wrapper, table_, failed);
  }();
  if (failed) {
    KIV_TRACE(trace(), 3, "", " key: {}, some resource had failed", textOf(key));
    table_.stats()->updateWithFailedResourceCntInc(1);
  }
  const bool changed = !shapes.logEntry.same(wrapper->entryBytes(), oldLogEntry.data());
  oldLogEntry_ = std::move(oldLogEntry);
  if (changed && commitToLog) {
    const auto own = ownNeeded(*wrapper);
    const NeededPtr neededEntry = own != nullptr ? NeededPtr(own) : nothingNeeded_;
    const std::byte* const entry = wrapper->entryBytes();
    const LogVersion logVersion =
        entryLog->entryIs(entry, entry + shapes.resourceKeysInEntry, neededEntry, table_.unitId(),
                          *table_.stats(), false);
    handle->logVersionIs(logVersion);
    handle->entryStateIs(EntryState::entryInLog);
    table_.stats()->updateCntInc(1);
    KIV_TRACE(trace(), 3, "", " key: {}, neededEntry: {}, entryLogVersion: {} ", textOf(key),
              neededEntry, logVersion);
  } else {
    KIV_TRACE(trace(), 3, "",
              " key: {}, commitToLog: {}, no change in logEntry or don't commit to log",
              textOf(key), commitToLog);
    handle->logVersionIs(entryLog->entryLogVersion(image.words(), table_.unitId()));
    handle->entryStateIs(EntryState::entryInLog);
  }
  return handle;
}

TableCore::WrapperPtr TableCore::entryWrapperFromConfig(const void* key, bool refreshRsrcPtrs,
                                                        HandlePtr& handle) {
  WrapperPtr wrapper = keyWrapper(key, refreshRsrcPtrs, handle);
  entryFromConfig(key, wrapper->entryBytes());
  setRsrcPtrs(*wrapper, refreshRsrcPtrs);
  return wrapper;
}

/// As `entryWrapperFromConfig`, for a record that a walk has just copied.
TableCore::WrapperPtr TableCore::wrapperOf(const ConfigRecord& record, bool refreshRsrcPtrs,
                                           HandlePtr& handle) {
  const KeyImage key = imageOf(record.words());
  WrapperPtr wrapper = keyWrapper(key.words(), refreshRsrcPtrs, handle);
  KIV_TRACE_AS("entryFromConfig", readTrace(), 8, "", "key: {}", textOf(key.words()));
  record.entryTo(wrapper->entryBytes());
  setRsrcPtrs(*wrapper, refreshRsrcPtrs);
  return wrapper;
}

TableCore::WrapperPtr TableCore::keyWrapper(const void* key, bool refreshRsrcPtrs,
                                            HandlePtr& handle) {
  KIV_TRACE_AS("entryWrapperFromConfig", trace(), 8, "", "key: {}, refreshRsrcPtrs: {}",
               textOf(key), refreshRsrcPtrs);
  constexpr EntryVersion kFirstVersion(MajorVersion(0), 0);
  if (handle == nullptr) handle = descriptor_.make.handle(kFirstVersion, key, table_);
  return descriptor_.make.keyWrapper(key, handle);
}

void TableCore::setRsrcPtrs(EntryWrapperBase& wrapper, bool refresh) {
  KIV_TRACE(ownTrace(), 8, name(), "key: {}, refresh: {}", textOf(wrapper.entryBytes()), refresh);
  if (descriptor_.resources != nullptr) {
    descriptor_.resources->setRsrcPtrs(table_, wrapper, refresh);
  }
}

bool TableCore::delAllEntries(bool releaseResources, const NeededPtr& neededEntry,
                              HandlePtr& entryHandle) {
  KIV_TRACE(trace(), 8, "", " releaseResources: {}, neededEntry:{} ", releaseResources,
            neededEntry);
  const ConfigStore* const config = entryLog_->config(table_.unitId());
  if (config == nullptr || config->size() == 0) return false;
  const KeyImage none = imageOf(descriptor_.records.defaultEntry);
  // Checked first: resources are not released for a clear that the log refuses.
  entryLog_->operationRoom(none.words(), EntryFlags(EntryFlags::kTableDelete), table_.unitId());
  if (releaseResources && wantsClearedEntries(entryHandle)) {
    config->walk([&](const ConfigRecord& record) {
      if (record.isDeleted()) return;
      const WrapperPtr wrapper = wrapperOf(record, false, entryHandle);
      if (descriptor_.resources == nullptr) return;
      descriptor_.resources->updateLocalUsage(table_, *wrapper, wrapper->entryBytes(), true);
    });
  }
  const LogVersion logVersion = entryLog_->tableDel(neededEntry, table_.unitId());
  if (entryHandle != nullptr) {
    entryHandle->logVersionIs(logVersion);
    entryHandle->entryStateIs(EntryState::entryInLog);
  }
  table_.stats()->tableClearCntInc(1);
  return true;
}

/// Whether each entry about to be cleared must be visited: for its resources, for the trace, or
/// because the first cleared entry creates the handle that all share.
bool TableCore::wantsClearedEntries(const HandlePtr& handle) const {
  return descriptor_.resources != nullptr || handle == nullptr || trace().levelEnabled(8);
}

void TableCore::clearTable(bool releaseResources) {
  KIV_TRACE(trace(), 8, "", "");
  HandlePtr none;
  delAllEntries(releaseResources, nullptr, none);
  // The head may hold the handle of a resource that was released just now, and needs a new one.
  if (releaseResources) groupResolver_->updateGenId();
}

void TableCore::restoreEntries() {
  const ResourceHooks* const resources = descriptor_.resources;
  if (resources == nullptr) return;
  ConfigStore* const config = entryLog_->config(table_.unitId());
  const auto records = config->recordsWhere(
      [](const auto& record) { return record.needsResources() && !record.isDeleted(); });
  for (const auto& record : records) {
    HandlePtr handle;
    const WrapperPtr wrapper = wrapperOf(config->recordOf(record.data()), true, handle);
    resources->restoreEntry(table_, *wrapper);
  }
  resources->entriesRestored(table_);
}

void TableCore::prefetch(const void* key, bool near, unsigned ahead) const noexcept {
  entryLog_->prefetch(imageOf(key).words(), table_.unitId(), near, ahead);
}

/// Follows the order of the checks: an operation waits for its resource only after its dependency.
ResolverEntry::Awaited TableCore::awaitedBy(const TableResolverEntry& item) const {
  const ResourceHooks* const resources = descriptor_.resources;
  const DependencyPtr& dependency = item.dependantEntryHandle();
  const bool afterDependency =
      dependency == nullptr || dependency->entryState() != EntryState::entryPending;
  if (resources != nullptr && afterDependency) return resources->awaited(table_, *item.wrapper());
  return {dependency, DependencyEntryHandle::kEntryStateField};
}

ResolverEntry::Waiting TableCore::waitingOf(const TableResolverEntry& item) const {
  ResolverEntry::Waiting waiting;
  waiting.table = table_.canonicalName()->name();
  waiting.unit = table_.unitId().value();
  waiting.key = Fenrik::formatString("{}", textOf(item.wrapper()->entryBytes()));
  waiting.operation = item.isTableDeleted()   ? "remove all"
                      : item.isEntryDeleted() ? "remove"
                                              : "write";
  waiting.reason = waitingReason(item);
  return waiting;
}

Fenrik::String TableCore::waitingReason(const TableResolverEntry& item) const {
  if (entryLog_->full()) {
    const Drift::Word records = entryLog_->log().records();
    const std::uint64_t reserved = entryLog_->reserved();
    return reserved == 0 ? Fenrik::formatString(
                               "no room in the log: {} records wait for the hardware", records)
                         : Fenrik::formatString(
                               "no room in the log: {} records wait for the hardware, and "
                               "changed resources for {} more",
                               records, reserved);
  }
  const auto& dependency = item.dependantEntryHandle();
  if (dependency != nullptr && dependency->entryState() == EntryState::entryPending) {
    return Fenrik::formatString("{}, key {}: {}", dependency->tableName(), dependency->keyText(),
                                dependency->entryState());
  }
  const ResourceHooks* const resources = descriptor_.resources;
  return resources != nullptr ? resources->waitingReason(table_, *item.wrapper())
                              : Fenrik::String();
}

}  // namespace Asic
