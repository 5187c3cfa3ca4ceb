#pragma once

#include <cstddef>

#include "Fenrik/NodeClass.h"
#include "OrderedTable/OrderedSwTable.h"
#include "OrderedTable/TableDescriptor.h"

namespace Asic {

struct InFlightKey;

/// The in-flight form of one client operation: its entry, which the family's class holds, and its
/// handle. It lives in the table's transient state and in the queue until its commit.
///
/// Threads: the table thread.
class QUARNBASTIL_EXPORT EntryWrapperBase : public Fenrik::Node {
 public:
  ~EntryWrapperBase() override;

  const Fenrik::Ptr<OrderedSwTable::EntryHandle>& entryHandle() const noexcept {
    return entryHandle_.ptr();
  }

  /// The client's entry, which begins with its key.
  const std::byte* entryBytes() const noexcept { return entryBytes_; }
  std::byte* entryBytes() noexcept { return entryBytes_; }

 protected:
  /// `entryBytes` is where the derived object keeps its entry.
  EntryWrapperBase(std::byte* entryBytes,
                   const Fenrik::NonNullPtr<OrderedSwTable::EntryHandle>& entryHandle)
      : entryBytes_(entryBytes), entryHandle_(entryHandle) {}

  /// The commit of a write or of a single remove goes ahead: tells the helper.
  void finalizeOnSuccess(const TableDescriptor& descriptor, OrderedSwTable& table, bool isDeleted);
  /// Takes what comes of resources into the entry.
  void resolvedFieldsSet(const TableDescriptor& descriptor);
  /// A resource failed: asks the helper whether the operation goes on all the same.
  bool finalizeOnFailure(const TableDescriptor& descriptor, OrderedSwTable& table, bool isDeleted);

 private:
  friend class InFlight;
  friend class TableCore;

  std::byte* entryBytes_;
  Fenrik::NonNullPtr<OrderedSwTable::EntryHandle> entryHandle_;
  /// Where the wrapper stands in the transient state; null once it does not any more.
  InFlightKey* inFlight_ = nullptr;
};

}  // namespace Asic
