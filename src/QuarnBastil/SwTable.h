#pragma once

#include <optional>

#include "Kiv/KeyedAttribute.h"
#include "OrderedTable/IterStateAccessor.h"
#include "OrderedTable/OrderedSwTableAccessor.h"
#include "OrderedTable/OutermostCall.h"
#include "OrderedTable/TableCore.h"
#include "QuarnBastil/FamilyTraits.h"

namespace QuarnBastil {

/// Result of a client's operation; reports its outcome.
template <class Family>
class QUARNBASTIL_EXPORT SwTableEntryHandle
    : public Fenrik::NodeClass<typename Family::EntryHandle, typename Family::EntryHandleBase,
                               Fenrik::Storage::slabPerWrite> {
 public:
  using KivModule = typename Family::SwTableModule;
  using Base = Fenrik::NodeClass<typename Family::EntryHandle, typename Family::EntryHandleBase,
                                 Fenrik::Storage::slabPerWrite>;
  using Base::Base;
};

/// A copy of a complete table, for scripts and inspection.
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

/// The position of an iteration, in the family's own types.
template <class Family>
class QUARNBASTIL_EXPORT SwTableIteratorState
    : public Fenrik::NodeClass<typename Family::IteratorState, typename Family::IteratorStateBase> {
 public:
  using Key = typename Family::Key;
  using Entry = typename Family::Entry;
  using SwTable = typename Family::SwTable;
  using KivModule = typename Family::SwTableModule;
  using Base =
      Fenrik::NodeClass<typename Family::IteratorState, typename Family::IteratorStateBase>;
  static constexpr std::uint16_t kFieldBase = Family::kIteratorFieldBase;

  SwTableIteratorState() : Base(Fenrik::FieldId(kFieldBase + 3)) {}

  FENRIK_FUNCTION(kFieldBase + 2, maybeUpdateCurrentEntry);
  FENRIK_ATTRIBUTE_FACT(kFieldBase + 3, bookmarkKey, value);

  Key bookmarkKey() const noexcept {
    Key key;
    std::memcpy(static_cast<void*>(&key), this->bookmark().words(), sizeof key);
    return key;
  }
  void bookmarkKeyIs(const Key& key) { this->bookmarkIs({Asic::flatShapeOf<Key>(), &key}); }

  const SwTable* swTable() const noexcept { return static_cast<const SwTable*>(this->table()); }
  void swTableIs(const SwTable* table) noexcept { this->tableIs(table); }

  /// Advances by one: returns the next entry, or a default one at the end. A virtual
  /// function of the base in some families.
  // NOLINTNEXTLINE(modernize-use-override): not virtual in every family's base
  Entry maybeUpdateCurrentEntry() {
    using Self = typename Family::IteratorState;
    return Asic::IterStateAccessor<Self, SwTable>(static_cast<Self*>(this))
        .maybeUpdateCurrentEntry();
  }
};

/// A member of one of the keyed attributes of operations in flight, and a position in a walk over
/// them. If the member is removed during the walk, its key stays readable and its value is null.
template <class Family, class Value>
class InFlightIterator {
 public:
  InFlightIterator(const Asic::InFlight& index, Asic::InFlight::View view)
      : view_(view), walk_(index, view) {}
  InFlightIterator(const Asic::InFlight& index, Asic::InFlight::View view,
                   const Asic::InFlightKey* from)
      : view_(view), walk_(index, view, from) {}

  explicit operator bool() const noexcept { return static_cast<bool>(walk_); }
  InFlightIterator& operator++() noexcept {
    ++walk_;
    return *this;
  }
  const InFlightIterator* operator->() const noexcept { return this; }

  typename Family::Key key() const noexcept {
    typename Family::Key key;
    std::memcpy(static_cast<void*>(&key), walk_->key(), sizeof key);
    return key;
  }
  Value value() const {
    if constexpr (std::is_same_v<Value, Asic::EntryVersion>) {
      return walk_->version;
    } else {
      const auto& wrapper = view_ == Asic::InFlight::View::adds ? walk_->add : walk_->remove;
      return Value(static_cast<typename Value::element_type*>(wrapper.get()));
    }
  }

 private:
  Asic::InFlight::View view_;
  Asic::InFlight::Walk walk_;
};

/// Payload of an announced change in a keyed attribute of operations in flight.
template <std::uint32_t salt, class ValueType>
struct InFlightNode {
  static constexpr std::uint32_t kSalt = salt;
  using Value = ValueType;

