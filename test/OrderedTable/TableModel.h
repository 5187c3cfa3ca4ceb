#pragma once

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "Support/FamilyMemory.h"

/// The tables of an agent in plain containers, to hold the real ones against. It knows no family:
/// keys, values, tables and groups are small numbers.
namespace TableModel {

using Support::Key;
using Support::Needed;
using Support::Value;
using Support::Version;
/// Operations are numbered in the order of the calls that made them.
using OpId = std::uint32_t;

inline constexpr OpId kNoOp = UINT32_MAX;
inline constexpr Version kNoVersion = UINT64_MAX;
/// Handles that belong to no table of the model: from here on, and the table that they name.
inline constexpr OpId kFirstForeign = 0x80000000;
inline constexpr unsigned kForeigns = 4;
inline constexpr std::uint32_t kForeignTable = 0x0f0f0f0f;
/// So many operations back a handle can still be depended on.
inline constexpr OpId kHandlesKept = 256;

enum class State : std::uint8_t {
  pending = 0,
  inLog = 1,
  rejected = 3,
  done = 4,
  dependencyFailed = 5,
  resourceFailed = 6,
};

/// What someone asks of an agent: with the same words of the model and of the real tables.
struct Act {
  enum class Kind : std::uint8_t {
    write,      ///< key, value, dependency
    remove,     ///< key, dependency
    removeAll,  ///< dependency
    update,     ///< key
    clear,      ///< flag: resources are released
    direct,     ///< key, value: a write to the log itself that drops what is identical
    pump,       ///< table is the group, number the budget
    report,     ///< number
    hear,       ///< what the hardware says in shared memory, all tables; flag: `number` first
    has,
    read,
    iterBegin,  ///< slot, of this table alone; flag: from the key
    iterStep,   ///< slot
    give,       ///< key: a resource gets the state `value`, a destination and what it needs
    settle,     ///< dependency: a handle gets the state `value` and, if foreign, a log version
    helper,     ///< plan; flag: the one that is there once more
  };

  Kind kind = Kind::pump;
  unsigned table = 0;
  Key key = 0;
  Value value = 0;
  OpId dependency = kNoOp;
  Version number = 0;
  unsigned slot = 0;
  bool flag = false;
  unsigned destId = 0;
  /// What the response handler does. An operation without handler has neither.
  bool handler = false;
  bool handlerThrows = false;
  std::vector<Act> reaction;
  /// What a helper does at its next calls; a plain one does nothing.
  struct Plan {
    bool plain = true;
    Value mask = 0;        ///< turns these bits of an entry's value over
    bool answer = true;    ///< an updated entry is logged
    bool throws = false;   ///< once
    bool rejects = false;  ///< before it throws: the handle is marked
  } plan;
};

/// Something that was seen to happen.
struct Event {
  enum class Kind : std::uint8_t { flagged, hooked, handled, answered, threw, told };

  Kind kind;
  /// Of an answer: to what. Of a hook: which. Of what a resource table is told: a release or not.
  std::uint8_t what = 0;
  bool gone = false;
  unsigned table = 0;
  Key key = 0;
  Version number = 0;
  Version value = 0;

  auto facts() const { return std::tie(kind, what, gone, table, key, number, value); }
};

enum Counter : std::uint8_t {
  kWrites,
  kRemovals,
  kCommits,
  kClears,
  kUpdates,
  kFailedUpdates,
  kResolveFails,
  kSuppressed,
  kSuppressDiffs,
  kCounters
};

/// A resource: what its provider gave.
struct Resource {
  bool given = false;
  State state = State::pending;
  unsigned destId = 0;
  Version number = 0;
  Needed needed;
};

/// The order in which a table updates the users of a changed resource: that of a hash map.
struct Round {
  unsigned table = 0;
  Key resource = 0;
  std::vector<Key> users;
};

/// What a handler or a helper throws.
struct Thrown : std::runtime_error {
  Thrown() : std::runtime_error("thrown by a client") {}
};

/// Whatever can be asked to act and shows what happened.
class Agent {
 public:
  virtual ~Agent() = default;

  /// Does it as a client: what is thrown at it is an event.
  void run(const Act& act) {
    try {
      apply(act);
    } catch (const Thrown&) {
      see({.kind = Event::Kind::threw});
    }
  }
  virtual void apply(const Act& act) = 0;
  void see(const Event& event) { events.push_back(event); }
  void answer(const Act& act, Key key, Version number, Version value = 0) {
    see({.kind = Event::Kind::answered,
         .what = static_cast<std::uint8_t>(act.kind),
         .table = act.table,
         .key = key,
         .number = number,
         .value = value});
  }

