#include "OrderedTable/OrderedTableInterface.h"

#include <algorithm>
#include <vector>

#include "OrderedTable/Constants.h"
#include "OrderedTable/FlagScope.h"

namespace Asic {

namespace {

/// Operations that a group commits per turn: enough to share one wake-up of the hardware writer,
/// few enough not to delay the clients of other groups noticeably.
constexpr unsigned kTurn = 64;

/// Pumps per check for a rebuilt report collection, which costs a system call. Each check covers
/// one group, in turn; every wait checks all groups.
constexpr unsigned kPumpsPerRefresh = 256;

/// After a hardware writer has rebuilt its report collection, its rings do not reach the file that
/// is waited on; a long sleep is interrupted this often to check for that.
constexpr std::chrono::nanoseconds kLongestSleep = std::chrono::seconds(1);

}  // namespace

GroupInterfaceColl::GroupInterfaceColl() = default;
GroupInterfaceColl::~GroupInterfaceColl() = default;

OrderedTableInterface::OrderedTableInterface(
    const Fenrik::Ptr<Stavro::EntityManager>& entityManager)
    : entityManager_(entityManager),
      groups_(Fenrik::ptrIsImpl<GroupInterfaceColl>()),
      outermostCall_(Fenrik::ptrIsImpl<OutermostCall>(this)),
      commitCount_(std::make_shared<CommitCount>()) {}

OrderedTableInterface::~OrderedTableInterface() { outermostCall_->tablesDel(); }

LogVersion OrderedTableInterface::announcedVersion(SwTableId tableId) const {
  LogVersion version;
  for (const auto& group : turns_) version = std::max(version, group->announcedVersion(tableId));
  return version;
}

Fenrik::Ptr<const NeededEntry> OrderedTableInterface::announcedVersions() const {
  auto versions = Fenrik::ptrIsImpl<NeededEntry>();
  for (const auto& group : turns_) group->announcedVersionsAdd(*versions);
  return versions;
}

LogVersion OrderedTableInterface::reportedVersion(SwTableId tableId) const {
  LogVersion version;
  for (const auto& group : turns_) {
    const auto reported = group->tableVersionMap()->find(tableId);
    if (reported.found) version = std::max(version, reported.record.logVersion);
  }
  return version;
}

void OrderedTableInterface::makeGroupIntf(const Fenrik::String& agentName,
                                          const Fenrik::String& groupName,
                                          unsigned short agentAndGroupId) {
  const Fenrik::String name = Constants::canonicalizeGroupName(agentName, groupName);
  if (groups_->groupIntfHas(name)) return;
  turns_.push_back(
      Fenrik::ptrIsImpl<GroupInterface>(name, agentAndGroupId, entityManager_, commitCount_));
  reports_.push_back(turns_.back()->tableVersionMap().get());
  groups_->groupIntfIs(turns_.back());
}

bool OrderedTableInterface::reportsMoved() const noexcept {
  // One branch for all groups: an agent's loop calls this often, and usually nothing has moved.
  bool moved = false;
  for (const TableVersionMap* const reports : reports_) moved |= reports->moved();
  return moved;
}

bool OrderedTableInterface::ready() const noexcept {
  if (reportsMoved() || outermostCall_->due()) return true;
  return commitCount_->queued != 0 && std::ranges::any_of(turns_, [](const auto& group) {
           return group->groupResolver()->ready();
         });
}

OrderedTableInterface::Pumped OrderedTableInterface::pump(unsigned budget) {
  Pumped pumped;
  if (pumping_) return pumped;
  if (++pumps_ % kPumpsPerRefresh == 0 && !turns_.empty()) {
    turns_[pumps_ / kPumpsPerRefresh % turns_.size()]->tableVersionMap()->refresh();
  }
  if (!ready()) return pumped;
  const FlagScope pumping(pumping_);
  OutermostCall::Scope call(outermostCall_);
  const bool reported = reportsMoved();
  // By index, because handlers may bring up further groups.
  for (std::size_t i = 0; i < turns_.size(); ++i) pumped.reports += turns_[i]->takeReports();
  if (reported) outermostCall_->handleReports();
  std::size_t idle = 0;
  for (std::size_t at = firstTurn_; idle < turns_.size() && pumped.commits < budget; ++at) {
    const Fenrik::Ptr<GroupInterface> group = turns_[at % turns_.size()];
    const unsigned turn = std::min(kTurn, budget - pumped.commits);
    // Set before the commit: after an exception, the next turn goes to the following group.
    firstTurn_ = (at + 1) % turns_.size();
    const unsigned commits = group->groupResolver()->ready() ? group->pump(turn) : 0;
    pumped.commits += commits;
    idle = commits != 0 ? 0 : idle + 1;
  }
  call.end();
  pumped.more = ready();
  return pumped;
}

bool OrderedTableInterface::waitForReport(std::chrono::nanoseconds timeout) {
  const auto end = std::chrono::steady_clock::now() +
                   std::min<std::chrono::nanoseconds>(timeout, std::chrono::hours(24 * 365));
  for (;;) {
    const auto left = std::chrono::duration_cast<std::chrono::nanoseconds>(
        end - std::chrono::steady_clock::now());
    if (sleepForReport(std::clamp(left, std::chrono::nanoseconds(0), kLongestSleep))) return true;
    if (left <= kLongestSleep) return false;
  }
}

bool OrderedTableInterface::sleepForReport(std::chrono::nanoseconds timeout) {
  std::vector<Drift::BellSeen> bells;
  std::vector<const Drift::DriftFile*> own;
  for (const auto& group : turns_) {
    const auto& map = group->tableVersionMap();
    map->refresh();
    if (map->moved()) return true;
    if (map->bell().file != nullptr) bells.push_back(map->bell());
    group->logFilesAdd(own);
  }
  return Drift::waitForAnyRing(bells, timeout, own);
}

}  // namespace Asic
