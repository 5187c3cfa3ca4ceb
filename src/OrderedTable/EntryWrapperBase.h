#pragma once

#include <cstddef>

#include "Fenrik/NodeClass.h"
#include "OrderedTable/OrderedSwTable.h"
#include "OrderedTable/TableDescriptor.h"

namespace Asic {

struct InFlightKey;

/// The in-flight form of one client operation: its handle, and its entry, which the family's class
/// stores. It is held by the table's transient state and by the queue until it is committed.
///
/// Threads: the table thread.
class QUARNBASTIL_EXPORT EntryWrapperBase : public Fenrik::Node {
 public:
  /// The attributes of the wrapper's resources.
  struct ResourceRows {
    static constexpr std::uint16_t kCount = 0;
    static void attributeFact();
  };

  ~EntryWrapperBase() override;

  const Fenrik::Ptr<OrderedSwTable::EntryHandle>& entryHandle() const noexcept {
    return entryHandle_.ptr();
  }

  /// The client's entry, which begins with its key.
  const std::byte* entryBytes() const noexcept { return entryBytes_; }
  std::byte* entryBytes() noexcept { return entryBytes_; }

  /// Notifies the helper that a write or single removal is about to be committed.
  void finalizeOnSuccess(const TableDescriptor& descriptor, OrderedSwTable& table, bool isDeleted);
  /// Copies resolved resource values into the entry.
  void resolvedFieldsSet(const TableDescriptor& descriptor);
  /// A resource failed: asks the helper whether to commit the operation nevertheless.
  bool finalizeOnFailure(const TableDescriptor& descriptor, OrderedSwTable& table, bool isDeleted);

 protected:
  /// `entryBytes` is the address of the derived object's entry.
  EntryWrapperBase(std::byte* entryBytes,
                   const Fenrik::NonNullPtr<OrderedSwTable::EntryHandle>& entryHandle)
      : entryBytes_(entryBytes), entryHandle_(entryHandle) {}

 private:
  friend class InFlight;
  friend class TableCore;

  std::byte* entryBytes_;
  Fenrik::NonNullPtr<OrderedSwTable::EntryHandle> entryHandle_;
  /// The wrapper's key in the transient state; null once the wrapper has been removed from it.
  InFlightKey* inFlight_ = nullptr;
};

}  // namespace Asic
