#pragma once

#include <functional>

#include "Fenrik/QueueAttribute.h"
#include "Kiv/KeyedAttribute.h"
#include "Kiv/Trace.h"
#include "OrderedTable/GroupResolver.h"
#include "OrderedTable/IterStateAccessor.h"
#include "OrderedTable/OrderedSwTable.h"
#include "OrderedTable/OrderedSwTableAccessor.h"
#include "QuarnBastil/FamilyTraits.h"
#include "QuarnBastil/InfraTypes.h"

namespace QuarnBastil {

/// The result of a client's operation, and its ticket for the outcome.
template <class Family>
class QUARNBASTIL_EXPORT SwTableEntryHandle
    : public Fenrik::NodeClass<typename Family::EntryHandle, typename Family::EntryHandleBase,
                               Fenrik::Storage::slabPerWrite> {
 public:
  using ResponseHandler = Asic::ResponseHandler;
  using KivModule = typename Family::SwTableModule;
  using Base = Fenrik::NodeClass<typename Family::EntryHandle, typename Family::EntryHandleBase,
                                 Fenrik::Storage::slabPerWrite>;
  using Base::Base;

  /// Called once when the outcome is known; may be empty.
  const ResponseHandler& responseHandler() const noexcept { return responseHandler_; }
  void responseHandlerIs(const ResponseHandler& handler) { responseHandler_ = handler; }

 private:
  ResponseHandler responseHandler_;
};

/// A copy of a whole table, for scripts and inspection.
template <class Family>
class QUARNBASTIL_EXPORT SwTableEntriesPy
    : public Fenrik::NodeClass<typename Family::SwTableEntries_py,
                               Fenrik::Publishing<Fenrik::Node>> {
 public:
  using Key = typename Family::Key;
  using Entry = typename Family::Entry;
  using KivModule = typename Family::SwTableModule;
  static constexpr std::uint16_t kFieldBase = 128;

  struct QUARNBASTIL_EXPORT TableEntriesKeyFunktor {
    const Key& operator()(const Entry& entry) const { return entry.key; }
  };
  using HN_TableEntries = Kiv::Hm2018NI<Family::kTableEntriesSalt, Key, Entry,
                                        TableEntriesKeyFunktor, Kiv::HashMap2018Alloc::slab>;

  KIV_KEYED(kFieldBase + 2, tableEntries, HN_TableEntries);
};

/// The position of an iteration: flags and the key of the next entry to visit. It does not keep the
/// table alive.
template <class Family>
class QUARNBASTIL_EXPORT SwTableIteratorState
    : public Fenrik::NodeClass<typename Family::IteratorState,
                               Fenrik::Publishing<typename Family::IteratorStateBase>> {
 public:
  using Key = typename Family::Key;
  using Entry = typename Family::Entry;
  using SwTable = typename Family::SwTable;
  using KivModule = typename Family::SwTableModule;
  static constexpr std::uint16_t kFieldBase = 256;

  FENRIK_FUNCTION(kFieldBase + 2, maybeUpdateCurrentEntry);
  FENRIK_VALUE(kFieldBase + 3, bookmarkKey, Key);

 public:
  const SwTable* swTable() const noexcept { return swTable_; }
  void swTableIs(const SwTable* table) noexcept { swTable_ = table; }

  /// One step: the next entry, or a default one at the end. Some families' bases ask for it.
  // NOLINTNEXTLINE(modernize-use-override): others do not know it
  Entry maybeUpdateCurrentEntry() {
    using Self = typename Family::IteratorState;
    return Asic::IterStateAccessor<Self, SwTable>(static_cast<Self*>(this))
        .maybeUpdateCurrentEntry();
  }

 private:
  const SwTable* swTable_ = nullptr;
};

/// The software table of one hardware table on one ASIC unit: what a client writes to and reads.
/// It owns what is in flight; what is configured lives in shared memory behind `entryLog`.
///
/// Threads: the table thread. No call blocks, and none fails for a reason of the table's state.
///
/// I1. A handle is `entryPending` when the call that made it returns.
/// I2. Reads show an operation at once; operations commit strictly in the order of their calls.
template <class Family>
class QUARNBASTIL_EXPORT SwTable
    : public Fenrik::NodeClass<typename Family::SwTable, typename Family::SwTableBase> {
 public:
  using Types = Family;
  using Key = typename Family::Key;
  using Entry = typename Family::Entry;
  using EntryHandle = typename Family::EntryHandle;
  using SwTableEntries_py = typename Family::SwTableEntries_py;
  using Wrapper = typename Family::EntryWrapper;
  using Log = typename Family::EntryLog;
  using IteratorState = typename Family::IteratorState;
  using EntryIterator =
      Asic::OrderedSwTableEntryIterator<const typename Family::SwTable, Entry, Key, IteratorState>;
  using ResponseHandler = Asic::ResponseHandler;
  using DependencyPtr = Fenrik::Ptr<const Asic::DependencyEntryHandle>;
  using HandlePtr = Fenrik::Ptr<const EntryHandle>;
  using KivModule = typename Family::SwTableModule;
  using Base = Fenrik::NodeClass<typename Family::SwTable, typename Family::SwTableBase>;

  struct QUARNBASTIL_EXPORT KeyOfWrapper {
    const Key& operator()(const Fenrik::Ptr<Wrapper>& wrapper) const { return wrapper->key(); }
  };
  struct QUARNBASTIL_EXPORT QE_EntryHandleInLog {};
  using HN_TransientAddEntry =
      Kiv::Hm2018NI<Family::kTransientAddEntrySalt, Key, Fenrik::Ptr<Wrapper>, KeyOfWrapper,
                    Kiv::HashMap2018Alloc::slab>;
  using HN_TransientRemoveEntry =
      Kiv::Hm2018NI<Family::kTransientRemoveEntrySalt, Key, Fenrik::Ptr<Wrapper>, KeyOfWrapper,
                    Kiv::HashMap2018Alloc::slab>;
  using HN_TransientVersionForKey = Kiv::Hm2018NE<Family::kTransientVersionForKeySalt, Key,
                                                  Asic::EntryVersion, Kiv::HashMap2018Alloc::slab>;

  static constexpr std::uint16_t kFieldBase = Family::kSwTableFieldBase;

  FENRIK_POINTER(kFieldBase + 2, swTableHelper, typename Family::SwTableHelperBase);
  KIV_KEYED(kFieldBase + 3, transientAddEntry, HN_TransientAddEntry);
  KIV_KEYED(kFieldBase + 4, transientRemoveEntry, HN_TransientRemoveEntry);
  KIV_KEYED_VALUE(kFieldBase + 5, transientVersionForKey, HN_TransientVersionForKey);
  FENRIK_VALUE(kFieldBase + 6, transientRemoveAllVersion, Asic::MajorVersion);
  FENRIK_FUNCTION(kFieldBase + 7, entryWrite);
  FENRIK_FUNCTION(kFieldBase + 9, entryRemove);
  FENRIK_FUNCTION(kFieldBase + 11, entryRemoveAll);
  FENRIK_FUNCTION(kFieldBase + 13, entryRead);
  FENRIK_FUNCTION(kFieldBase + 14, entry);
  FENRIK_FUNCTION(kFieldBase + 15, entryHas);
  FENRIK_FUNCTION(kFieldBase + 16, entrys);
  FENRIK_FUNCTION(kFieldBase + 18, getTableEntries_py);
  FENRIK_POINTER(kFieldBase + 19, entryLog, Log);
  FENRIK_POINTER(kFieldBase + 20, groupResolver, Asic::GroupResolver);
  FENRIK_QUEUE(kFieldBase + 22, entryHandleInLog, Fenrik::Ptr<EntryHandle>, QE_EntryHandleInLog);
  FENRIK_FUNCTION(kFieldBase + 23, commitEntry);
  FENRIK_FUNCTION(kFieldBase + 24, updateEntry);
  FENRIK_FUNCTION(kFieldBase + 25, getNeededEntrySet);
  FENRIK_FUNCTION(kFieldBase + 26, isResolverEntryResolved);
  FENRIK_FUNCTION(kFieldBase + 27, setRsrcPtrs);
  FENRIK_FUNCTION(kFieldBase + 28, entryFromConfig);
  FENRIK_FUNCTION(kFieldBase + 29, restoreEntries);
  FENRIK_FUNCTION(kFieldBase + 30, clearTable);
  FENRIK_FUNCTION(kFieldBase + 31, initIterState);
  FENRIK_FUNCTION(kFieldBase + 32, initIterStateFromKey);
  FENRIK_FUNCTION(kFieldBase + 33, handleInitialized);

 public:
  FENRIK_FACTORY(entryHandle, EntryHandle);

  /// Where the handles of the table trace.
  KIV_TRACE_ACCESSOR static const Kiv::TraceHandle& entryHandleTrace() { return trace(); }

  SwTable(const Fenrik::Ptr<const Asic::CanonicalTableName>& name, Asic::SwTableId tableId,
          Asic::UnitId unitId, Asic::OrderedSwTableSet* swTableSet,
          const Fenrik::Ptr<Log>& entryLog, const Fenrik::Ptr<Asic::GroupResolver>& groupResolver)
      : Base(name, tableId, unitId, swTableSet),
        entryLog_(entryLog),
        groupResolver_(groupResolver) {
    handleInitialized();
  }

  /// Operations that are still queued are given up. Handlers of operations that wait are not
  /// called.
  ~SwTable() override {
    groupResolver_->tableGone(*this);
    entryHandleInLog_.doClear(false);
  }

  /// Queues a write of `entry` under `key`, which wins over the key that `entry` carries. It waits
  /// for `dep`, if that is not null, to leave `entryPending`.
  HandlePtr entryWrite(const Key& key, const Entry& entry, const DependencyPtr& dep) {
    KIV_TRACE(trace(), 8, kName, " key: {}", key);
    return entryWriteWithResponseHandler(key, entry, dep, ResponseHandler());
  }
  /// The same; `handler` is called once when the outcome is known.
  HandlePtr entryWriteWithResponseHandler(const Key& key, const Entry& entry,
                                          const DependencyPtr& dep,
                                          const ResponseHandler& handler) {
    KIV_TRACE(trace(), 8, kName, " key: {}", key);
    return accessor().entryWriteGeneric(key, entry, dep, handler);
  }

  /// Queues a remove; a key that is nowhere is accepted all the same.
  HandlePtr entryRemove(const Key& key, const DependencyPtr& dep) {
    KIV_TRACE(trace(), 8, kName, " key: {}", key);
    return entryRemoveWithResponseHandler(key, dep, ResponseHandler());
  }
  HandlePtr entryRemoveWithResponseHandler(const Key& key, const DependencyPtr& dep,
                                           const ResponseHandler& handler) {
    KIV_TRACE(trace(), 8, kName, " key: {}", key);
    return accessor().entryRemoveGeneric(key, dep, handler);
  }

  /// Queues the removal of everything. Its handler is called only if it fails.
  void entryRemoveAll(const DependencyPtr& dep) {
    KIV_TRACE(trace(), 8, kName, "");
    entryRemoveAllWithResponseHandler(dep, ResponseHandler());
  }
  void entryRemoveAllWithResponseHandler(const DependencyPtr& dep, const ResponseHandler& handler) {
    KIV_TRACE(trace(), 8, kName, "");
    accessor().entryRemoveAllGeneric(dep, handler);
  }

  /// The entry as the client sees it; a default one if there is none.
  Entry entryRead(const Key& key) const {
    KIV_TRACE(trace(), 8, kName, " key: {}", key);
    return reads().entryReadGeneric(key);
  }
  Entry entry(const Key& key) const { return entryRead(key); }
  /// Whether the key exists as the client sees the table.
  bool entryHas(const Key& key) const { return reads().entryHas(key); }
  /// The configured entry, whatever is in flight; a default one if there is none.
  Entry entryFromConfig(const Key& key) const { return reads().entryFromConfig(key); }
  /// Number of entries as the client sees them.
  std::uint32_t entrys() const { return reads().entrys(); }

  Fenrik::Ptr<IteratorState> initIterState() const {
    return Asic::IterStateAccessor<IteratorState, typename Family::SwTable>::initIterState(self());
  }
  Fenrik::Ptr<IteratorState> initIterStateFromKey(const Key& key) const {
    KIV_TRACE(trace(), 8, kName, " key: {}", key);
    return Asic::IterStateAccessor<IteratorState, typename Family::SwTable>::initIterState(self(),
                                                                                           key);
  }
  /// An iterator on its first entry; it must not outlive the table.
  EntryIterator entryIteratorConst() const { return EntryIterator(self(), initIterState()); }
  EntryIterator entryIteratorConst(const Key& key) const {
    return EntryIterator(self(), initIterStateFromKey(key));
  }

  /// A copy of all entries, by key.
  Fenrik::Ptr<typename Family::SwTableEntries_py> getTableEntries_py() const {
    auto snapshot = Fenrik::ptrIsImpl<typename Family::SwTableEntries_py>();
    for (auto it = entryIteratorConst(); it; ++it) snapshot->tableEntriesIs(*it);
    return snapshot;
  }

  bool isResolverEntryResolved(const Fenrik::Ptr<typename Family::ResolverEntry>& item) {
    return accessor().isResolverEntryResolved(item);
  }
  void commitEntry(const Fenrik::Ptr<Asic::ResolverEntry>& item) { accessor().commitEntry(item); }
  Asic::ResolverEntry::Waiting waitingOf(const ResolverEntry<Family>& item) const {
    return reads().waitingOf(item);
  }
  Fenrik::Ptr<const Asic::OrderedSwTable::EntryHandle> updateEntry(const Key& key) {
    return accessor().updateEntry(key);
  }
  void clearTable(bool releaseResources) { accessor().clearTable(releaseResources); }
  Fenrik::Ptr<Asic::NeededEntry> getNeededEntrySet(
      const Fenrik::Ptr<const Wrapper>& wrapper) const {
    KIV_TRACE(trace(), 8, kName, "key: {}", wrapper->key());
    auto neededEntry = Fenrik::ptrIsImpl<Asic::NeededEntry>();
    Family::ResourceHooks::addNeeded(*self(), *wrapper, *neededEntry);
    return neededEntry;
  }
  /// The set of an operation that needs nothing of other tables.
  const Fenrik::Ptr<const Asic::NeededEntry>& nothingNeeded() const noexcept {
    return nothingNeeded_;
  }
  void setRsrcPtrs(const Fenrik::Ptr<Wrapper>& wrapper, bool refresh) {
    KIV_TRACE(trace(), 8, kName, "key: {}, refresh: {}", wrapper->key(), refresh);
    Family::ResourceHooks::setRsrcPtrs(*self(), wrapper, refresh);
  }

  void tableStatusVersion(Asic::LogVersion version) override {
    accessor().tableStatusVersion(version);
  }
  bool hasPendingHwWrites() const override {
    KIV_TRACE(trace(), 8, kName, "");
    return reads().hasPendingHwWrites();
  }

  void handleInitialized() {
    KIV_TRACE(trace(), 8, kName, "doesMarkSweep: False hwErrorHandling: False");
    swTableHelperIs(Fenrik::ptrIsImpl<typename Family::SwTableHelperBase>());
    this->statsIs();
  }
  void restoreEntries() { Family::ResourceHooks::restoreEntries(*self()); }

  /// The wrapper under the key, without taking a reference; null if there is none.
  const Wrapper* transientAddEntryFind(const Key& key) const {
    return wrapperFind(transientAddEntry_, key);
  }
  const Wrapper* transientRemoveEntryFind(const Key& key) const {
    return wrapperFind(transientRemoveEntry_, key);
  }

 private:
  using Self = typename Family::SwTable;
  static constexpr const char* kName = className<Self>();

  KIV_TRACE_ACCESSOR static const Kiv::TraceHandle& trace() {
    return FamilyTraces<Family>::swTable();
  }

  Self* self() noexcept { return static_cast<Self*>(this); }
  const Self* self() const noexcept { return static_cast<const Self*>(this); }
  Asic::OrderedSwTableAccessor<Self> accessor() {
    return Asic::OrderedSwTableAccessor<Self>(self());
  }
  Asic::TableReads<const Self> reads() const { return Asic::TableReads<const Self>(self()); }

  template <class Map>
  static const Wrapper* wrapperFind(const Map& map, const Key& key) {
    const auto* const node = map[key];
    return node == nullptr ? nullptr : node->value().get();
  }

  Fenrik::Ptr<const Asic::NeededEntry> nothingNeeded_ = Fenrik::ptrIsImpl<Asic::NeededEntry>();
};

}  // namespace QuarnBastil
