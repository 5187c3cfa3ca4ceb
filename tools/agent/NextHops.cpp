#include "agent/NextHops.h"

#include <algorithm>
#include <optional>
#include <unordered_set>
#include <utility>

#include "QuarnL3NiLib/ReqIdToFecResourceDrift.h"
#include "agent/Rejection.h"

namespace Agent {
namespace {

using Policy::Adjacency;
using Policy::Destination;
using Policy::NextHop;
using Adjacencies = std::vector<Adjacency>;
using QuarnBastil::TcamActionEntryWrapper;
using QuarnBastil::TcamActionSwTable;

/// Lets an action whose next hop has no destination be written, since its rule depends on it.
class ActionHelper final
    : public Fenrik::NodeClass<ActionHelper, QuarnBastil::TcamActionSwTableHelperBase> {
 public:
  /// The destination is the one that the next hop had, or none.
  bool finalizeOnFailure(const Fenrik::Ptr<TcamActionEntryWrapper>& wrapper, bool /*isDelete*/,
                         const Fenrik::Ptr<TcamActionSwTable>& /*table*/) override {
    wrapper->destIdStore();
    return true;
  }

  /// A value that is not known yet is no reason to change the hardware.
  bool finalizeOnResourceUpdate(const Fenrik::Ptr<TcamActionEntryWrapper>& wrapper,
                                const Fenrik::Ptr<TcamActionSwTable>& /*table*/,
                                bool someResourceHasFailed) override {
    const auto& handle = wrapper->requestIdResPtr();
    return !someResourceHasFailed ||
           (handle != nullptr && handle->entryState() != Asic::EntryState::entryPending);
  }
};

}  // namespace

/// Collects what the resource table tells, for `tidy`.
class NextHops::Provider final
    : public Fenrik::NodeClass<NextHops::Provider, QuarnL3NiLib::ReqIdToFecProvider> {
 public:
  void handleResourceWanted(const Key& key) override { asked.insert(key.value()); }
  void handleResourceUnwanted(const Key& /*key*/) override { unwanted = true; }
  void handleDestIdUnused(std::uint32_t destId) override { unused.insert(destId); }
  void handleEarlierSettled() override { settled = unwanted = true; }

  /// Request ids without a value that rows ask for.
  std::unordered_set<std::uint64_t> asked;
  std::set<std::uint32_t> unused;
  bool unwanted = false;
  bool settled = false;
};

/// The destinations that stand in the served units, or will.
class NextHops::Standing {
 public:
  explicit Standing(const NextHops& of) {
    for (const Asic::UnitId unit : of.served_) {
      const UnitTables& tables = of.units_.at(unit);
      auto& rows = units_.emplace_back();
      read(*tables.adjacencies, rows);
      read(*tables.members, rows);
    }
    for (const auto& rows : units_) {
      for (auto at = rows.begin(); at != rows.end();) at = learn(rows, at);
    }
  }

  /// The destination for some adjacencies: the present one if it has them, another one that has
  /// them, or a new one.
  std::uint32_t place(std::uint32_t present, const Adjacencies& adjacencies) {
    if (!fits(present, adjacencies)) {
      const auto same = known_.find(adjacencies);
      present = same != known_.end() && fits(same->second, adjacencies)
                    ? same->second
                    : unused(adjacencies.size());
    }
    known_.emplace(adjacencies, present);
    for (auto& rows : units_) {
      for (std::uint32_t i = 0; i < adjacencies.size(); ++i) rows[{present, i}] = adjacencies[i];
    }
    taken_.insert(numberOf(present));
    return present;
  }

 private:
  using Rows = std::map<Destination::Row, Adjacency>;

  template <class SwTable>
  static void read(const SwTable& table, Rows& rows) {
    for (auto it = table.entryIteratorConst(); it; ++it) {
      if (const auto place = Policy::placeOf(*it)) rows[*place] = Policy::adjacencyOf(*it);
    }
  }

  Rows::const_iterator learn(const Rows& rows, Rows::const_iterator at) {
    const std::uint32_t destId = at->first.destId;
    Adjacencies adjacencies;
    for (; at != rows.end() && at->first.destId == destId; ++at) adjacencies.push_back(at->second);
    taken_.insert(numberOf(destId));
    if (adjacencies.size() == Destination(destId).rows()) known_.emplace(adjacencies, destId);
    return at;
  }

  /// Whether the destination has these adjacencies, or some of them and nothing else: then the
  /// others were lost, or belong to a new unit.
  bool fits(std::uint32_t destId, const Adjacencies& adjacencies) const {
    if (Destination(destId).rows() != adjacencies.size()) return false;
    return std::ranges::all_of(units_, [&](const Rows& rows) {
      for (std::uint32_t i = 0; i < adjacencies.size(); ++i) {
        const auto row = rows.find({destId, i});
        if (row != rows.end() && row->second != adjacencies[i]) return false;
      }
      return true;
    });
  }

