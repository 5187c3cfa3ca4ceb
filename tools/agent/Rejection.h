#pragma once

#include <fmt/format.h>

#include <stdexcept>

#include "OrderedTable/EntryHandle.h"

namespace Agent {

/// A row could not be stored. No row that was queued after it has been stored.
class RowRejected final : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// A response handler that throws `RowRejected` if the operation fails. REQUIRES: the table
/// outlives the operation.
template <class SwTable>
auto rejectionTeller(SwTable& table) {
  return [&table](const auto& handle) {
    if (!Asic::entryFailed(handle->entryState())) return;
    const auto& own = dynamic_cast<const typename SwTable::EntryHandle&>(*handle);
    throw RowRejected(fmt::format(
        "{} unit {}, row {}: {}. What was written before it stays; started again when there is "
        "room, the agent goes on from there",
        table.canonicalName()->name(), table.unitId().value(), own.keyText(), own.rejection()));
  };
}

}  // namespace Agent