  void answer(const Act& act, std::pair<Key, Value> entry, Version number = 0) {
    answer(act, entry.first, number, entry.second);
  }

  std::vector<Event> events;

 protected:
  void react(const Act& act) {
    for (const Act& next : act.reaction) apply(next);
    if (act.handlerThrows) throw Thrown();
  }
};

struct Operation {
  OpId id = kNoOp;
  /// What was asked for; its table, key and reaction serve as those of the operation.
  Act act;
  Value value = 0;
  std::shared_ptr<Operation> dependency;
  Version major = 0;
  State state = State::pending;
  Version logVersion = 0;
};
using OpPtr = std::shared_ptr<Operation>;

/// All tables of one table id: the memory outlives the agent, the rest does not.
struct Family : Support::Changing {
  unsigned group = 0;
  std::vector<bool> mounted;
  Version statusVersion = 0;
  bool pendingHwWrites = false;
  /// The report that was heard last.
  std::optional<Version> taken;
};

struct Table {
  unsigned family = 0;
  unsigned unit = 0;
  std::map<Key, OpPtr> adds;
  std::map<Key, OpPtr> removes;
  std::map<Key, Version> versions;
  std::optional<Version> removeAll;
  std::deque<OpPtr> handlesInLog;
  std::array<Version, kCounters> counters{};
  Act::Plan plan;
  /// Keys by the resource that they use.
  std::map<Key, std::set<Key>> users;
};

inline bool failed(State state) {
  return state == State::rejected || state == State::dependencyFailed ||
         state == State::resourceFailed;
}

/// Undoes a flag however its scope is left.
struct Raised {
  explicit Raised(bool& flag) : flag(flag) { flag = true; }
  ~Raised() { flag = false; }
  bool& flag;
};

inline constexpr unsigned kOnSuccess = 0, kOnSuccessOfRemove = 1, kOnResourceUpdate = 2,
                          kOnFailedUpdate = 3, kOnFailure = 4;
inline constexpr Key kResources = 5;

inline Key requestOf(Value value) { return value >> Support::kRequestShift; }
inline Value withDestination(Value value, unsigned destId) {
  return (value & ~Support::kDestMask) | destId << Support::kDestShift;
}

class Model final : public Agent {
 public:
  struct Shape {
    std::vector<std::uint32_t> tableIds;
    std::vector<unsigned> groupOfFamily;
    /// Families whose entries use resources.
    std::set<unsigned> users;
    unsigned units = 2;
    /// Records in the log from which on nothing is resolved.
    Version logLimit = 1'000'000;
    std::size_t configCapacity = 65'536;
  };
  /// How an agent comes up over the memory of the one before it: tables for which it has no unit at
  /// first, and those that are made empty.
  struct Start {
    std::set<unsigned> absent, reset;
  };

  explicit Model(Shape shape) : shape_(std::move(shape)) {
    families_.resize(shape_.groupOfFamily.size());
    for (unsigned f = 0; f < families_.size(); ++f) {
      families_[f].group = shape_.groupOfFamily[f];
      families_[f].config.resize(shape_.units);
      families_[f].places.resize(shape_.units);
      for (unsigned unit = 0; unit < shape_.units; ++unit) {
        tables_.push_back({});
        tables_.back().family = f;
        tables_.back().unit = unit;
      }
    }
    for (unsigned i = 0; i < kForeigns; ++i) {
      foreigns_.push_back(std::make_shared<Operation>());
      foreigns_.back()->id = kFirstForeign + i;
    }
  }

  void apply(const Act& act) override {
    using Kind = Act::Kind;
    Table& table = tables_[act.table];
    switch (act.kind) {
      case Kind::write:
      case Kind::remove:
      case Kind::removeAll:
        return accept(act);
      case Kind::update:
        return update(act);
      case Kind::clear: {
        Call call(*this, usesResources(table));
        delAllEntries(table, {}, nullptr, act.flag);
        return call.end();
      }
      case Kind::direct:
        return direct(act);
      case Kind::pump:
        return answer(act, 0, pump(act.table, act.number));
      case Kind::report:
        return report(table, act.number);
      case Kind::hear:
        return hear(act);
      case Kind::has:
        return answer(act, act.key, entryHas(act.table, act.key));
      case Kind::read:
        return answer(act, entryRead(act.table, act.key));
      case Kind::iterBegin:
      case Kind::iterStep:
        return;  // Its order is that of a hash map: the real walk is held against the real table.
      case Kind::give:
        return give(act);
      case Kind::settle:
        return settle(act);
      case Kind::helper:
        if (!act.flag) table.plan = act.plan;
    }
  }

