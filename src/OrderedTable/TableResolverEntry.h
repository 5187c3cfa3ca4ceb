#pragma once

#include "OrderedTable/EntryWrapperBase.h"
#include "OrderedTable/ResolverEntry.h"

namespace Asic {

/// A queued operation of a software table. Immutable, except that the table pointer is cleared when
/// the table is destroyed.
///
/// Threads: the table thread.
class QUARNBASTIL_EXPORT TableResolverEntry : public ResolverEntry {
 public:
  TableResolverEntry(const Fenrik::Ptr<const DependencyEntryHandle>& dependantEntryHandle,
                     EntryFlags flags, OrderedSwTable* swTable,
                     const Fenrik::Ptr<EntryWrapperBase>& wrapper)
      : ResolverEntry(dependantEntryHandle, flags), table_(swTable), wrapper_(wrapper) {}
  ~TableResolverEntry() override;

  /// Null once the table has been destroyed.
  OrderedSwTable* table() const noexcept { return table_; }
  const Fenrik::Ptr<EntryWrapperBase>& wrapper() const noexcept { return wrapper_; }

  bool isResolved() override;
  Awaited awaited() const override;
  void commitEntry(const Fenrik::Ptr<ResolverEntry>& resolverEntry) override;
  void tableGone(const OrderedSwTable& table) override;
  void prefetch(bool near, unsigned ahead) const noexcept override;
  Waiting waiting() const override;

 private:
  OrderedSwTable* table_;
  Fenrik::Ptr<EntryWrapperBase> wrapper_;
};

}  // namespace Asic