  Value value() const {
    if constexpr (std::is_same_v<Value, Asic::EntryVersion>) {
      return *reinterpret_cast<const Value*>(this);
    } else {
      using Wrapper = typename Value::element_type;
      const auto& wrapper = *reinterpret_cast<const Fenrik::Ptr<Asic::EntryWrapperBase>*>(this);
      return Value(static_cast<Wrapper*>(wrapper.get()));
    }
  }
};

/// The software table of one hardware table on one ASIC unit, which clients write and read. The
/// configuration is in shared memory and accessed through `entryLog`; the core holds the operations
/// in flight and implements the table.
///
/// Threads: the table thread. No call blocks, and none fails because of the table's state.
///
/// I1. When a call returns a handle, the handle is `entryPending`.
/// I2. Reads show an operation immediately. Operations are committed strictly in the order of their
///     calls.
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
  using WrapperPtr = Fenrik::Ptr<Wrapper>;
  using Helper = typename Family::SwTableHelperBase;
  using Log = typename Family::EntryLog;
  using IteratorState = typename Family::IteratorState;
  using EntryIterator =
      Asic::OrderedSwTableEntryIterator<const typename Family::SwTable, Entry, Key, IteratorState>;
  using ResponseHandler = Asic::ResponseHandler;
  using DependencyPtr = Fenrik::Ptr<const Asic::DependencyEntryHandle>;
  using HandlePtr = Fenrik::Ptr<const EntryHandle>;
  using KivModule = typename Family::SwTableModule;
  using Base = Fenrik::NodeClass<typename Family::SwTable, typename Family::SwTableBase>;

  using HN_TransientAddEntry = InFlightNode<Family::kTransientAddEntrySalt, WrapperPtr>;
  using HN_TransientRemoveEntry = InFlightNode<Family::kTransientRemoveEntrySalt, WrapperPtr>;
  using HN_TransientVersionForKey =
      InFlightNode<Family::kTransientVersionForKeySalt, Asic::EntryVersion>;
  using WrapperIterator = InFlightIterator<Family, WrapperPtr>;
  using VersionIterator = InFlightIterator<Family, Asic::EntryVersion>;

  static constexpr std::uint16_t kFieldBase = Family::kSwTableFieldBase;
  using KivRows = Asic::TableAttributes<kFieldBase, typename Family::LinkRow>;
  using KivRoles = FamilyRoles<Family>;

  FENRIK_FACTORY(entryHandle, EntryHandle);

  SwTable(const Fenrik::Ptr<const Asic::CanonicalTableName>& name, Asic::SwTableId tableId,
          Asic::UnitId unitId, Asic::OrderedSwTableSet* swTableSet,
          const Fenrik::Ptr<Log>& entryLog, const Fenrik::Ptr<Asic::GroupResolver>& groupResolver)
      : Base(name, tableId, unitId, swTableSet),
        core_(*this, descriptorOf<Family>(), entryLog, groupResolver) {
    handleInitialized();
  }

  /// Queues a write of `entry` under `key`, which replaces the key in `entry`. The write waits
  /// until `dep`, unless null, leaves `entryPending`.
  HandlePtr entryWrite(const Key& key, const Entry& entry, const DependencyPtr& dep) {
    return typed(core_.entryWrite(&key, &entry, dep));
  }
  /// As above. `handler` is called once when the outcome is known.
  HandlePtr entryWriteWithResponseHandler(const Key& key, const Entry& entry,
                                          const DependencyPtr& dep,
                                          const ResponseHandler& handler) {
    return typed(core_.entryWriteWithResponseHandler(&key, &entry, dep, handler));
  }

  /// Queues a remove, even if the key does not exist.
  HandlePtr entryRemove(const Key& key, const DependencyPtr& dep) {
    return typed(core_.entryRemove(&key, dep));
  }
  HandlePtr entryRemoveWithResponseHandler(const Key& key, const DependencyPtr& dep,
                                           const ResponseHandler& handler) {
    return typed(core_.entryRemoveWithResponseHandler(&key, dep, handler));
  }

  /// Queues the removal of all entries. The handler is called only on failure.
  void entryRemoveAll(const DependencyPtr& dep) { core_.entryRemoveAll(dep); }
  void entryRemoveAllWithResponseHandler(const DependencyPtr& dep, const ResponseHandler& handler) {
    core_.entryRemoveAllWithResponseHandler(dep, handler);
  }

  /// The entry as the client sees it, or a default one.
  Entry entryRead(const Key& key) const {
    Entry entry{Key()};
    core_.entryRead(&key, &entry);
    return entry;
  }
  Entry entry(const Key& key) const { return entryRead(key); }
  /// Whether the key exists, as the client sees the table.
  bool entryHas(const Key& key) const { return core_.entryHas(&key); }
  /// The configured entry, ignoring operations in flight; or a default one.
  Entry entryFromConfig(const Key& key) const {
    Entry entry{Key()};
    core_.entryFromConfig(&key, &entry);
    return entry;
  }
  /// Number of entries, as the client sees the table.
  std::uint32_t entrys() const { return core_.entrys(); }