  /// A new agent: everything in flight is gone.
  void start(const Start& start) {
    groups_.assign(1 + *std::max_element(shape_.groupOfFamily.begin(), shape_.groupOfFamily.end()),
                   {});
    operations_.clear();
    putOff_.clear();
    std::erase_if(resources_, [](const auto& member) { return !member.second.given; });
    for (auto& member : resources_) member.second.needed = everythingBut({});
    for (Family& family : families_) {
      family.mounted.assign(shape_.units, false);
      family.takeOver(everythingBut(static_cast<unsigned>(&family - families_.data())));
      family.statusVersion = 0;
      family.pendingHwWrites = false;
      family.taken.reset();
      if (family.reported) {
        ++roads[kReportFound];
        cleanup(family, *family.reported);
        family.pendingHwWrites = *family.reported < family.scratchpad;
      }
    }
    for (unsigned t = 0; t < tables_.size(); ++t) {
      Table empty;
      empty.family = tables_[t].family;
      empty.unit = tables_[t].unit;
      tables_[t] = empty;
      if (!start.absent.contains(t)) mountTable(t, start.reset.contains(t));
    }
  }

  /// Makes the table of a unit that the agent did not have so far.
  void mountTable(unsigned number, bool reset) {
    Table& table = tables_[number];
    Family& family = familyFor(table);
    const Version version = family.reported.value_or(0);
    family.mounted[table.unit] = true;
    if (version != 0) roads[kPurged] += family.purge(table.unit, version);
    reset ? delAllEntries(table, {}, nullptr, false) : restoreUsers(table);
    report(table, version);
  }

  /// Does what an exception kept from being done.
  void doPutOff() {
    while (!putOff_.empty()) {
      const Act act = putOff_.front();
      putOff_.pop_front();
      change(act);
    }
  }

  const Shape& shape() const { return shape_; }
  unsigned tableCount() const { return static_cast<unsigned>(tables_.size()); }
  unsigned groupCount() const { return static_cast<unsigned>(groups_.size()); }
  const Table& table(unsigned number) const { return tables_[number]; }
  const Family& family(unsigned number) const { return families_[number]; }
  /// What stands in shared memory, and what the hardware says there, is set from outside.
  Family& family(unsigned number) { return families_[number]; }
  const Family& familyOf(unsigned table) const { return families_[tables_[table].family]; }
  bool present(unsigned table) const {
    return families_[tables_[table].family].mounted[tables_[table].unit];
  }
  const std::deque<OpPtr>& queue(unsigned group) const { return groups_[group].queue; }
  OpId nextOp() const { return nextOp_; }
  /// The operation if it can still be depended on, otherwise null.
  OpPtr operation(OpId id) const {
    if (id != kNoOp && id >= kFirstForeign) return foreigns_[id - kFirstForeign];
    const auto found = operations_.find(id);
    return found != operations_.end() && nextOp_ - id <= kHandlesKept ? found->second : nullptr;
  }

  /// Whether the operation, were it the head of its queue, could not be committed now.
  bool waits(const Operation& op) const {
    return familyOf(op.act.table).log.size() >= shape_.logLimit ||
           (op.dependency != nullptr && op.dependency->state == State::pending) ||
           waitsForResource(op);
  }
  bool waitsForResource(const Operation& op) const {
    const State state = resource(requestOf(op.value)).state;
    return requestOf(op.value) != 0 && (state == State::pending || state == State::inLog);
  }
  Resource resource(Key id) const {
    const auto found = resources_.find(id);
    return found != resources_.end() ? found->second : Resource();
  }
  bool usesResources(const Table& table) const { return shape_.users.contains(table.family); }

  bool entryHas(unsigned number, Key key) const {
    const Table& table = tables_[number];
    if (table.adds.count(key) != 0) return true;
    if (table.removes.count(key) != 0) return false;
    return !table.removeAll && configHas(number, key);
  }

  std::pair<Key, Value> entryRead(unsigned number, Key key) const {
    const Table& table = tables_[number];
    if (const auto add = table.adds.find(key); add != table.adds.end()) {
      return {key, add->second->value};
    }
    if (table.removes.count(key) != 0) return {0, 0};
    return entryFromConfig(number, key);
  }

  std::pair<Key, Value> entryFromConfig(unsigned number, Key key) const {
    if (!configHas(number, key)) return {0, 0};
    return {key, configFor(tables_[number]).at(key).value};
  }

