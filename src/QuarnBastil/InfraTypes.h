#pragma once

#include "Fenrik/NodeClass.h"
#include "Kiv/Trace.h"
#include "OrderedTable/OrderedSwTable.h"
#include "OrderedTable/ResolverEntry.h"
#include "QuarnBastil/FamilyTraits.h"

namespace QuarnBastil {

/// The in-flight form of one client operation: its entry and its handle. It lives in a transient
/// collection of the table and in the queue until its commit.
///
/// Threads: the table thread.
template <class Family>
class QUARNBASTIL_EXPORT EntryWrapper
    : public Fenrik::NodeClass<typename Family::EntryWrapper, Fenrik::Node,
                               Family::kWrapperStorage> {
 public:
  using Key = typename Family::Key;
  using Entry = typename Family::Entry;
  using SwTable = typename Family::SwTable;
  using KivModule = typename Family::InfraTypesModule;

  EntryWrapper(const Entry& entry,
               const Fenrik::NonNullPtr<Asic::OrderedSwTable::EntryHandle>& entryHandle)
      : entry_(entry), entryHandle_(entryHandle) {}

  /// The whole entry; a helper may change it until the commit has logged it.
  const Entry& entry() const noexcept { return entry_; }
  Entry& mutableEntry() noexcept { return entry_; }
  const Fenrik::Ptr<Asic::OrderedSwTable::EntryHandle>& entryHandle() const noexcept {
    return entryHandle_.ptr();
  }

  const Key& key() const noexcept { return entry_.key; }
  void keyIs(const Key& key) noexcept { entry_.keyIs(key); }
  /// What goes to the log.
  const typename Family::LogEntry& logEntry() const noexcept { return entry_.logEntry(); }
  const typename Family::ResourceKeys& rsrcKeys() const noexcept { return entry_.rsrcKeys(); }

  /// Takes what comes of resources into the entry; a family without resources has nothing to take.
  void setResolvedFields() { Family::ResourceHooks::setResolvedFields(*this); }
  void retrieveClientData() {}

  /// The commit of a write or of a single remove goes ahead: tells the helper.
  void finalizeOnSuccess(const Fenrik::Ptr<SwTable>& swTable, bool isDeleted) {
    KIV_TRACE(FamilyTraces<Family>::swTable(), 8, kName, " key: {} isDeleted: {}", key(),
              isDeleted);
    swTable->swTableHelper()->finalizeOnSuccess(self(), isDeleted, swTable);
  }

  /// A resource failed: asks the helper whether the operation goes on all the same.
  bool finalizeOnFailure(const Fenrik::Ptr<SwTable>& swTable, bool isDeleted) {
    KIV_TRACE(FamilyTraces<Family>::swTable(), 8, kName, " key: {} isDeleted: {}", key(),
              isDeleted);
    const bool retVal = swTable->swTableHelper()->finalizeOnFailure(self(), isDeleted, swTable);
    KIV_TRACE(FamilyTraces<Family>::swTable(), 3, kName, " retVal: {}", retVal);
    return retVal;
  }

 private:
  using Self = typename Family::EntryWrapper;
  static constexpr const char* kName = className<Self>();

  Fenrik::Ptr<Self> self() { return Fenrik::Ptr<Self>(static_cast<Self*>(this)); }

  Entry entry_;
  Fenrik::NonNullPtr<Asic::OrderedSwTable::EntryHandle> entryHandle_;
};

/// The queue item that binds a wrapper to its table.
template <class Family>
class QUARNBASTIL_EXPORT ResolverEntry
    : public Fenrik::NodeClass<typename Family::ResolverEntry, Asic::ResolverEntry,
                               Fenrik::Storage::slabPerWrite> {
 public:
  using SwTable = typename Family::SwTable;
  using Wrapper = typename Family::EntryWrapper;
  using KivModule = typename Family::InfraTypesModule;
  using Base = Fenrik::NodeClass<typename Family::ResolverEntry, Asic::ResolverEntry,
                                 Fenrik::Storage::slabPerWrite>;

  ResolverEntry(const Fenrik::Ptr<const Asic::DependencyEntryHandle>& dependantEntryHandle,
                Asic::EntryFlags flags, SwTable* swTable, const Fenrik::Ptr<Wrapper>& swTableEntry)
      : Base(dependantEntryHandle, flags), swTable_(swTable), swTableEntry_(swTableEntry) {}

  /// Null once the table has gone.
  SwTable* swTable() const noexcept { return swTable_; }
  const Fenrik::Ptr<Wrapper>& swTableEntry() const noexcept { return swTableEntry_; }

  bool isResolved() override {
    const Fenrik::Ptr<Self> self(static_cast<Self*>(this));
    return swTable_ == nullptr || swTable_->isResolverEntryResolved(self);
  }
  void commitEntry(const Fenrik::Ptr<Asic::ResolverEntry>& resolverEntry) override {
    // A handler may drop the last reference to the table.
    if (const Fenrik::Ptr<SwTable> table(swTable_); table != nullptr) {
      table->commitEntry(resolverEntry);
    }
  }
  void tableGone(const Asic::OrderedSwTable& table) override {
    if (swTable_ != &table) return;
    swTable_ = nullptr;
    swTableEntry_->entryHandle()->entryStateIs(Asic::EntryState::entryRejected);
  }
  void prefetch(bool near) const noexcept override {
    if (swTable_ == nullptr) return;
    swTable_->entryLog()->prefetch(swTableEntry_->key(), swTable_->unitId(), near);
  }
  Asic::ResolverEntry::Waiting waiting() const override {
    return swTable_ != nullptr ? swTable_->waitingOf(*this) : Asic::ResolverEntry::Waiting{};
  }

 private:
  using Self = typename Family::ResolverEntry;

  SwTable* swTable_;
  Fenrik::Ptr<Wrapper> swTableEntry_;
};

}  // namespace QuarnBastil
