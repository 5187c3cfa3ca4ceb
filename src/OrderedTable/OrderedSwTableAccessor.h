#pragma once

#include <type_traits>

#include "Fenrik/Assert.h"
#include "OrderedTable/TableCore.h"

namespace Asic {

/// The generic operations of a software table in the family's own types. A value that holds only
/// the table's pointer; `TableCore` implements the operations. If `T` is const, only reads are
/// available.
template <class T>
class OrderedSwTableAccessor {
 public:
  using Table = std::remove_const_t<T>;
  using Types = typename Table::Types;
  using Key = typename Types::Key;
  using Entry = typename Types::Entry;
  using Handle = typename Table::EntryHandle;
  using HandlePtr = Fenrik::Ptr<Handle>;
  using Wrapper = typename Types::EntryWrapper;
  using Linkage = typename Types::ResourceLinkage;
  using DependencyPtr = Fenrik::Ptr<const DependencyEntryHandle>;
  using NeededPtr = Fenrik::Ptr<const NeededEntry>;

  explicit OrderedSwTableAccessor(T* table) noexcept : table_(table) {}

  HandlePtr entryWriteGeneric(const Key& key, const Entry& entry, const DependencyPtr& dep,
                              const ResponseHandler& handler) requires std::is_void_v<Linkage> {
    return typed(core().entryWriteGeneric(&key, &entry, dep, handler));
  }
  /// In a family with resources. REQUIRES: `linkage` is that of the table.
  template <class OwnLinkage>
  HandlePtr entryWriteGeneric(
      const Key& key, const Entry& entry, const DependencyPtr& dep, const ResponseHandler& handler,
      const Fenrik::Ptr<OwnLinkage>& linkage) requires std::is_same_v<OwnLinkage, Linkage> {
    FENRIK_ASSERT(linkage != nullptr && linkage->swTable() == table_);
    return typed(core().entryWriteGeneric(&key, &entry, dep, handler));
  }
  HandlePtr entryRemoveGeneric(const Key& key, const DependencyPtr& dep,
                               const ResponseHandler& handler) {
    return typed(core().entryRemoveGeneric(&key, dep, handler));
  }
  void entryRemoveAllGeneric(const DependencyPtr& dep, const ResponseHandler& handler) {
    core().entryRemoveAllGeneric(dep, handler);
  }
  bool isResolverEntryResolved(const Fenrik::Ptr<typename Types::ResolverEntry>& item) {
    return core().isResolverEntryResolved(*item);
  }
  void commitEntry(const Fenrik::Ptr<ResolverEntry>& item) { table_->commitEntry(item); }
  HandlePtr updateEntry(const Key& key) { return typed(core().updateEntry(&key)); }
  /// Throws what the log's table delete throws; nothing has changed then.
  void delAllEntries(bool releaseResources, const NeededPtr& neededEntry, HandlePtr& entryHandle) {
    TableCore::HandlePtr handle = entryHandle;
    core().delAllEntries(releaseResources, neededEntry, handle);
    entryHandle = typed(handle);
  }
  void clearTable(bool releaseResources) { core().clearTable(releaseResources); }
  void tableStatusVersion(LogVersion version) { core().tableStatusVersion(version); }
  bool hasPendingHwWrites() const { return core().hasPendingHwWrites(); }

  bool entryHas(const Key& key) const { return core().entryHas(&key); }
  Entry entryReadGeneric(const Key& key) const {
    Entry entry{Key()};
    core().entryReadGeneric(&key, &entry);
    return entry;
  }
  Entry entryFromConfig(const Key& key) const {
    Entry entry{Key()};
    core().entryFromConfig(&key, &entry);
    return entry;
  }
  std::uint32_t entrys() const { return core().entrys(); }
  /// Rebuilds the wrapper of a configured entry. Creates a handle if `handle` is null.
  Fenrik::Ptr<Wrapper> entryWrapperFromConfig(const Key& key, bool refreshRsrcPtrs,
                                              HandlePtr& handle) {
    TableCore::HandlePtr plain = handle;
    auto wrapper = core().entryWrapperFromConfig(&key, refreshRsrcPtrs, plain);
    handle = typed(plain);
    return Fenrik::Ptr<Wrapper>(static_cast<Wrapper*>(wrapper.get()));
  }

 private:
  TableCore& core() const { return *table_->core(); }
  static HandlePtr typed(const TableCore::HandlePtr& handle) {
    return HandlePtr(static_cast<Handle*>(handle.get()));
  }

  T* table_;
};

}  // namespace Asic