  std::uint32_t entrys(unsigned number) const {
    const Table& table = tables_[number];
    auto all = static_cast<std::uint32_t>(table.adds.size());
    if (table.removeAll) return all;
    all += configEntrys(number);
    for (const auto& add : table.adds) all -= configHas(number, add.first);
    for (const auto& remove : table.removes) all -= configHas(number, remove.first);
    return all;
  }

  bool hasPendingHwWrites(unsigned number) const {
    const Table& table = tables_[number];
    return !table.adds.empty() || !table.removes.empty() || table.removeAll.has_value() ||
           familyOf(number).scratchpad != familyOf(number).statusVersion;
  }

  bool configHas(unsigned number, Key key) const {
    const auto& config = configFor(tables_[number]);
    const auto found = config.find(key);
    return found != config.end() && !found->second.isDeleted;
  }

  std::uint32_t configEntrys(unsigned number) const {
    const auto& config = configFor(tables_[number]);
    return static_cast<std::uint32_t>(std::count_if(
        config.begin(), config.end(), [](const auto& member) { return !member.second.isDeleted; }));
  }

  /// Everything that a walk returns, with the value that stays when a key comes twice.
  std::map<Key, Value> contents(unsigned number) const {
    const Table& table = tables_[number];
    std::map<Key, Value> all;
    for (const auto& [key, op] : table.adds) all[key] = op->value;
    if (table.removeAll) return all;
    for (const auto& [key, record] : configFor(table)) {
      if (!record.isDeleted && table.removes.count(key) == 0) all.emplace(key, record.value);
    }
    return all;
  }

  /// How the real tables updated the users of their resources.
  std::deque<Round> rounds;

  /// Operations whose handle changed since the list was last emptied.
  std::vector<OpPtr> touched;

  /// Roads that a run is to have taken, and how often it did.
  enum Road : std::uint8_t {
    kWaitedForDependency,
    kFailed,
    kOvertaken,
    kDoneAtCommit,
    kRemovedNothing,
    kClearedNothing,
    kReportedAll,
    kReportedBack,
    kReportedBeyond,
    kUnitMissing,
    kDeleteOvertaken,
    kPurged,
    kReportFound,
    kUpdated,
    kUpdateRefused,
    kUpdateUnchanged,
    kHelperThrew,
    kNestedPump,
    kNeeded,
    kNeededOwn,
    kIdentical,
    kOfResources,
    kWaitedForResource = kOfResources,
    kResourceFailed,
    kFailureAccepted,
    kFlipped,
    kGivePutOff,
    kLastUserGone,
    kUsualRoads,
    kWaitedForRoom = kUsualRoads,
    kConfigFull,
    kRoads
  };
  std::array<std::size_t, kRoads> roads{};

 private:
  struct Group {
    std::deque<OpPtr> queue;
    bool pumping = false;
  };

  /// A call into a table: resources do not change before the outermost one has ended.
  struct Call {
    Call(Model& ofModel, bool isCounted) : model(ofModel), counted(isCounted) {
      model.calls_ += counted;
    }
    ~Call() { model.calls_ -= counted; }
    void end() {
      if (counted && model.calls_ == 1) model.doPutOff();
    }
    Model& model;
    const unsigned counted;
  };

  Family& familyFor(const Table& table) { return families_[table.family]; }
  const std::map<Key, Support::ConfigRecord>& configFor(const Table& table) const {
    return families_[table.family].config[table.unit];
  }

  static void count(Table& table, Counter counter, int by = 1) {
    table.counters[counter] += static_cast<Version>(by);
  }

  void updateFlag(Family& family) {
    bool pending = false;
    for (unsigned t = 0; t < tables_.size(); ++t) {
      if (&familyFor(tables_[t]) == &family && present(t)) pending |= hasPendingHwWrites(t);
    }
    if (std::exchange(family.pendingHwWrites, pending) == pending) return;
    see({.kind = Event::Kind::flagged,
         .table = static_cast<unsigned>(&family - families_.data()),
         .number = pending});
  }

  void stateIs(const OpPtr& op, State state) {
    op->state = state;
    touched.push_back(op);
  }

