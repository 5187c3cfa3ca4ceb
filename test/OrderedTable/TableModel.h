#pragma once

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
    hear,       ///< of what the hardware says in shared memory, all tables
    has,
    read,
    entry,
    config,
    count,
    iterBegin,  ///< slot, of this table alone; flag: from the key
    iterStep,   ///< slot
    snapshot,
    settle,  ///< dependency: a handle gets the state `value` and, if foreign, a log version
    helper,  ///< plan; flag: the one that is there once more
    watch,   ///< flag: the table's changes are listened to or not
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
  enum class Kind : std::uint8_t { changed, counted, flagged, hooked, handled, answered, threw };

  Kind kind;
  /// Of a change: the attribute's offset. Of a counter: which. Of an answer: to what.
  std::uint8_t what = 0;
  bool gone = false;
  unsigned table = 0;
  Key key = 0;
  Version number = 0;
  Version value = 0;
  /// Neighbours with the same number, if it is not 0, may stand in any order.
  unsigned anyOrder = 0;

  /// All but `anyOrder`.
  auto facts() const { return std::tie(kind, what, gone, table, key, number, value); }
};

/// Offsets of a table's published attributes from the first one.
enum Field : std::uint8_t {
  kHelper = 0,
  kAdds = 1,
  kRemoves = 2,
  kVersions = 3,
  kRemoveAll = 4,
  kHandles = 20
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
};

struct Table {
  unsigned family = 0;
  unsigned unit = 0;
  std::map<Key, OpPtr> adds;
  std::map<Key, OpPtr> removes;
  std::map<Key, Version> versions;
  std::optional<Version> removeAll;
  std::deque<OpPtr> handlesInLog;
  std::uint32_t nextIndex = 1;
  std::array<Version, kCounters> counters{};
  Act::Plan plan;
  bool watched = false;
};

struct Iteration {
  unsigned table = 0;
  bool hasCurrent = false;
  bool inAdds = false;
  bool inConfig = false;
  bool removeAllPending = false;
  bool hasBookmark = false;
  Key bookmark = 0;

  Version flags() const {
    return Version{hasCurrent} | Version{inAdds} << 1 | Version{inConfig} << 2 |
           Version{removeAllPending} << 3 | Version{hasBookmark} << 4;
  }
};

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

  explicit Model(Shape shape);

  void apply(const Act& act) override;

  /// A new agent: everything in flight is gone.
  void start(const Start& start);
  /// Makes the table of a unit that the agent did not have so far.
  void mountTable(unsigned table, bool reset);

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
  /// As often at most may the head of a queue have been asked.
  Version looks(unsigned group) const { return groups_[group].looks; }
  OpId nextOp() const { return nextOp_; }
  /// The operation if it can still be depended on, otherwise null.
  OpPtr operation(OpId id) const;
  /// Pending though it is in no queue: a helper threw in the midst of its commit.
  bool abandoned(const Operation& op) const;
  /// Whether the operation, were it the head of its queue, could not be committed now.
  bool waits(const Operation& op) const;

  bool entryHas(unsigned table, Key key) const;
  std::pair<Key, Value> entryRead(unsigned table, Key key) const;
  std::pair<Key, Value> entryFromConfig(unsigned table, Key key) const;
  std::uint32_t entrys(unsigned table) const;
  bool hasPendingHwWrites(unsigned table) const;
  bool configHas(unsigned table, Key key) const;
  std::uint32_t configEntrys(unsigned table) const;
  /// Everything that a walk returns, with the value that stays when a key comes twice.
  std::map<Key, Value> contents(unsigned table) const;

  /// The order of a table's writes in flight at each coming step of an iteration through them: that
  /// of a hash map, so nobody's to foretell.
  std::deque<std::vector<Key>> addOrders;

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
    kBookmarkLost,
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
    const Operation* asked = nullptr;
    Version askedAt = 0;
    Version looks = 0;
  };

  Family& familyFor(const Table& table) { return families_[table.family]; }
  const std::map<Key, Support::ConfigRecord>& configFor(const Table& table) const {
    return families_[table.family].config[table.unit];
  }

  // What is published.
  void changed(const Table& table, Field field, Key key, bool gone, Version value,
               unsigned anyOrder = 0);
  void count(Table& table, Counter counter, int by = 1);
  void updateFlag(Family& family);
  void stateIs(const OpPtr& op, State state);

  // The calls of clients.
  void accept(const Act& act);
  void acceptWrite(Table& table, const OpPtr& op);
  void acceptRemove(Table& table, const OpPtr& op);
  void acceptRemoveAll(Table& table, const OpPtr& op);
  void newVersion(Table& table, const OpPtr& op);
  void addsDel(Table& table, Key key);
  void removesDel(Table& table, Key key);
  void delAll(Table& table, Field field, std::map<Key, OpPtr>& members);
  void update(const Act& act);
  void direct(const Act& act);
  void settle(const Act& act);
  void helper(const Act& act);
  void answer(const Act& act, Key key, Version number, Version value = 0);
  void answer(const Act& act, std::pair<Key, Value> entry, Version number = 0);

  // The queue and the commit.
  unsigned pump(unsigned group, Version budget);
  bool resolved(const Operation& op);
  void commit(const OpPtr& op);
  bool commitWrite(Table& table, const OpPtr& op, const OpPtr& dependency);
  void commitRemove(Table& table, const OpPtr& op, const OpPtr& dependency);
  void commitRemoveAll(Table& table, const OpPtr& op, const OpPtr& dependency);
  void removeFromTransient(Table& table, const Operation& op, bool isAdd);
  void waitInLog(Table& table, const OpPtr& op);
  void handled(const OpPtr& op);
  /// What the helper makes of the value, and whether it wants it logged.
  std::pair<Value, bool> hook(Table& table, const OpPtr& op, Key key, Value value, unsigned which);
  void delAllEntries(Table& table, const Needed& needed, const OpPtr& op);
  Needed neededFor(const Table& table, const OpPtr& dependency);
  Needed everythingBut(const Family& family) const;

  // Reports of the hardware.
  void cleanup(Family& family, Version version);
  void report(Table& table, Version version);
  void hear();

  // Iteration.
  void iterBegin(const Act& act);
  void iterStep(const Act& act);
  std::optional<std::pair<Key, Value>> stepAdds(Iteration& it);
  std::optional<std::pair<Key, Value>> stepConfig(Iteration& it);
  /// The key that a walk comes to behind that one, or first.
  std::optional<Key> configAfter(const Table& table, std::optional<Key> key) const;
  static void leaveAdds(Iteration& it);
  unsigned number(const Table& table) const {
    return static_cast<unsigned>(&table - tables_.data());
  }

  Shape shape_;
  std::vector<Family> families_;
  std::vector<Table> tables_;
  std::vector<Group> groups_;
  std::map<OpId, OpPtr> operations_;
  std::vector<OpPtr> foreigns_;
  std::map<unsigned, Iteration> iterations_;
  OpId nextOp_ = 0;
  /// Whatever can alter what the head of a queue answers.
  Version changes_ = 0;
  unsigned nextAnyOrder_ = 1;
};

std::string toText(const Event& event);
/// What the real agent did otherwise; empty if it did the same.
std::string difference(std::vector<Event> expected, std::vector<Event> seen);

}  // namespace TableModel
