#pragma once

#include <exception>
#include <optional>
#include <vector>

#include "Fenrik/RQueue.h"
#include "OrderedTable/EntryLogCore.h"
#include "OrderedTable/GroupResolver.h"
#include "OrderedTable/InFlight.h"
#include "OrderedTable/KeyImage.h"
#include "OrderedTable/OrderedSwTable.h"
#include "OrderedTable/SwTableIteratorState.h"
#include "OrderedTable/TableResolverEntry.h"

namespace Asic {

/// The logic of a software table, compiled once for all families: queueing, resolution, commit,
/// acknowledgement, clearing, reads and iteration. Part of the table object; owns the operations in
/// flight. Keys and entries of the family's types are passed by address.
///
/// Threads: the table thread. No client call blocks, and none fails because of the table's state.
///
/// I1. When a call returns a handle, the handle is `entryPending`.
/// I2. Reads show an operation immediately. Operations are committed strictly in the order of their
///     calls.
/// I3. Every accepted operation ends: whatever a hook or handler throws, the handle leaves
///     `entryPending`, the handler is called once (except for a successful remove-all), and the
///     exception reaches the caller of `pump`.
class QUARNBASTIL_EXPORT TableCore {
 public:
  using Word = FlatShape::Word;
  using Handle = OrderedSwTable::EntryHandle;
  using HandlePtr = Fenrik::Ptr<Handle>;
  using WrapperPtr = Fenrik::Ptr<EntryWrapperBase>;
  using DependencyPtr = Fenrik::Ptr<const DependencyEntryHandle>;
  using NeededPtr = Fenrik::Ptr<const NeededEntry>;
  struct QUARNBASTIL_EXPORT QE_EntryHandleInLog {};
  using HandleQueue = Fenrik::RQueue<HandlePtr, false, QE_EntryHandleInLog>;

  /// Attribute numbers of a table, relative to the start of its block.
  struct Field {
    static constexpr std::uint16_t kSwTableHelper = 2;
    static constexpr std::uint16_t kTransientAddEntry = 3;
    static constexpr std::uint16_t kTransientRemoveEntry = 4;
    static constexpr std::uint16_t kTransientVersionForKey = 5;
    static constexpr std::uint16_t kTransientRemoveAllVersion = 6;
    static constexpr std::uint16_t kEntryLog = 19;
    static constexpr std::uint16_t kGroupResolver = 20;
    static constexpr std::uint16_t kEntryHandleInLog = 22;
  };

  TableCore(OrderedSwTable& table, const TableDescriptor& descriptor,
            Fenrik::Ptr<EntryLogCore> entryLog, Fenrik::Ptr<GroupResolver> groupResolver);
  /// Abandons the operations that are still queued. Handlers of operations waiting for the hardware
  /// are not called.
  ~TableCore();
  TableCore(const TableCore&) = delete;
  TableCore& operator=(const TableCore&) = delete;

  const TableDescriptor& descriptor() const noexcept { return descriptor_; }
  OrderedSwTable& table() const noexcept { return table_; }
  EntryLogCore& log() const noexcept { return *entryLog_; }

  void handleInitialized();

  // Client operations. The operation waits until `dep`, unless null, leaves `entryPending`.
  // `handler`, unless empty, is called once when the outcome is known.
  HandlePtr entryWrite(const void* key, const void* entry, const DependencyPtr& dep);
  HandlePtr entryWriteWithResponseHandler(const void* key, const void* entry,
                                          const DependencyPtr& dep, const ResponseHandler& handler);
  HandlePtr entryWriteGeneric(const void* key, const void* entry, const DependencyPtr& dep,
                              const ResponseHandler& handler);
  HandlePtr entryRemove(const void* key, const DependencyPtr& dep);
  HandlePtr entryRemoveWithResponseHandler(const void* key, const DependencyPtr& dep,
                                           const ResponseHandler& handler);
  HandlePtr entryRemoveGeneric(const void* key, const DependencyPtr& dep,
                               const ResponseHandler& handler);
  void entryRemoveAll(const DependencyPtr& dep);
  void entryRemoveAllWithResponseHandler(const DependencyPtr& dep, const ResponseHandler& handler);
  void entryRemoveAllGeneric(const DependencyPtr& dep, const ResponseHandler& handler);