  Fenrik::Ptr<IteratorState> initIterState() const {
    return Asic::IterStateAccessor<IteratorState, Self>::initIterState(self());
  }
  Fenrik::Ptr<IteratorState> initIterStateFromKey(const Key& key) const {
    return Asic::IterStateAccessor<IteratorState, Self>::initIterState(self(), key);
  }
  /// An iterator at the first entry. Must not outlive the table.
  EntryIterator entryIteratorConst() const { return EntryIterator(self(), initIterState()); }
  EntryIterator entryIteratorConst(const Key& key) const {
    return EntryIterator(self(), initIterStateFromKey(key));
  }

  /// A copy of all entries by key.
  Fenrik::Ptr<SwTableEntries_py> getTableEntries_py() const {
    auto snapshot = Fenrik::ptrIsImpl<SwTableEntries_py>();
    for (auto it = entryIteratorConst(); it; ++it) snapshot->tableEntriesIs(*it);
    return snapshot;
  }

  bool isResolverEntryResolved(const Fenrik::Ptr<typename Family::ResolverEntry>& item) {
    return core_.isResolverEntryResolved(*item);
  }
  void commitEntry(const Fenrik::Ptr<Asic::ResolverEntry>& item) override {
    oneCall([&] { core_.commitEntry(item); });
  }
  HandlePtr updateEntry(const Key& key) {
    HandlePtr handle;
    oneCall([&] { handle = typed(core_.updateEntry(&key)); });
    return handle;
  }
  /// Clears the unit through the log. Throws `Drift::CollectionFullException` or
  /// `Drift::NoSpaceException`; nothing has changed then.
  void clearTable(bool releaseResources) {
    oneCall([&] { core_.clearTable(releaseResources); });
  }
  Fenrik::Ptr<Asic::NeededEntry> getNeededEntrySet(
      const Fenrik::Ptr<const Wrapper>& wrapper) const {
    return core_.getNeededEntrySet(*wrapper);
  }
  void setRsrcPtrs(const WrapperPtr& wrapper, bool refresh) {
    core_.setRsrcPtrs(*wrapper, refresh);
  }

  void tableStatusVersion(Asic::LogVersion version) override { core_.tableStatusVersion(version); }
  bool hasPendingHwWrites() const override { return core_.hasPendingHwWrites(); }

  void handleInitialized() { core_.handleInitialized(); }
  void restoreEntries() { core_.restoreEntries(); }

  // Attributes.
  Fenrik::Ptr<Helper> swTableHelper() const {
    return Fenrik::Ptr<Helper>(static_cast<Helper*>(core_.swTableHelper().get()));
  }
  void swTableHelperIs(const Fenrik::Ptr<Helper>& helper) { core_.swTableHelperIs(helper); }
  Fenrik::Ptr<Log> entryLog() const {
    return Fenrik::Ptr<Log>(static_cast<Log*>(core_.entryLog().get()));
  }
  void entryLogIs(const Fenrik::Ptr<Log>& log) { core_.entryLogIs(log); }
  const Fenrik::Ptr<Asic::GroupResolver>& groupResolver() const noexcept {
    return core_.groupResolver();
  }
  void groupResolverIs(const Fenrik::Ptr<Asic::GroupResolver>& resolver) {
    core_.groupResolverIs(resolver);
  }
  Asic::MajorVersion transientRemoveAllVersion() const noexcept {
    return core_.transientRemoveAllVersion();
  }
  void transientRemoveAllVersionIs(Asic::MajorVersion version) {
    core_.transientRemoveAllVersionIs(version);
  }

  WrapperPtr transientAddEntry(const Key& key) const {
    const Asic::InFlightKey* const found = core_.inFlight(&key);
    return found != nullptr ? wrapperOf(found->add) : nullptr;
  }
  void transientAddEntryIs(const WrapperPtr& wrapper) { core_.transientAddEntryIs(wrapper); }
  WrapperPtr transientAddEntryDel(const Key& key) {
    return wrapperOf(core_.transientAddEntryDel(&key));
  }
  void transientAddEntryDelAll() { core_.transientAddEntryDelAll(); }
  bool transientAddEntryHas(const Key& key) const { return transientAddEntry(key) != nullptr; }
  std::uint32_t transientAddEntryCount() const noexcept { return core_.inFlight().adds(); }
  WrapperIterator transientAddEntryIterator() const { return {core_.inFlight(), View::adds}; }
  WrapperIterator transientAddEntryIteratorFromKey(const Key& key) const {
    return {core_.inFlight(), View::adds, core_.inFlight(&key)};
  }

