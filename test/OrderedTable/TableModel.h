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
  enum class Kind : std::uint8_t { flagged, hooked, handled, answered, threw };

  Kind kind;
  /// Of an answer: to what. Of a hook: which.
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

inline constexpr unsigned kOnSuccess = 0, kOnSuccessOfRemove = 1, kOnResourceUpdate = 2;

class Model final : public Agent {
 public:
  struct Shape {
    std::vector<std::uint32_t> tableIds;
    std::vector<unsigned> groupOfFamily;
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
      case Kind::clear:
        return delAllEntries(table, {}, nullptr);
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
    for (Family& family : families_) {
      family.mounted.assign(shape_.units, false);
      family.takeOver(everythingBut(family));
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
    if (reset) delAllEntries(table, {}, nullptr);
    report(table, version);
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
           (op.dependency != nullptr && op.dependency->state == State::pending);
  }

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
    if (!configHas(act.table, act.key)) return answer(act, act.key, kNoOp);
    const auto op = std::make_shared<Operation>();
    op->act = act;
    op->value = entryFromConfig(act.table, act.key).second;
    const Value old = op->value;
    const bool commitToLog = hook(table, op, act.key, old, kOnResourceUpdate).second;
    if (op->value != old && commitToLog) {
      op->logVersion = familyFor(table).write(table.unit, act.key, op->value, {});
      stateIs(op, State::inLog);
      count(table, kUpdates);
      ++roads[kUpdated];
    } else {
      ++roads[op->value != old ? kUpdateRefused : kUpdateUnchanged];
      op->logVersion = configFor(table).at(act.key).logVersion;
      stateIs(op, State::inLog);
    }
    op->id = nextOp_++;
    operations_[op->id] = op;
    answer(act, act.key, op->id);
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
    ++roads[full ? kWaitedForRoom : kWaitedForDependency];
    return false;
  }

  void commit(const OpPtr& op) {
    Table& table = tables_[op->act.table];
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
    hook(table, op, key, op->value, kOnSuccess);
    removeFromTransient(table, *op);
    op->logVersion =
        familyFor(table).write(table.unit, key, op->value, neededFor(table, dependency));
    if (familyFor(table).statusVersion < op->logVersion) {
      waitInLog(table, op);
    } else {
      ++roads[kDoneAtCommit];
      end(op, State::done);
    }
    return true;
  }

  void commitRemove(Table& table, const OpPtr& op, const OpPtr& dependency) {
    const Key key = op->act.key;
    removeFromTransient(table, *op);
    hook(table, op, key, op->value, kOnSuccessOfRemove);
    op->logVersion = familyFor(table).remove(table.unit, key, neededFor(table, dependency));
    if (op->logVersion != 0) {
      waitInLog(table, op);
    } else {
      ++roads[kRemovedNothing];
      end(op, State::done);
    }
  }

  void commitRemoveAll(Table& table, const OpPtr& op, const OpPtr& dependency) {
    const Version current = table.removeAll.value();
    delAllEntries(table, neededFor(table, dependency), op);
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

  void delAllEntries(Table& table, const Needed& needed, const OpPtr& op) {
    if (configFor(table).empty()) {
      ++roads[kClearedNothing];
      return;
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
  Needed everythingBut(const Family& family) const {
    Needed everything;
    for (unsigned f = 0; f < families_.size(); ++f) {
      const Version announced = families_[f].announced;
      if (&families_[f] != &family && announced != 0) everything[shape_.tableIds[f]] = announced;
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
  /// While a commit runs: where it notes that a handler threw.
  bool* handlerThrew_ = nullptr;
};

inline std::string toText(const Event& event) {
  static constexpr const char* kNames[] = {"flagged", "hooked", "handled", "answered", "threw"};
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