  // Called by the resolver.
  bool isResolverEntryResolved(const TableResolverEntry& item);
  void commitEntry(const Fenrik::Ptr<ResolverEntry>& item);
  /// Logs a configured entry again after its resolved fields have changed. Returns null if the key
  /// has no configured entry. Throws `Drift::CollectionFullException`, `Drift::NoSpaceException`.
  HandlePtr updateEntry(const void* key);
  /// Clears the unit through the log. Does nothing if nothing is configured. Throws as
  /// `updateEntry` does; nothing has changed then.
  void clearTable(bool releaseResources);
  /// As `clearTable`, with a needed set. Returns whether anything was configured. If so, the handle
  /// receives the version; if there is no handle, the first cleared entry may create one.
  bool delAllEntries(bool releaseResources, const NeededPtr& neededEntry, HandlePtr& entryHandle);
  Fenrik::Ptr<NeededEntry> getNeededEntrySet(const EntryWrapperBase& wrapper) const;
  void setRsrcPtrs(EntryWrapperBase& wrapper, bool refresh);
  /// Rebuilds the wrapper of a configured entry. Creates a handle if `handle` is null.
  WrapperPtr entryWrapperFromConfig(const void* key, bool refreshRsrcPtrs, HandlePtr& handle);
  void restoreEntries();
  /// Prefetches what a change of the key, `ahead` changes from now, will touch.
  void prefetch(const void* key, bool near, unsigned ahead) const noexcept;
  ResolverEntry::Awaited awaitedBy(const TableResolverEntry& item) const;
  ResolverEntry::Waiting waitingOf(const TableResolverEntry& item) const;
  /// The table is being destroyed: ends a queued operation in `entryRejected`.
  void giveUp(const TableResolverEntry& item);

  // Hardware side.
  void tableStatusVersion(LogVersion version);
  /// Releases this table's handles for a report; the part of a report that no other unit shares.
  void handlesRelease(LogVersion version);
  /// Whether the resource hooks are to be called after each report.
  void reportWantedIs(bool wanted);
  bool awaitsReport() const noexcept { return reportWanted_ || !entryHandleInLog_.empty(); }
  bool hasPendingHwWrites() const;
  /// As above, without tracing and without the log, which all units share.
  bool hasInFlight() const noexcept {
    return inFlight_.adds() != 0 || inFlight_.removes() != 0 || transientRemoveAllVersion_.valid();
  }
  /// Whether the answers of `hasPendingHwWrites` and `tableStatusVersion` are traced.
  bool traced() const noexcept;

  // Reads. Each takes a default entry and fills it in, or leaves it unchanged if there is none.
  bool entryHas(const void* key) const;
  void entryRead(const void* key, void* entry) const;
  void entryReadGeneric(const void* key, void* entry) const;
  void entryFromConfig(const void* key, void* entry) const;
  std::uint32_t entrys() const;

  // Iteration.
  void initIterState(SwTableIteratorStateBase& state) const;
  void initIterStateFromKey(SwTableIteratorStateBase& state, const void* key) const;
  /// Advances by one: fills in the next entry; leaves `entry` unchanged at the end.
  static void maybeUpdateCurrentEntry(SwTableIteratorStateBase& state, void* entry);

  // Attributes.
  const Fenrik::Ptr<Fenrik::Node>& swTableHelper() const noexcept { return swTableHelper_; }
  void swTableHelperIs(Fenrik::Ptr<Fenrik::Node> helper);
  const Fenrik::Ptr<EntryLogCore>& entryLog() const noexcept { return entryLog_; }
  void entryLogIs(Fenrik::Ptr<EntryLogCore> log);
  const Fenrik::Ptr<GroupResolver>& groupResolver() const noexcept { return groupResolver_; }
  void groupResolverIs(Fenrik::Ptr<GroupResolver> resolver);
  MajorVersion transientRemoveAllVersion() const noexcept { return transientRemoveAllVersion_; }
  void transientRemoveAllVersionIs(MajorVersion version);

  const InFlight& inFlight() const noexcept { return inFlight_; }
  const InFlightKey* inFlight(const void* key) const noexcept {
    return inFlight_.find(KeyImage(descriptor_.records.key, key).words());
  }
  void transientAddEntryIs(WrapperPtr wrapper);
  WrapperPtr transientAddEntryDel(const void* key);
  void transientAddEntryDelAll();
  void transientRemoveEntryIs(WrapperPtr wrapper);
  WrapperPtr transientRemoveEntryDel(const void* key);
  void transientRemoveEntryDelAll();
  void transientVersionForKeyIs(const void* key, const EntryVersion& version);
  EntryVersion transientVersionForKeyDel(const void* key);
  void transientVersionForKeyDelAll();

  const HandleQueue& entryHandleInLog() const noexcept { return entryHandleInLog_; }
  void entryHandleInLogEnq(const HandlePtr& handle);
  HandlePtr entryHandleInLogDeq();
  void entryHandleInLogDelAll();

 private:
  friend class OrderedSwTableSet;