  WrapperPtr transientRemoveEntry(const Key& key) const {
    const Asic::InFlightKey* const found = core_.inFlight(&key);
    return found != nullptr ? wrapperOf(found->remove) : nullptr;
  }
  void transientRemoveEntryIs(const WrapperPtr& wrapper) { core_.transientRemoveEntryIs(wrapper); }
  WrapperPtr transientRemoveEntryDel(const Key& key) {
    return wrapperOf(core_.transientRemoveEntryDel(&key));
  }
  void transientRemoveEntryDelAll() { core_.transientRemoveEntryDelAll(); }
  bool transientRemoveEntryHas(const Key& key) const {
    return transientRemoveEntry(key) != nullptr;
  }
  std::uint32_t transientRemoveEntryCount() const noexcept { return core_.inFlight().removes(); }
  WrapperIterator transientRemoveEntryIterator() const { return {core_.inFlight(), View::removes}; }
  WrapperIterator transientRemoveEntryIteratorFromKey(const Key& key) const {
    return {core_.inFlight(), View::removes, core_.inFlight(&key)};
  }

  /// Version of the newest operation in flight on a key; an invalid version, or nullopt, if there
  /// is none.
  Asic::EntryVersion transientVersionForKey(const Key& key) const {
    return transientVersionForKeyGet(key).value_or(Asic::EntryVersion());
  }
  std::optional<Asic::EntryVersion> transientVersionForKeyGet(const Key& key) const {
    const Asic::InFlightKey* const found = core_.inFlight(&key);
    if (found == nullptr || !found->counted) return {};
    return found->version;
  }
  void transientVersionForKeyIs(const Key& key, const Asic::EntryVersion& version) {
    core_.transientVersionForKeyIs(&key, version);
  }
  Asic::EntryVersion transientVersionForKeyDel(const Key& key) {
    return core_.transientVersionForKeyDel(&key);
  }
  void transientVersionForKeyDelAll() { core_.transientVersionForKeyDelAll(); }
  bool transientVersionForKeyHas(const Key& key) const {
    return transientVersionForKeyGet(key).has_value();
  }
  std::uint32_t transientVersionForKeyCount() const noexcept { return core_.inFlight().versions(); }
  VersionIterator transientVersionForKeyIterator() const {
    return {core_.inFlight(), View::versions};
  }
  VersionIterator transientVersionForKeyIteratorFromKey(const Key& key) const {
    return {core_.inFlight(), View::versions, core_.inFlight(&key)};
  }

  void entryHandleInLogEnq(const Fenrik::Ptr<EntryHandle>& handle) {
    core_.entryHandleInLogEnq(handle);
  }
  Fenrik::Ptr<EntryHandle> entryHandleInLogDeq() { return typed(core_.entryHandleInLogDeq()); }
  Fenrik::Ptr<EntryHandle> entryHandleInLogFront() const { return queued(handles().front()); }
  Fenrik::Ptr<EntryHandle> entryHandleInLogBack() const { return queued(handles().back()); }
  Fenrik::Ptr<EntryHandle> entryHandleInLog(std::uint32_t index) const {
    return queued(handles().find(index));
  }
  bool entryHandleInLogHas(std::uint32_t index) const { return handles().has(index); }
  std::uint32_t entryHandleInLogCount() const { return handles().size(); }
  Fenrik::RQueueBaseConstIter<Asic::TableCore::HandlePtr> entryHandleInLogIter() const {
    return Fenrik::RQueueBaseConstIter<Asic::TableCore::HandlePtr>(handles());
  }
  void entryHandleInLogDelAll() { core_.entryHandleInLogDelAll(); }

 private:
  using Self = typename Family::SwTable;
  using View = Asic::InFlight::View;

  const Self* self() const noexcept { return static_cast<const Self*>(this); }
  /// Resources do not change during a call. A family without resources has nothing to put off.
  template <class Call>
  [[gnu::always_inline]] void oneCall(const Call& call) {
    if constexpr (std::is_void_v<typename Family::ResourceLinkage>) {
      call();
    } else {
      Asic::OutermostCall::Scope scope(this->outermostCall());
      call();
      scope.end();
    }
  }
  const Asic::TableCore::HandleQueue& handles() const noexcept { return core_.entryHandleInLog(); }

  static Fenrik::Ptr<EntryHandle> typed(const Asic::TableCore::HandlePtr& handle) {
    return Fenrik::Ptr<EntryHandle>(static_cast<EntryHandle*>(handle.get()));
  }
  static Fenrik::Ptr<EntryHandle> queued(const Asic::TableCore::HandlePtr* handle) {
    return handle != nullptr ? typed(*handle) : nullptr;
  }
  static WrapperPtr wrapperOf(const Asic::TableCore::WrapperPtr& wrapper) {
    return WrapperPtr(static_cast<Wrapper*>(wrapper.get()));
  }

  Asic::TableCore core_;
};

}  // namespace QuarnBastil
