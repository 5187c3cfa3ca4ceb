#include "OrderedTable/OrderedTableInterface.h"

#include <algorithm>
#include <vector>

#include "OrderedTable/Constants.h"
#include "OrderedTable/FlagScope.h"

namespace Asic {

namespace {

/// Operations that one group commits before the next one has its turn: enough to share the wake-up
/// of the hardware writer, few enough to keep the other groups' clients from noticing.
constexpr unsigned kTurn = 64;

/// A hardware writer that rebuilt the collection of its reports is found by a system call. So many
/// pumps share one, for one group after the other; every wait asks for all groups.
constexpr unsigned kPumpsPerRefresh = 256;

/// A hardware writer that rebuilds the collection of its reports rings no bell that anybody hears;
/// a long sleep looks for that now and then.
constexpr std::chrono::nanoseconds kLongestSleep = std::chrono::seconds(1);

}  // namespace

GroupInterfaceColl::GroupInterfaceColl() = default;
GroupInterfaceColl::~GroupInterfaceColl() = default;

OrderedTableInterface::OrderedTableInterface(
    const Fenrik::Ptr<Stavro::EntityManager>& entityManager)
    : entityManager_(entityManager),
      groups_(Fenrik::ptrIsImpl<GroupInterfaceColl>()),
      commitCount_(std::make_shared<CommitCount>()) {}

OrderedTableInterface::~OrderedTableInterface() = default;

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

bool OrderedTableInterface::ready() const noexcept {
  // Without a branch for each group: an agent's loop comes here often, as a rule in vain.
  bool moved = false;
  for (const TableVersionMap* const reports : reports_) moved |= reports->moved();
  if (moved) return true;
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
  // Handlers may bring further groups up.
  for (std::size_t i = 0; i < turns_.size(); ++i) pumped.reports += turns_[i]->takeReports();
  std::size_t idle = 0;
  for (std::size_t at = firstTurn_; idle < turns_.size() && pumped.commits < budget; ++at) {
    const Fenrik::Ptr<GroupInterface> group = turns_[at % turns_.size()];
    const unsigned turn = std::min(kTurn, budget - pumped.commits);
    // An exception leaves the next turn to the group behind the one that threw.
    firstTurn_ = (at + 1) % turns_.size();
    const unsigned commits = group->groupResolver()->ready() ? group->pump(turn) : 0;
    pumped.commits += commits;
    idle = commits != 0 ? 0 : idle + 1;
  }
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
