#pragma once

#include "Drift/DriftError.h"
#include "Fenrik/Assert.h"
#include "Fenrik/Format.h"
#include "Kiv/Trace.h"
#include "OrderedTable/EntryHandle.h"
#include "OrderedTable/NeededEntry.h"

namespace Asic {

/// Accounts for the resources that the entries of a software table use: which entries use a
/// resource, one subscription per resource in use, its release with the last user, and the update
/// of its users when it changes. A value that holds only the linkage's pointer.
///
/// `ResourceLinkage` provides
///   types:       SwTable, EntryWrapper, Entry, EntryKey, ResourceKey, LocalUsageUpdateSm
///   members:     swTable, resTblClient, entryUsageSm, entryUsageSmIs, entryUsageSmDel,
///                resourceKey, resourceKeyFromEntry, resourceHandle, traceHandle
///   updates:     updatePrefetch, updatesRoom, updatesPostpone, updatesDone
///
/// Threads: the table thread.
///
/// I1. The accounting follows the log, not the client: a write that is dropped leaves no user.
/// I2. A resource has a `LocalUsageUpdateSm` exactly while it has users.
template <class ResourceLinkage>
class SwTableResourceAccessor {
 public:
  using EntryWrapper = typename ResourceLinkage::EntryWrapper;
  using Entry = typename ResourceLinkage::Entry;
  using EntryKey = typename ResourceLinkage::EntryKey;
  using ResourceKey = typename ResourceLinkage::ResourceKey;
  using LocalUsageUpdateSm = typename ResourceLinkage::LocalUsageUpdateSm;
  using WrapperPtr = Fenrik::Ptr<const EntryWrapper>;
  using DependencyPtr = Fenrik::Ptr<const DependencyEntryHandle>;

  explicit SwTableResourceAccessor(ResourceLinkage* linkage) noexcept : linkage_(linkage) {}

  /// Pending: the resource of the wrapper has no value yet. Done: it has one, or the wrapper needs
  /// none. Otherwise `entryResourceFailed`. Aborts on a state that no resource can have.
  EntryState entryResolutionState(const WrapperPtr& wrapper) const {
    if (wrapper == nullptr || linkage_->resourceHandle(wrapper) == nullptr) {
      return EntryState::entryDone;
    }
    switch (linkage_->resourceHandle(wrapper)->entryState()) {
      case EntryState::entryPending:
      case EntryState::entryInLog:
        return EntryState::entryPending;
      case EntryState::entryDone:
        return EntryState::entryDone;
      case EntryState::entryRejected:
      case EntryState::entryDependencyFailed:
      case EntryState::entryResourceFailed:
        return EntryState::entryResourceFailed;
      case EntryState::entryStateReserved:
        break;
    }
    FENRIK_ASSERT_TEXT(false, "false && \"Unhandled resHandle entryState\"");
    return EntryState::entryResourceFailed;
  }

  /// Whether a write can be committed. Traces a negative answer to the table's handle.
  bool resAccessorCheckResolved(const WrapperPtr& wrapper,
                                const Kiv::TraceHandle& tableTrace) const {
    if (entryResolutionState(wrapper) != EntryState::entryPending) return true;
    KIV_TRACE(tableTrace, 3, "", "SwTable key: {}, resourceKey: {} is still unresolved!",
              wrapper->key(), linkage_->resourceKey(wrapper));
    return false;
  }

  /// Whether the resource has a value. Traces a negative answer to the table's handle.
  bool checkResolveSuccess(const WrapperPtr& wrapper, const Kiv::TraceHandle& tableTrace) const {
    if (entryResolutionState(wrapper) == EntryState::entryDone) return true;
    KIV_TRACE(tableTrace, 3, "", "SwTable key: {}, resourceKey: {} has failed resolution!",
              wrapper->key(), linkage_->resourceKey(wrapper));
    return false;
  }

  /// A new set with the versions that the resource requires in hardware. Never null.
  Fenrik::Ptr<NeededEntry> getNeededEntrySet(const WrapperPtr& wrapper) const {
    auto needed = Fenrik::ptrIsImpl<NeededEntry>();
    if (wrapper == nullptr || linkage_->resourceHandle(wrapper) == nullptr) return needed;
    const auto& ofResource = linkage_->resourceHandle(wrapper)->neededSet();
    if (ofResource == nullptr) return needed;
    for (const auto& node : ofResource->versions()) needed->add(node.value());
    for (const auto& node : needed->versions()) {
      KIV_TRACE(trace(), 9, "", "neededVersion: {}", node.value());
    }
    return needed;
  }