  // The calls of clients.
  void accept(const Act& act) {
    Table& table = tables_[act.table];
    const auto op = std::make_shared<Operation>();
    op->id = nextOp_++;
    op->act = act;
    op->value = act.kind == Act::Kind::write ? act.value : 0;
    op->dependency = operation(act.dependency);
    touched.push_back(op);
    if (act.kind == Act::Kind::removeAll) {
      table.adds.clear();
      table.removes.clear();
      table.removeAll = table.removeAll ? *table.removeAll + 1 : 0;
    } else {
      const bool adds = act.kind == Act::Kind::write;
      const auto present = table.versions.find(act.key);
      op->major = present != table.versions.end() ? present->second + 1 : 0;
      table.versions[act.key] = op->major;
      (adds ? table.removes : table.adds).erase(act.key);
      (adds ? table.adds : table.removes)[act.key] = op;
      count(table, adds ? kWrites : kRemovals);
    }
    groups_[familyFor(table).group].queue.push_back(op);
    updateFlag(familyFor(table));
    // The handle of a remove-all is not given to the client.
    if (act.kind != Act::Kind::removeAll) operations_[op->id] = op;
    std::erase_if(operations_,
                  [&](const auto& member) { return nextOp_ - member.first > kHandlesKept; });
  }

  void update(const Act& act) {
    Table& table = tables_[act.table];
    Call call(*this, usesResources(table));
    const OpPtr op = updateEntry(table, act.key);
    call.end();
    if (op == nullptr) return answer(act, act.key, kNoOp);
    op->id = nextOp_++;
    operations_[op->id] = op;
    answer(act, act.key, op->id);
  }

  OpPtr updateEntry(Table& table, Key key) {
    if (!configHas(number(table), key)) return nullptr;
    const auto op = std::make_shared<Operation>();
    op->act.table = number(table);
    op->act.key = key;
    const Value old = entryFromConfig(number(table), key).second;
    const bool linked = table.users.contains(requestOf(old));
    const Resource source = linked ? resource(requestOf(old)) : Resource();
    const bool failed = linked && source.state != State::done;
    op->value = withDestination(old, source.destId);
    const unsigned which = failed ? kOnFailedUpdate : kOnResourceUpdate;
    const bool commitToLog = hook(table, op, key, op->value, which).second;
    if (failed) count(table, kFailedUpdates);
    if (op->value != old && commitToLog) {
      op->logVersion = familyFor(table).write(table.unit, key, op->value, source.needed);
      stateIs(op, State::inLog);
      count(table, kUpdates);
      ++roads[kUpdated];
    } else {
      ++roads[op->value != old ? kUpdateRefused : kUpdateUnchanged];
      op->logVersion = configFor(table).at(key).logVersion;
      stateIs(op, State::inLog);
    }
    return op;
  }

  // Resources, and who uses them.
  void give(const Act& act) {
    const auto sameKey = [&](const Act& other) { return other.key == act.key; };
    if (calls_ != 0) {
      ++roads[kGivePutOff];
      const auto earlier = std::ranges::find_if(putOff_, sameKey);
      earlier != putOff_.end() ? void(*earlier = act) : putOff_.push_back(act);
      return;
    }
    std::erase_if(putOff_, sameKey);
    Call call(*this, true);
    change(act);
    call.end();
  }

  void change(const Act& act) {
    Resource& changed = resources_[act.key];
    const State state = static_cast<State>(act.value);
    const bool differs = changed.state != state || changed.destId != act.destId;
    const Needed needed = act.number != 0 ? Needed{{kForeignTable, act.number}} : Needed{};
    changed = {true, state, act.destId, changed.number + differs, needed};
    if (!differs) return;
    auto left = std::ranges::count_if(
        tables_, [&](const Table& table) { return table.users.contains(act.key); });
    for (; left != 0; --left) {
      const Round round = nextRound();
      if (round.resource != act.key) throw std::logic_error("another resource changed");
      updateUsers(tables_[round.table], round);
    }
  }

  Round nextRound() {
    if (rounds.empty()) throw std::logic_error("a change of a resource was not taken in");
    const Round round = rounds.front();
    rounds.pop_front();
    return round;
  }

  void updateUsers(Table& table, const Round& round) {
    ++roads[kFlipped];
    const std::set<Key> updated(round.users.begin(), round.users.end());
    if (updated != table.users[round.resource] || updated.size() != round.users.size()) {
      throw std::logic_error("a change was not taken in by each user once");
    }
    Version last = kNoVersion;
    for (const Key key : round.users) {
      if (const OpPtr op = updateEntry(table, key)) last = op->logVersion;
    }
    tell(table, round.resource, false, last);
  }

  void restoreUsers(Table& table) {
    if (!usesResources(table)) return;
    for (const auto& [key, record] : configFor(table)) {
      const Key id = requestOf(record.value);
      if (!record.isDeleted && id != 0) table.users[id].insert(key);
    }
    for (auto left = table.users.size(); left != 0; --left) updateUsers(table, nextRound());
  }

