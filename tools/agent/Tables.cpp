#include "agent/Tables.h"

#include <fmt/format.h>

#include <algorithm>

#include "OrderedTable/Constants.h"
#include "policy/Rows.h"

namespace Agent {
namespace {

using QuarnBastil::BigAdsFamily;
using QuarnBastil::BigBbFamily;
using QuarnBastil::SmallAdsFamily;
using QuarnBastil::TcamActionFamily;
using QuarnBastil::TcamEntryFamily;

constexpr const char* kName = "agent";

/// Units with a configuration of the family.
template <class Family>
void addUnits(const KivSharedMem::EntityManager& memory, std::vector<unsigned>& units) {
  const auto base = Asic::Constants::canonicalGroupTableConfigDriftPathBase(
      Family::Constants::canonicalGroupName(), Family::kTableNamespace, Family::kTableName);
  const auto found = memory.findEntities(base, KivSharedMem::KivSharedMemType::stored);
  for (const auto& node : found->paths()) {
    try {
      units.push_back(Asic::Constants::getUnitIdFromConfigPath(node.value()).value());
    } catch (const Fenrik::Exception&) {
      // A foreign file among the configurations.
    }
  }
}

std::string textOf(const Asic::ResolverEntry::Waiting& head) {
  return fmt::format("{} unit {}, {} of {}: {}", head.table, head.unit, head.operation, head.key,
                     head.reason);
}

}  // namespace

Policy::Picture Unit::picture() const {
  Policy::Picture picture;
  picture.nextIndex = nextIndex;
  for (auto it = prefixes->entryIteratorConst(); it; ++it) {
    picture.prefixes.push_back(Policy::prefixRowOf(*it));
  }
  for (auto it = rules->entryIteratorConst(); it; ++it) {
    const auto& key = it->key;
    picture.rules.push_back({key.bank, key.index, Policy::ruleOf(*it), Policy::ruleRowOf(*it)});
  }
  if (actions == nullptr) return picture;
  for (auto it = actions->entryIteratorConst(); it; ++it) {
    picture.actions.push_back({it->key.bank, it->key.index, it->requestId.value()});
  }
  return picture;
}

Tables::Tables(const std::string& directory, const NextHops::Options* redirects)
    : memory_(Fenrik::ptrIsImpl<KivSharedMem::EntityManager>(kName, Fenrik::String(directory),
                                                             Drift::Directory::Access::write)),
      state_(Fenrik::ptrIsImpl<Stavro::EntityManager>(kName, true, Fenrik::String(directory),
                                                      Drift::Directory::Access::write)),
      relaunch_(state_->entityIs<Stavro::ValueEntity<Asic::GenId>>(
          Fenrik::String("hardware/lodestar/agent/relaunch/config/") +
          TcamEntryFamily::kAgentName)),
      relaunchSeen_(relaunch_->get()),
      tables_(Fenrik::ptrIsImpl<Asic::OrderedTableInterface>(state_)),
      rules_(QuarnBastil::TcamEntryInterface::getIntf(tables_)),
      prefixes_(QuarnBastil::BigBbInterface::getIntf(tables_)) {
  std::vector<unsigned> left;
  addUnits<TcamActionFamily>(*memory_, left);
  if (redirects == nullptr && left.empty()) return;
  nextHops_ =
      std::make_unique<NextHops>(tables_, redirects == nullptr ? NextHops::Options() : *redirects);
  notes_ = std::make_unique<Notes>(directory);
}

void Tables::waitForReport(std::chrono::steady_clock::duration time) const {
  unsigned group = 0;
  const auto& groups = tables_->groupInterfaceColl();
  for (auto it = groups->groupIntfIterator(); notes_ != nullptr && it; ++it, ++group) {
    const auto head = it->value()->groupResolver()->head();
    notes_->waitIs(group, head.waiting.reason.empty() ? "" : textOf(head.waiting), head.age);
  }
  tables_->waitForReport(time);
}

Unit& Tables::unit(unsigned number) {
  const auto [at, isNew] = units_.try_emplace(number);
  Unit& unit = at->second;
  if (!isNew) return unit;
  unit.id = Asic::UnitId(static_cast<std::uint16_t>(number));
  unit.prefixes = prefixes_->makeSwTable(unit.id, nullptr, false);
  unit.rules = rules_->makeSwTable(unit.id, nullptr, false);
  if (nextHops_ != nullptr) {
    unit.actions = nextHops_->unitAdd(unit.id);
  }
  // Starts after the existing rows: rows before them may have been removed only recently.
  for (auto it = unit.rules->entryIteratorConst(); it; ++it) {
    unit.nextIndex =
        std::max(unit.nextIndex,
                 static_cast<std::uint16_t>(it->key.index == UINT16_MAX ? 0 : it->key.index + 1));
  }
  return unit;
}

void Tables::reconcile() {
  rules_->reconcile();
  prefixes_->reconcile();
  if (nextHops_ != nullptr) nextHops_->reconcile();
}

void Tables::destinationsDel(const Unit& unit) {
  if (nextHops_ == nullptr) return;
  nextHops_->destinationsDel(unit.id, loggedSoFar(*unit.actions));
}

std::optional<Asic::GenId> Tables::relaunchSeen() {
  if (relaunch_->get() == relaunchSeen_) return {};
  relaunchSeen_ = relaunch_->get();
  return relaunchSeen_;
}

std::vector<unsigned> Tables::unitsFound() const {
  std::vector<unsigned> units;
  addUnits<TcamEntryFamily>(*memory_, units);
  addUnits<BigBbFamily>(*memory_, units);
  addUnits<TcamActionFamily>(*memory_, units);
  addUnits<SmallAdsFamily>(*memory_, units);
  addUnits<BigAdsFamily>(*memory_, units);
  std::ranges::sort(units);
  units.erase(std::unique(units.begin(), units.end()), units.end());
  return units;
}

std::size_t Tables::queued() const {
  std::size_t length = 0;
  const auto& groups = tables_->groupInterfaceColl();
  for (auto it = groups->groupIntfIterator(); it; ++it) {
    length += it->value()->groupResolver()->length();
  }
  return length;
}

std::uint64_t Tables::behind() const {
  const std::uint64_t ofNextHops = nextHops_ == nullptr ? 0 : nextHops_->behind();
  return behindOf(*rules_) + behindOf(*prefixes_) + ofNextHops;
}

std::string Tables::waitsFor() const {
  const auto& groups = tables_->groupInterfaceColl();
  for (auto it = groups->groupIntfIterator(); it; ++it) {
    const auto head = it->value()->groupResolver()->head().waiting;
    if (head.table.empty() || head.reason.empty()) continue;
    return textOf(head);
  }
  return fmt::format("{} log records that it has not reported", behind());
}

}  // namespace Agent