  /// The operation being committed.
  struct Operation {
    EntryWrapperBase& wrapper;
    const DependencyPtr& dependency;
    const HandlePtr& handle;
    EntryVersion version;
    EntryFlags flags;
    /// The outcome is final: the operation can no longer be refused.
    bool settled = false;
    /// Exception of a handler; rethrown to the pump when the commit is complete.
    std::exception_ptr thrown{};
  };

  const Kiv::TraceHandle& trace() const noexcept { return descriptor_.traces.writes; }
  const Kiv::TraceHandle& readTrace() const noexcept { return descriptor_.traces.reads; }
  const Kiv::TraceHandle& ownTrace() const noexcept { return descriptor_.traces.table; }
  const char* name() const noexcept { return descriptor_.names.table; }
  Fenrik::FieldId field(std::uint16_t offset) const noexcept {
    return Fenrik::FieldId(static_cast<std::uint16_t>(descriptor_.tableFieldBase + offset));
  }
  KeyImage imageOf(const void* key) const noexcept { return {descriptor_.records.key, key}; }
  KeyText textOf(const void* key) const noexcept { return {descriptor_, key}; }

  // Queueing.
  InFlightKey& nextVersion(const char* function, const void* key, EntryVersion& version);
  HandlePtr makeHandle(const EntryVersion& version, const void* key,
                       const ResponseHandler& handler);
  void enqueue(const Fenrik::Ptr<ResolverEntry>& item);
  void updateGroup();

  // The transient state. Each change is announced, and counted for `hasPendingHwWrites`.
  enum class Side : std::uint8_t { add, remove };
  WrapperPtr sideIs(Side side, InFlightKey& key, WrapperPtr wrapper);
  WrapperPtr sideDel(Side side, InFlightKey* key);
  void sideDelAll(Side side);
  void sideIs(Side side, WrapperPtr wrapper);
  void versionDel(InFlightKey& key);
  void versionIs(InFlightKey& key, const EntryVersion& version);
  bool watched() const noexcept { return table_.publisher_.hasSubscriber(); }
  template <class Value>
  void publishKeyed(std::uint16_t number, InFlightKey& key, const Value& value, bool present);
  void noteInFlight();

  // Commit.
  void commit(Operation& operation);
  void commitWrite(Operation& operation);
  void commitRemove(Operation& operation);
  void commitTableDelete(Operation& operation);
  bool resourceResolved(Operation& operation);
  void removeFromTransient(Operation& operation, Side side);
  void failForDependency(Operation& operation);
  void giveUpForResource(Operation& operation);
  void reject(Operation& operation, const Fenrik::String& reason);
  void removeAllDone();
  void inLog(const HandlePtr& handle);
  void finish(Operation& operation);
  static void callHandler(Operation& operation);
  std::optional<Fenrik::String> refusalOf(const Operation& operation) const;
  NeededPtr neededOf(const Operation& operation, Fenrik::Ptr<NeededEntry> own) const;
  Fenrik::Ptr<NeededEntry> ownNeeded(const EntryWrapperBase& wrapper) const;
  const std::byte* formerEntry(const void* key);
  WrapperPtr wrapperOf(const ConfigRecord& record, bool refreshRsrcPtrs, HandlePtr& handle);
  WrapperPtr keyWrapper(const void* key, bool refreshRsrcPtrs, HandlePtr& handle);
  bool wantsClearedEntries(const HandlePtr& handle) const;

  // Iteration.
  const InFlightKey* firstAdd(const SwTableIteratorStateBase& state, InFlight::Walk& walk) const;
  bool stepInAddColl(SwTableIteratorStateBase& state, void* entry) const;
  bool stepInTblCfg(SwTableIteratorStateBase& state, void* entry) const;
  bool hidden(const ConfigRecord& record) const;

  void waitForReports();
  Fenrik::String waitingReason(const TableResolverEntry& item) const;

  OrderedSwTable& table_;
  const TableDescriptor& descriptor_;
  Fenrik::Ptr<Fenrik::Node> swTableHelper_;
  InFlight inFlight_;
  MajorVersion transientRemoveAllVersion_;
  Fenrik::Ptr<EntryLogCore> entryLog_;
  Fenrik::Ptr<GroupResolver> groupResolver_;
  HandleQueue entryHandleInLog_;
  /// Shared set of operations that require nothing of other tables.
  NeededPtr nothingNeeded_;
  /// Last state reported to the table's set.
  bool countedInFlight_ = false;
  bool waitsForReports_ = false;
  bool reportWanted_ = false;
  /// Buffers of the configured entry before a commit, and of the log entry before an update.
  std::vector<std::byte> former_;
  std::vector<Word> oldLogEntry_;
};

}  // namespace Asic