  /// What the resource table is told, with the version that it may ask for later.
  void tell(const Table& table, Key id, bool isRelease, Version version) {
    see({.kind = Event::Kind::told,
         .what = isRelease,
         .table = number(table),
         .key = id,
         .number = resource(id).number,
         .value = version});
  }

  void accountFor(Table& table, const OpPtr& op, std::optional<Value> former, bool isDeleted) {
    if (!usesResources(table)) return;
    const Key key = op->act.key;
    const Key next = isDeleted ? 0 : requestOf(op->value);
    if (former && (isDeleted || requestOf(*former) != next)) {
      userGone(table, requestOf(*former), key, op->logVersion);
    }
    if (next == 0 || (former && requestOf(*former) == next)) return;
    if (!table.users.contains(next)) tell(table, next, false, op->logVersion);
    table.users[next].insert(key);
  }

  void userGone(Table& table, Key id, Key key, Version version) {
    const auto found = table.users.find(id);
    if (found == table.users.end()) return;
    found->second.erase(key);
    if (!found->second.empty()) return;
    ++roads[kLastUserGone];
    table.users.erase(found);
    tell(table, id, true, version);
  }

  std::optional<Value> formerValue(const Table& table, Key key) const {
    if (!configHas(number(table), key)) return std::nullopt;
    return entryFromConfig(number(table), key).second;
  }

  void direct(const Act& act) {
    Table& table = tables_[act.table];
    const auto present = configFor(table).find(act.key);
    if (present != configFor(table).end() && !present->second.isDeleted) {
      if (present->second.value == act.value) {
        ++roads[kIdentical];
        count(table, kSuppressed);
        if (present->second.logVersion != 0) {
          return answer(act, act.key, present->second.logVersion);
        }
      } else {
        count(table, kSuppressDiffs);
      }
    }
    answer(act, act.key, familyFor(table).write(table.unit, act.key, act.value, {}));
  }

  void settle(const Act& act) {
    const OpPtr op = operation(act.dependency);
    if (op == nullptr) return;
    if (op->id >= kFirstForeign) op->logVersion = act.number;
    stateIs(op, static_cast<State>(act.value));
  }

  // The queue and the commit.
  unsigned pump(unsigned number, Version budget) {
    Group& group = groups_[number];
    if (group.pumping) {
      ++roads[kNestedPump];
      return 0;
    }
    const Raised pumping(group.pumping);
    unsigned done = 0;
    for (; done < budget && !group.queue.empty(); ++done) {
      const OpPtr head = group.queue.front();
      if (!resolved(*head)) break;
      group.queue.pop_front();
      commit(head);
    }
    return done;
  }

  bool resolved(const Operation& op) {
    if (!waits(op)) return true;
    const bool full = familyOf(op.act.table).log.size() >= shape_.logLimit;
    const bool depends = op.dependency != nullptr && op.dependency->state == State::pending;
    ++roads[full ? kWaitedForRoom : depends ? kWaitedForDependency : kWaitedForResource];
    return false;
  }

  void commit(const OpPtr& op) {
    Table& table = tables_[op->act.table];
    Call call(*this, usesResources(table));
    const OpPtr dependency = std::exchange(op->dependency, nullptr);
    bool counts = true;
    bool threw = false;
    bool* const outer = std::exchange(handlerThrew_, &threw);
    try {
      if (dependency != nullptr && failed(dependency->state)) {
        ++roads[kFailed];
        end(op, State::dependencyFailed);
      } else if (op->act.kind == Act::Kind::removeAll) {
        commitRemoveAll(table, op, dependency);
      } else if (op->act.kind == Act::Kind::remove) {
        commitRemove(table, op, dependency);
      } else {
        counts = commitWrite(table, op, dependency);
      }
    } catch (const Thrown&) {
      threw = true;
      counts = false;
      refuse(table, op);
    }
    handlerThrew_ = outer;
    updateFlag(familyFor(table));
    if (counts) count(table, kCommits);
    if (threw) throw Thrown();
    call.end();
  }

  /// Ends the operation as if it had never been asked for.
  void refuse(Table& table, const OpPtr& op) {
    const bool adds = op->act.kind == Act::Kind::write;
    removeFromTransient(table, *op);
    count(table, adds ? kWrites : kRemovals, -1);
    end(op, State::rejected);
  }

