#include "Fenrik/Assert.h"
#include "Kiv/Trace.h"
#include "OrderedTable/OrderedSwTableSet.h"
#include "OrderedTable/ResourceHooks.h"
#include "OrderedTable/TableCore.h"

namespace Asic {

namespace {

constexpr EntryVersion kFirstVersion{MajorVersion(0), 0};

}  // namespace

TableCore::HandlePtr TableCore::entryWrite(const void* key, const void* entry,
                                           const DependencyPtr& dep) {
  KIV_TRACE(ownTrace(), 8, name(), " key: {}", textOf(key));
  return entryWriteWithResponseHandler(key, entry, dep, ResponseHandler());
}

TableCore::HandlePtr TableCore::entryWriteWithResponseHandler(const void* key, const void* entry,
                                                              const DependencyPtr& dep,
                                                              const ResponseHandler& handler) {
  KIV_TRACE(ownTrace(), 8, name(), " key: {}", textOf(key));
  return entryWriteGeneric(key, entry, dep, handler);
}

TableCore::HandlePtr TableCore::entryWriteGeneric(const void* key, const void* entry,
                                                  const DependencyPtr& dep,
                                                  const ResponseHandler& handler) {
  KIV_TRACE(trace(), 8, "", "key: {}", textOf(key));
  EntryVersion version;
  InFlightKey& inFlight = nextVersion(__func__, key, version);
  const InFlight::Hold hold(inFlight_, inFlight);
  HandlePtr handle = makeHandle(version, key, handler);
  const WrapperPtr wrapper = descriptor_.make.wrapper(entry, key, handle);
  if (inFlight.remove != nullptr) sideIs(Side::remove, inFlight, nullptr);
  sideIs(Side::add, inFlight, wrapper);
  if (descriptor_.resources != nullptr) descriptor_.resources->writeQueued(table_, *wrapper);
  enqueue(descriptor_.make.resolverEntry(dep, EntryFlags(EntryFlags::kWrite), table_, wrapper));
  KIV_TRACE(trace(), 2, "", "Done processing write for key: {} ", textOf(key));
  table_.stats()->entryWriteCntInc(1);
  updateGroup();
  return handle;
}

TableCore::HandlePtr TableCore::entryRemove(const void* key, const DependencyPtr& dep) {
  KIV_TRACE(ownTrace(), 8, name(), " key: {}", textOf(key));
  return entryRemoveWithResponseHandler(key, dep, ResponseHandler());
}

TableCore::HandlePtr TableCore::entryRemoveWithResponseHandler(const void* key,
                                                               const DependencyPtr& dep,
                                                               const ResponseHandler& handler) {
  KIV_TRACE(ownTrace(), 8, name(), " key: {}", textOf(key));
  return entryRemoveGeneric(key, dep, handler);
}

TableCore::HandlePtr TableCore::entryRemoveGeneric(const void* key, const DependencyPtr& dep,
                                                   const ResponseHandler& handler) {
  KIV_TRACE(trace(), 8, "", " Key: {} ", textOf(key));
  EntryVersion version;
  InFlightKey& inFlight = nextVersion(__func__, key, version);
  const InFlight::Hold hold(inFlight_, inFlight);
  HandlePtr handle = makeHandle(version, key, handler);
  const WrapperPtr wrapper = descriptor_.make.keyWrapper(key, handle);
  const auto item =
      descriptor_.make.resolverEntry(dep, EntryFlags(EntryFlags::kEntryDelete), table_, wrapper);
  if (inFlight.add != nullptr) sideIs(Side::add, inFlight, nullptr);
  sideIs(Side::remove, inFlight, wrapper);
  enqueue(item);
  KIV_TRACE(trace(), 2, "", " Done processing remove for key: {} ", textOf(key));
  table_.stats()->entryRemoveCntInc(1);
  updateGroup();
  return handle;
}

void TableCore::entryRemoveAll(const DependencyPtr& dep) {
  KIV_TRACE(ownTrace(), 8, name(), "");
  entryRemoveAllWithResponseHandler(dep, ResponseHandler());
}

void TableCore::entryRemoveAllWithResponseHandler(const DependencyPtr& dep,
                                                  const ResponseHandler& handler) {
  KIV_TRACE(ownTrace(), 8, name(), "");
  entryRemoveAllGeneric(dep, handler);
}

void TableCore::entryRemoveAllGeneric(const DependencyPtr& dep, const ResponseHandler& handler) {
  KIV_TRACE(trace(), 8, "", "");
  const void* const noKey = descriptor_.records.defaultEntry;
  const HandlePtr handle = makeHandle(kFirstVersion, noKey, handler);
  const WrapperPtr wrapper = descriptor_.make.keyWrapper(noKey, handle);
  const auto item =
      descriptor_.make.resolverEntry(dep, EntryFlags(EntryFlags::kTableDelete), table_, wrapper);
  transientAddEntryDelAll();
  transientRemoveEntryDelAll();
  if (transientRemoveAllVersion_.valid()) {
    KIV_TRACE(trace(), 8, "", "Found valid table remove all version: {}",
              transientRemoveAllVersion_);
    transientRemoveAllVersionIs(transientRemoveAllVersion_.next());
  } else {
    KIV_TRACE(trace(), 8, "", "No remove all operation currently enqueued");
    transientRemoveAllVersionIs(MajorVersion(0));
  }
  enqueue(item);
  KIV_TRACE(trace(), 2, "", "Done processing remove all ");
  updateGroup();
}

/// Assigns the version of a new operation on `key` and counts the operation as in flight.
InFlightKey& TableCore::nextVersion(const char* function, const void* key, EntryVersion& version) {
  const KeyImage image = imageOf(key);
  InFlightKey& inFlight = inFlight_.obtain(image.words());
  version = kFirstVersion;
  if (inFlight.counted) {
    const EntryVersion& currEntryVersion = inFlight.version;
    FENRIK_ASSERT(currEntryVersion.valid());
    version = currEntryVersion.next();
  } else {
    KIV_TRACE_AS(function, trace(), 8, "", " Key: {} not found in entry version collection",
                 textOf(key));
  }
  versionIs(inFlight, version);
  return inFlight;
}

TableCore::HandlePtr TableCore::makeHandle(const EntryVersion& version, const void* key,
                                           const ResponseHandler& handler) {
  HandlePtr handle = descriptor_.make.handle(version, key, table_);
  if (handler) handle->responseHandlerIs(handler);
  handle->entryStateIs(EntryState::entryPending);
  return handle;
}

void TableCore::enqueue(const Fenrik::Ptr<ResolverEntry>& item) {
  const GroupResolver::QueueingScope queueing(*groupResolver_);
  groupResolver_->resolverQueueEnq(item);
  groupResolver_->updateGenId();
}

void TableCore::updateGroup() {
  groupResolver_->maybeUpdateSuspend();
  if (auto* const set = table_.swTableSet()) set->maybeUpdatePendingHwWrites();
}

}  // namespace Asic