  static std::pair<bool, std::uint32_t> numberOf(std::uint32_t destId) {
    const Destination destination(destId);
    return {destination.isGroup(), destination.number()};
  }

  std::uint32_t unused(std::size_t adjacencies) const {
    std::uint32_t number = 1;
    for (const bool isGroup = adjacencies != 1; taken_.contains({isGroup, number});) ++number;
    if (number <= Destination::kLastNumber) return Destination::of(number, adjacencies).id();
    throw RowRejected("there are more destinations than the tables hold");
  }

  std::vector<Rows> units_;
  std::map<Adjacencies, std::uint32_t> known_;
  /// Numbers of groups and of adjacencies that rows have.
  std::set<std::pair<bool, std::uint32_t>> taken_;
};

NextHops::NextHops(const Fenrik::Ptr<Asic::OrderedTableInterface>& tables, Options options)
    : options_(options),
      tables_(tables),
      resources_(Fenrik::ptrIsImpl<Resources>(tables)),
      actions_(QuarnBastil::TcamActionInterface::getIntf(tables)),
      adjacencies_(QuarnBastil::SmallAdsInterface::getIntf(tables)),
      members_(QuarnBastil::BigAdsInterface::getIntf(tables)),
      helper_(Fenrik::ptrIsImpl<ActionHelper>()),
      provider_(Fenrik::ptrIsImpl<Provider>()) {
  tables_->resourceTableIs(resources_->canonicalName()->name(), resources_);
  resources_->providerIs(provider_);
}

NextHops::~NextHops() { resources_->providerIs(nullptr); }

Fenrik::Ptr<TcamActionSwTable> NextHops::unitAdd(Asic::UnitId unit) {
  UnitTables& made = units_[unit];
  if (made.actions == nullptr) {
    made.adjacencies = adjacencies_->makeSwTable(unit, nullptr, false);
    made.members = members_->makeSwTable(unit, nullptr, false);
    made.actions = actions_->makeSwTable(unit, helper_, false);
  }
  return made.actions;
}

void NextHops::reconcile() {
  actions_->reconcile();
  adjacencies_->reconcile();
  members_->reconcile();
  resources_->reconcile();
}

void NextHops::destinationsDel(Asic::UnitId unit, const Dependency& actions) {
  UnitTables& tables = units_.at(unit);
  for (const std::uint32_t destId : destinations(tables)) {
    remove(tables, Destination(destId), actions);
  }
}

std::set<std::uint32_t> NextHops::destinations(const UnitTables& unit) const {
  std::set<std::uint32_t> found;
  const auto add = [&](const auto& table) {
    for (auto it = table.entryIteratorConst(); it; ++it) {
      if (const auto place = Policy::placeOf(*it)) found.insert(place->destId);
    }
  };
  add(*unit.adjacencies);
  add(*unit.members);
  return found;
}

/// What the resource table has, or, if it was lost, what the rows have.
std::uint32_t NextHops::currentDestination(std::uint64_t id) {
  const Key key(id);
  if (resources_->resourceHas(key) || !provider_->asked.contains(id))
    return resources_->destId(key);
  for (const auto& [unit, tables] : units_) {
    for (auto it = tables.actions->entryIteratorConst(); it; ++it) {
      if (it->requestId == key && it->destId != 0) return it->destId;
    }
  }
  return 0;
}

std::size_t NextHops::write(Destination destination, const Adjacencies& adjacencies) {
  std::size_t written = 0;
  const auto writeTo = [&](auto& table, const auto& row) {
    if (table.entryHas(row.key)) return;
    table.entryWriteWithResponseHandler(row.key, row, nullptr, rejectionTeller(table));
    ++written;
  };
  for (const Asic::UnitId unit : served_) {
    UnitTables& tables = units_.at(unit);
    for (std::uint32_t i = 0; i < adjacencies.size(); ++i) {
      if (destination.isGroup()) {
        writeTo(*tables.members, Policy::memberRow(destination, i, adjacencies[i]));
      } else {
        writeTo(*tables.adjacencies, Policy::adjacencyRow(destination, adjacencies[i]));
      }
    }
  }
  return written;
}

std::size_t NextHops::remove(UnitTables& unit, Destination destination, const Dependency& before) {
  std::size_t removed = 0;
  const auto removeFrom = [&](auto& table, const auto& key) {
    if (!table.entryHas(key)) return;
    table.entryRemoveWithResponseHandler(key, before, rejectionTeller(table));
    ++removed;
  };
  for (std::uint32_t i = 0; i < destination.rows(); ++i) {
    if (destination.isGroup()) {
      removeFrom(*unit.members, destination.memberKey(i));
    } else {
      removeFrom(*unit.adjacencies, destination.adjacencyKey());
    }
  }
  return removed;
}

std::size_t NextHops::queued() const {
  std::size_t length = 0;
  const auto& groups = tables_->groupInterfaceColl();
  for (auto it = groups->groupIntfIterator(); it; ++it) {
    length += it->value()->groupResolver()->length();
  }
  return length;
}

bool NextHops::drain(const Pump& pump) {
  while (queued() != 0) {
    if (!pump(0)) return false;
  }
  return true;
}

Fenrik::Ptr<const Asic::NeededEntry> NextHops::everythingCommitted() const {
  const auto needed = Fenrik::ptrIsImpl<Asic::NeededEntry>();
  const auto add = [&](const auto& interface) {
    const auto version = interface->entryLog()->tableVersion();
    if (version != Asic::LogVersion(0)) {
      needed->add(Asic::TableVersion(interface->tableId(), version));
    }
  };
  add(adjacencies_);
  add(members_);
  return needed;
}

/// Whether this changed what the next hop is.
bool NextHops::give(const NextHop& nextHop, std::uint32_t destId) {
  const Key key(nextHop.id);
  const auto before = resources_->updateNumber(key);
  const bool isNew = !resources_->resourceHas(key);
  const auto failed = Asic::EntryState::entryResourceFailed;
  const auto state = nextHop.down() ? failed : Asic::EntryState::entryDone;
  resources_->resourceIs(key, state, destId, everythingCommitted());
  return isNew || resources_->updateNumber(key) != before;
}

NextHops::Outcome NextHops::change(const std::vector<NextHop>& wanted,
                                   const std::vector<unsigned>& units, const Pump& pump) {
  Outcome outcome;
  served_.clear();
  for (const unsigned unit : units) served_.emplace_back(static_cast<std::uint16_t>(unit));
  wanted_.clear();
  Standing standing(*this);
  std::vector<std::uint32_t> placed;
  for (const NextHop& nextHop : wanted) {
    wanted_.emplace(nextHop.id, nextHop.name);
    const std::uint32_t current = currentDestination(nextHop.id);
    if (nextHop.down()) {
      ++outcome.down;
      placed.push_back(options_.onDown == OnDown::drop ? 0 : current);
    } else {
      placed.push_back(standing.place(current, nextHop.adjacencies));
      outcome.rows += write(Destination(placed.back()), nextHop.adjacencies);
    }
  }
  if (!drain(pump)) return outcome;
  for (std::size_t i = 0; i < wanted.size(); ++i) {
    if (!give(wanted[i], placed[i])) continue;
    ++outcome.changed;
    if (!pump(userCount(wanted[i].id))) return outcome;
  }
  // Rows that ask for a next hop that is gone are about to go; until then it has failed.
  for (const std::uint64_t id : std::exchange(provider_->asked, {})) {
    if (!wanted_.contains(id) && !resources_->resourceHas(Key(id))) {
      give({.name = {}, .id = id, .adjacencies = {}}, currentDestination(id));
    }
  }
  provider_->unwanted = true;
  outcome.complete = true;
  return outcome;
}

std::size_t NextHops::userCount(std::uint64_t id) const {
  std::size_t users = 0;
  for (const auto& [unit, tables] : units_) {
    const auto usage = tables.actions->requestIdToFecLinkage()->entryUsageSm(Key(id));
    if (usage != nullptr) users += usage->entryUsageCount();
  }
  return users;
}

/// Withdraws next hops that are not in the file and that nobody uses.
void NextHops::retire() {
  if (!std::exchange(provider_->unwanted, false)) return;
  for (const auto& record : resources_->drift()->resources()) {
    if (wanted_.contains(record.requestId.value())) continue;
    if (resources_->users(record.requestId).empty()) resources_->resourceDel(record.requestId);
  }
}

std::size_t NextHops::tidy() {
  retire();
  if (!resources_->earlierSettled()) return 0;
  auto unused = std::exchange(provider_->unused, {});
  if (std::exchange(provider_->settled, false)) {
    for (const auto& [unit, tables] : units_) unused.merge(destinations(tables));
  }
  std::size_t down = 0;
  for (const std::uint32_t destId : unused) {
    if (resources_->destIdUsed(destId)) continue;
    std::size_t rows = 0;
    for (auto& [unit, tables] : units_) rows += remove(tables, Destination(destId), nullptr);
    down += rows == 0 ? 0 : 1;
  }
  return down;
}

void NextHops::note(Notes& notes) const {
  for (const auto& record : resources_->drift()->resources()) {
    Tables::NextHopNote note;
    note.id = record.requestId.value();
    note.update = note.acknowledged = note.inHardware = record.updateNumber;
    for (const auto& user : resources_->users(record.requestId)) {
      if (user.released) continue;
      note.acknowledged = std::min<Tables::Word>(note.acknowledged, user.updateNumber);
      note.inHardware = std::min<Tables::Word>(note.inHardware, user.updateNumberInHw);
    }
    note.users = userCount(note.id);
    const auto wanted = wanted_.find(note.id);
    notes.nextHopIs(note, wanted != wanted_.end() ? wanted->second : "");
  }
  notes.othersDel();
}

std::uint64_t NextHops::behind() const {
  return behindOf(*actions_) + behindOf(*adjacencies_) + behindOf(*members_);
}

}  // namespace Agent