  /// Whether the commit counts as one: a write that finds the configuration full leaves no trace
  /// but in its handle.
  bool commitWrite(Table& table, const OpPtr& op, const OpPtr& dependency) {
    const Key key = op->act.key;
    if (configFor(table).count(key) == 0 && configFor(table).size() >= shape_.configCapacity) {
      ++roads[kConfigFull];
      refuse(table, op);
      return false;
    }
    const Key id = requestOf(op->value);
    const Resource source = resource(id);
    if (id != 0 && source.state != State::done) {
      ++roads[kResourceFailed];
      count(table, kResolveFails);
      const bool plain = table.plan.plain;
      const bool accepted = hook(table, op, key, op->value, kOnFailure).second && !plain;
      if (!accepted) {
        removeFromTransient(table, *op);
        end(op, State::dependencyFailed);
        return true;
      }
      ++roads[kFailureAccepted];
    } else {
      if (usesResources(table)) op->value = withDestination(op->value, source.destId);
      hook(table, op, key, op->value, kOnSuccess);
    }
    removeFromTransient(table, *op);
    const auto former = formerValue(table, key);
    Needed needed = neededFor(table, dependency);
    for (const auto& [table, version] : source.needed) {
      needed[table] = std::max(needed[table], version);
    }
    op->logVersion = familyFor(table).write(table.unit, key, op->value, needed);
    if (familyFor(table).statusVersion < op->logVersion) {
      waitInLog(table, op);
    } else {
      ++roads[kDoneAtCommit];
      end(op, State::done);
    }
    accountFor(table, op, former, false);
    return true;
  }

  void commitRemove(Table& table, const OpPtr& op, const OpPtr& dependency) {
    const Key key = op->act.key;
    const auto former = formerValue(table, key);
    removeFromTransient(table, *op);
    hook(table, op, key, op->value, kOnSuccessOfRemove);
    op->logVersion = familyFor(table).remove(table.unit, key, neededFor(table, dependency));
    if (op->logVersion != 0) {
      waitInLog(table, op);
    } else {
      ++roads[kRemovedNothing];
      end(op, State::done);
    }
    accountFor(table, op, former, true);
  }

  void commitRemoveAll(Table& table, const OpPtr& op, const OpPtr& dependency) {
    const Version current = table.removeAll.value();
    delAllEntries(table, neededFor(table, dependency), op, true);
    table.removeAll = current == 0 ? std::nullopt : std::optional(current - 1);
  }

  void removeFromTransient(Table& table, const Operation& op) {
    auto& members = op.act.kind == Act::Kind::write ? table.adds : table.removes;
    const auto found = members.find(op.act.key);
    if (found == members.end()) return;
    if (found->second->major != op.major) {
      ++roads[kOvertaken];
      return;
    }
    members.erase(found);
    table.versions.erase(op.act.key);
  }

  void end(const OpPtr& op, State state) {
    stateIs(op, state);
    handled(op);
  }

  void waitInLog(Table& table, const OpPtr& op) {
    stateIs(op, State::inLog);
    table.handlesInLog.push_back(op);
  }

  void handled(const OpPtr& op) {
    if (!op->act.handler) return;
    see({.kind = Event::Kind::handled,
         .what = static_cast<std::uint8_t>(op->state),
         .gone = hasPendingHwWrites(op->act.table),
         .table = op->act.table,
         .key = op->act.key,
         .number = op->id,
         .value = op->logVersion});
    try {
      react(op->act);
    } catch (const Thrown&) {
      // A commit comes to its end before it tells.
      if (handlerThrew_ == nullptr) throw;
      *handlerThrew_ = true;
    }
  }

  /// What the helper makes of the value, and whether it wants it logged.
  std::pair<Value, bool> hook(Table& table, const OpPtr& op, Key key, Value value, unsigned which) {
    Act::Plan& plan = table.plan;
    if (plan.plain) return {value, true};
    // What a reader sees from within tells how far the commit has come.
    see({.kind = Event::Kind::hooked,
         .what = static_cast<std::uint8_t>(which),
         .gone = entryHas(number(table), key),
         .table = number(table),
         .key = key,
         .value = value});
    op->value ^= plan.mask;
    if (!plan.throws) return {op->value, plan.answer};
    ++roads[kHelperThrew];
    plan.throws = false;
    if (plan.rejects) stateIs(op, State::rejected);
    throw Thrown();
  }

  void delAllEntries(Table& table, const Needed& needed, const OpPtr& op, bool releases) {
    if (configFor(table).empty()) {
      ++roads[kClearedNothing];
      return;
    }
    // The handle that all releases carry is not logged yet.
    for (const Key key : familyFor(table).walk(table.unit)) {
      const auto former = formerValue(table, key);
      if (releases && former) userGone(table, requestOf(*former), key, 0);
    }
    const Version version = familyFor(table).removeAll(table.unit, needed);
    if (op != nullptr) {
      op->logVersion = version;
      stateIs(op, State::inLog);
    }
    count(table, kClears);
  }