  /// Accounts for the change of one entry, after its commit or before a clear. `oldEntry` is the
  /// entry configured before, or a default one.
  void updateLocalUsage(const WrapperPtr& wrapper, const Entry& oldEntry, bool isDeleted) const {
    KIV_TRACE(trace(), 8, "", "key: {}, isDeleted: {}, oldEntry:{}", keyOf(wrapper), isDeleted,
              oldEntry);
    if (isDeleted) {
      if (!oldEntry) return;
      deleteResKeyMapping(linkage_->resourceKeyFromEntry(oldEntry), keyOf(wrapper),
                          handleOf(wrapper));
      return;
    }
    const ResourceKey newKey = wrapper != nullptr ? linkage_->resourceKey(wrapper) : ResourceKey();
    if (oldEntry) {
      const ResourceKey oldKey = linkage_->resourceKeyFromEntry(oldEntry);
      if (oldKey == newKey) return;
      deleteResKeyMapping(oldKey, keyOf(wrapper), handleOf(wrapper));
    }
    addResKeyMapping(newKey, wrapper, true);
  }

  /// Adds the wrapper's entry to the users of a resource. The first user subscribes to it and, with
  /// `ackUpdate`, acknowledges the update that the entry was logged with.
  void addResKeyMapping(const ResourceKey& resKey, const WrapperPtr& wrapper,
                        bool ackUpdate) const {
    KIV_TRACE(trace(), 8, "", "resKey: {}, swKey: {}", resKey, keyOf(wrapper));
    if (!resKey) {
      KIV_TRACE(trace(), 3, "", "Null resKey: {}", resKey);
      return;
    }
    auto sm = linkage_->entryUsageSm(resKey);
    if (sm == nullptr) {
      const auto& handle = linkage_->resourceHandle(wrapper);
      sm = linkage_->entryUsageSmIs(handle);
      if (ackUpdate) {
        linkage_->resTblClient()->ackUpdate(handle, handle->updateNumber(), handleOf(wrapper));
      }
    }
    sm->entryUsageIs(wrapper->key());
  }

  /// Removes a user. The last one releases the resource, once `dependency` is in hardware.
  void deleteResKeyMapping(const ResourceKey& resKey, const EntryKey& swKey,
                           const DependencyPtr& dependency) const {
    KIV_TRACE(trace(), 8, "", "resKey: {}, swKey: {}", resKey, swKey);
    const auto sm = linkage_->entryUsageSm(resKey);
    if (sm == nullptr) return;
    sm->entryUsageDel(swKey);
    if (sm->entryUsageCount() != 0) return;
    linkage_->resTblClient()->release(sm->resPtr(), dependency);
    linkage_->entryUsageSmDel(resKey);
  }

  /// Updates all users of a changed resource, then acknowledges the change once. If the log has no
  /// room for all of them, the change is postponed until a report makes room, and is then done with
  /// the newest value.
  void handleResourceChange(LocalUsageUpdateSm* changed) const {
    KIV_TRACE(trace(), 8, "", "");
    const Fenrik::Ptr<LocalUsageUpdateSm> sm(changed);
    if (sm->resPtr()->isPostReleaseProtoState()) {
      KIV_TRACE(trace(), 3, "", "Ignoring change for resourceKey: {} ", sm->resKey());
      return;
    }
    if (!linkage_->updatesRoom(*sm)) return linkage_->updatesPostpone(*sm);
    const Fenrik::Ptr<typename ResourceLinkage::SwTable> swTable(linkage_->swTable());
    DependencyPtr last;
    // Updates are bound by random memory access. Prefetch distances as in the queue's commits.
    constexpr unsigned kNear = 2, kFar = 4;
    auto near = ahead(*sm, kNear), far = ahead(*sm, kFar);
    try {
      for (auto it = sm->entryUsageIterator(); it; ++it) {
        const EntryKey key = it.key();
        if (far) linkage_->updatePrefetch(far.key(), false, kFar), ++far;
        if (near) linkage_->updatePrefetch(near.key(), true, kNear), ++near;
        KIV_TRACE(trace(), 3, "", "Updating sw table entry for key: {}", key);
        if (auto handle = swTable->updateEntry(key); handle != nullptr) last = std::move(handle);
      }
    } catch (const Drift::CollectionFullException&) {
      // Doing it again logs only what is missing.
      return linkage_->updatesPostpone(*sm);
    } catch (const Drift::NoSpaceException&) {
      return linkage_->updatesPostpone(*sm);
    }
    linkage_->updatesDone(*sm);
    linkage_->resTblClient()->ackUpdate(sm->resPtr(), sm->resPtr()->updateNumber(), last);
  }

 private:
  const Kiv::TraceHandle& trace() const noexcept { return linkage_->traceHandle(); }
  static EntryKey keyOf(const WrapperPtr& wrapper) {
    return wrapper != nullptr ? wrapper->key() : EntryKey();
  }
  static DependencyPtr handleOf(const WrapperPtr& wrapper) {
    return wrapper != nullptr ? DependencyPtr(wrapper->entryHandle()) : nullptr;
  }

  /// An iterator so many users ahead.
  static auto ahead(const LocalUsageUpdateSm& sm, unsigned count) {
    auto it = sm.entryUsageIterator();
    while (it && count-- != 0) ++it;
    return it;
  }

  ResourceLinkage* linkage_;
};

}  // namespace Asic
