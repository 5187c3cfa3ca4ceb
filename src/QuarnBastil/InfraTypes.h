#pragma once

#include "OrderedTable/EntryWrapperBase.h"
#include "OrderedTable/TableResolverEntry.h"
#include "QuarnBastil/FamilyTraits.h"

namespace QuarnBastil {

/// The in-flight form of one client operation: its entry and its handle. It is held by the table's
/// transient state and by the queue until it is committed.
///
/// Threads: the table thread.
template <class Family>
class QUARNBASTIL_EXPORT EntryWrapper
    : public Fenrik::NodeClass<typename Family::EntryWrapper, typename Family::EntryWrapperBase,
                               Fenrik::Storage::slabPerWrite> {
 public:
  using Key = typename Family::Key;
  using Entry = typename Family::Entry;
  using SwTable = typename Family::SwTable;
  using KivModule = typename Family::InfraTypesModule;
  using Base = Fenrik::NodeClass<typename Family::EntryWrapper, typename Family::EntryWrapperBase,
                                 Fenrik::Storage::slabPerWrite>;
  static constexpr std::uint16_t kFieldBase = 128;
  using KivRows = Asic::WrapperAttributes<typename Family::EntryWrapperBase::ResourceRows>;
  using KivRoles = FamilyRoles<Family>;

  EntryWrapper(const Entry& entry,
               const Fenrik::NonNullPtr<Asic::OrderedSwTable::EntryHandle>& entryHandle)
      : Base(reinterpret_cast<std::byte*>(&entry_), entryHandle), entry_(entry) {}

  /// The complete entry. A helper may change it, except for the key and the resource keys, until
  /// the commit has logged it.
  const Entry& entry() const noexcept { return entry_; }
  Entry& mutableEntry() noexcept { return entry_; }

  const Key& key() const noexcept { return entry_.key; }
  void keyIs(const Key& key) noexcept { entry_.keyIs(key); }
  /// The part of the entry that is logged.
  const typename Family::LogEntry& logEntry() const noexcept { return entry_.logEntry(); }
  const typename Family::ResourceKeys& rsrcKeys() const noexcept { return entry_.rsrcKeys(); }

  /// Copies resolved resource values into the entry. Does nothing in a family without resources.
  void setResolvedFields() { this->resolvedFieldsSet(descriptorOf<Family>()); }
  void retrieveClientData() {}

  /// Notifies the helper that a write or single removal is about to be committed.
  void finalizeOnSuccess(const Fenrik::Ptr<SwTable>& swTable, bool isDeleted) {
    Base::finalizeOnSuccess(descriptorOf<Family>(), *swTable, isDeleted);
  }
  /// A resource failed: asks the helper whether to commit the operation nevertheless.
  bool finalizeOnFailure(const Fenrik::Ptr<SwTable>& swTable, bool isDeleted) {
    return Base::finalizeOnFailure(descriptorOf<Family>(), *swTable, isDeleted);
  }

 private:
  Entry entry_;
};

/// A queued operation: a wrapper and its table.
template <class Family>
class QUARNBASTIL_EXPORT ResolverEntry
    : public Fenrik::NodeClass<typename Family::ResolverEntry, Asic::TableResolverEntry,
                               Fenrik::Storage::slabPerWrite> {
 public:
  using SwTable = typename Family::SwTable;
  using Wrapper = typename Family::EntryWrapper;
  using KivModule = typename Family::InfraTypesModule;
  using Base = Fenrik::NodeClass<typename Family::ResolverEntry, Asic::TableResolverEntry,
                                 Fenrik::Storage::slabPerWrite>;
  static constexpr std::uint16_t kFieldBase = 256;
  using KivRows = Asic::ResolverEntryAttributes;
  using KivRoles = FamilyRoles<Family>;

  ResolverEntry(const Fenrik::Ptr<const Asic::DependencyEntryHandle>& dependantEntryHandle,
                Asic::EntryFlags flags, SwTable* swTable, const Fenrik::Ptr<Wrapper>& swTableEntry)
      : Base(dependantEntryHandle, flags, swTable, swTableEntry) {}

  /// Null once the table has been destroyed.
  SwTable* swTable() const noexcept { return static_cast<SwTable*>(this->table()); }
  Fenrik::Ptr<Wrapper> swTableEntry() const noexcept {
    return Fenrik::Ptr<Wrapper>(static_cast<Wrapper*>(this->wrapper().get()));
  }
};

}  // namespace QuarnBastil