  Needed neededFor(const Table& table, const OpPtr& dependency) {
    if (dependency == nullptr) return {};
    ++roads[kNeeded];
    if (dependency->id >= kFirstForeign) return {{kForeignTable, dependency->logVersion}};
    const unsigned family = tables_[dependency->act.table].family;
    if (family == table.family) ++roads[kNeededOwn];
    return {{shape_.tableIds[family], dependency->logVersion}};
  }

  /// What was announced so far of all other tables that anything is known of.
  Needed everythingBut(std::optional<unsigned> family) const {
    Needed everything;
    for (unsigned f = 0; f < families_.size(); ++f) {
      const Version announced = families_[f].announced;
      if (f != family && announced != 0) everything[shape_.tableIds[f]] = announced;
    }
    return everything;
  }

  // Reports of the hardware.
  void cleanup(Family& family, Version version) {
    const Version from = family.statusVersion;
    if (version > family.scratchpad) ++roads[kReportedBeyond];
    if (from == 0) ++roads[kReportedAll];
    if (version < from) ++roads[kReportedBack];
    // The first time all that the report covers, later from the last one on.
    family.clean(from, version, [&](const Support::LogRecord& record, Version logged) {
      if (!family.mounted[record.unit]) {
        ++roads[kUnitMissing];
        return false;
      }
      const auto found = family.config[record.unit].find(record.key);
      const bool overtaken =
          found != family.config[record.unit].end() && found->second.logVersion != logged;
      if (overtaken && record.flags == Support::LogFlags::entryDelete) ++roads[kDeleteOvertaken];
      return true;
    });
    family.statusVersion = version;
  }

  void report(Table& table, Version version) {
    cleanup(familyFor(table), version);
    const FlagUpdate flag{*this, familyFor(table)};
    while (!table.handlesInLog.empty()) {
      const OpPtr head = table.handlesInLog.front();
      if (version < head->logVersion) break;
      table.handlesInLog.pop_front();
      end(head, State::done);
    }
  }

  /// The flag of pending writes tells the truth however a report ends, and what a handler throws in
  /// a report goes to whoever reported, even within a commit.
  struct FlagUpdate {
    Model& model;
    Family& family;
    bool* outer = std::exchange(model.handlerThrew_, nullptr);
    ~FlagUpdate() {
      model.handlerThrew_ = outer;
      model.updateFlag(family);
    }
  };

  /// The tables hear of it in any order.
  void hear(const Act& act) {
    Call call(*this, true);
    if (act.flag) familyFor(tables_[act.table]).reportedIs(act.number);
    for (Family& family : families_) {
      if (!family.reported || family.taken == family.reported) continue;
      family.taken = family.reported;
      for (Table& table : tables_) {
        if (&familyFor(table) == &family && family.mounted[table.unit]) {
          report(table, *family.reported);
        }
      }
    }
    call.end();
  }

  unsigned number(const Table& table) const {
    return static_cast<unsigned>(&table - tables_.data());
  }

  Shape shape_;
  std::vector<Family> families_;
  std::vector<Table> tables_;
  std::vector<Group> groups_;
  std::map<OpId, OpPtr> operations_;
  std::vector<OpPtr> foreigns_;
  OpId nextOp_ = 0;
  std::map<Key, Resource> resources_;
  /// Calls of tables that use resources, one within the other, and what comes behind them.
  unsigned calls_ = 0;
  std::deque<Act> putOff_;
  /// While a commit runs: where it notes that a handler threw.
  bool* handlerThrew_ = nullptr;
};

inline std::string toText(const Event& event) {
  static constexpr const char* kNames[] = {"flagged",  "hooked", "handled",
                                           "answered", "threw",  "told"};
  return fmt::format(
      "{} what {}{} table {} key {} number {} value {}", kNames[static_cast<unsigned>(event.kind)],
      event.what, event.gone ? " gone" : "", event.table, event.key,
      static_cast<std::int64_t>(event.number), static_cast<std::int64_t>(event.value));
}

/// What the real agent did otherwise; empty if it did the same.
inline std::string difference(const std::vector<Event>& expected, const std::vector<Event>& seen) {
  for (std::size_t i = 0; i < std::max(expected.size(), seen.size()); ++i) {
    if (i < expected.size() && i < seen.size() && expected[i].facts() == seen[i].facts()) continue;
    return fmt::format("event {}: expected {}, saw {}", i,
                       i < expected.size() ? toText(expected[i]) : "nothing",
                       i < seen.size() ? toText(seen[i]) : "nothing");
  }
  return "";
}

}  // namespace TableModel
