#include "Kiv/Trace.h"
#include "OrderedTable/OrderedSwTableSet.h"
#include "OrderedTable/ResourceHooks.h"
#include "OrderedTable/TableCore.h"

namespace Asic {

void TableCore::tableStatusVersion(LogVersion version) {
  // Keeps the table alive: a handler may drop the last reference to it.
  const Fenrik::Ptr<OrderedSwTable> self(&table_);
  /// Updates the flag even if a handler throws.
  struct FlagUpdate {
    OrderedSwTable& table;
    ~FlagUpdate() {
      if (auto* const set = table.swTableSet()) set->maybeUpdatePendingHwWrites();
    }
  };
  KIV_TRACE(trace(), 8, "", "tableVersion: {}", version);
  const FlagUpdate flag{table_};
  entryLog_->cleanupEntryLog(version);
  groupResolver_->updateGenId();
  handlesRelease(version);
}

void TableCore::handlesRelease(LogVersion version) {
  while (const HandlePtr* const head = entryHandleInLog_.front()) {
    if (version < (*head)->logVersion()) break;
    const HandlePtr handle = entryHandleInLogDeq();
    KIV_TRACE_AS("tableStatusVersion", trace(), 3, "", "Processing version: {}, key: {}",
                 handle->logVersion(), textOf(handle->keyBytes()));
    handle->entryStateIs(EntryState::entryDone);
    if (handle->responseHandler()) handle->responseHandler()(handle);
  }
  if (reportWanted_) [[unlikely]]
    descriptor_.resources->roomMade(table_);
}

void TableCore::reportWantedIs(bool wanted) {
  reportWanted_ = wanted;
  if (wanted) waitForReports();
}

/// Reports reach only the tables that wait for some.
void TableCore::waitForReports() {
  if (waitsForReports_ || table_.swTableSet() == nullptr) return;
  waitsForReports_ = true;
  table_.swTableSet()->waitingAdd(*this);
}

bool TableCore::hasPendingHwWrites() const {
  KIV_TRACE(ownTrace(), 8, name(), "");
  const bool pending =
      hasInFlight() || entryLog_->tableVersion() != entryLog_->tableStatusVersion();
  KIV_TRACE(readTrace(), 3, "", " pendingHwWrites for swTable: tableId: {}, unitId{} is {}",
            table_.tableId(), table_.unitId(), pending);
  return pending;
}

bool TableCore::traced() const noexcept {
  return ownTrace().levelEnabled(8) || readTrace().levelEnabled(3) || trace().levelEnabled(8);
}

}  // namespace Asic
