#include "OrderedTable/OrderedSwTableSet.h"

#include <algorithm>

#include "OrderedTable/TableCore.h"

namespace Asic {

OrderedSwTableSet::OrderedSwTableSet(SwTableId tableId,
                                     const Fenrik::Ptr<OrderedSwTableStatus>& status)
    : tableId_(tableId), status_(status) {}

OrderedSwTableSet::~OrderedSwTableSet() {
  for (OrderedSwTable* const table : made_) table->swTableSet_ = nullptr;
}

void OrderedSwTableSet::gone(OrderedSwTable& table) noexcept { std::erase(made_, &table); }

void OrderedSwTableSet::coreGone(TableCore& core) noexcept {
  std::erase(waiting_, &core);
  if (core.countedInFlight_) --inFlight_;
  core.countedInFlight_ = false;
  if (status_ != nullptr) maybeUpdatePendingHwWrites();
}

void OrderedSwTableSet::inFlightCount(const TableCore&, bool inFlight) noexcept {
  inFlight_ += inFlight ? 1 : std::size_t(-1);
}

/// Whether pending writes must be queried per table: tables are traced, or not built on
/// `TableCore`.
bool OrderedSwTableSet::tablesWantToBeAsked() const noexcept {
  if (made_.size() != swTableCount()) return true;
  const TableCore* const any = made_.empty() ? nullptr : made_.front()->core();
  return any == nullptr || any->traced();
}

void OrderedSwTableSet::maybeUpdatePendingHwWrites() {
  if (tablesWantToBeAsked()) {
    status_->pendingHwWritesIs(anyPending());
    return;
  }
  const EntryLogCore& log = made_.front()->core()->log();
  status_->pendingHwWritesIs(inFlight_ != 0 || log.tableVersion() != log.tableStatusVersion());
}

bool OrderedSwTableSet::anyPending() {
  // The table that was pending last is the most likely to be pending now.
  if (const auto* const likely = swTable_[lastPending_];
      likely != nullptr && likely->value()->hasPendingHwWrites()) {
    return true;
  }
  // NOLINTNEXTLINE(readability-use-anyofallof): which one it is matters, too
  for (const auto& node : swTable_) {
    if (node.key() == lastPending_ || !node.value()->hasPendingHwWrites()) continue;
    lastPending_ = node.key();
    return true;
  }
  return false;
}

void OrderedSwTableSet::tableStatusVersion(LogVersion version) {
  if (tablesWantToBeAsked()) {
    for (const auto& node : swTable_) node.value()->tableStatusVersion(version);
    return;
  }
  // One table cleans the log for all; the others only release handles, if they have any.
  const Fenrik::Ptr<OrderedSwTable> first(made_.front());
  first->tableStatusVersion(version);
  releaseWaiting(version);
  maybeUpdatePendingHwWrites();
}

void OrderedSwTableSet::releaseWaiting(LogVersion version) {
  std::erase_if(waiting_, [](TableCore* core) {
    core->waitsForReports_ = core->awaitsReport();
    return !core->waitsForReports_;
  });
  if (waiting_.empty()) return;
  // Handlers may change the tables, so they are kept alive meanwhile.
  std::vector<Fenrik::Ptr<OrderedSwTable>> round = std::move(round_);
  round.clear();
  for (const TableCore* const core : waiting_) round.emplace_back(&core->table());
  for (const auto& table : round) table->core()->handlesRelease(version);
  round.clear();
  round_ = std::move(round);
}

}  // namespace Asic
