#include "agent/Programmer.h"

#include <fmt/format.h>

#include <algorithm>
#include <vector>

#include "policy/Rows.h"

namespace Agent {
namespace {

using Policy::ActionRow;
using Policy::PlacedRule;
using Policy::PrefixRow;
using Policy::Step;
using std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;

/// Operations in flight: enough for the library to prefetch, few enough to stay in the cache.
constexpr std::size_t kWindow = 1024;
/// Steps between two checks of the number in flight.
constexpr std::size_t kLook = 64;
constexpr unsigned kPumpBudget = 1024;
constexpr milliseconds kSleep{100};
/// Time without progress of the hardware after which the user is told what is awaited.
constexpr std::chrono::seconds kPatience{2};

QuarnBastil::BigBbFamily::Key keyOf(const PrefixRow& row) {
  return {row.prefix.address, row.prefix.length};
}
QuarnBastil::TcamEntryEntryKey keyOf(const PlacedRule& placed) {
  return {placed.bank, placed.index};
}
QuarnBastil::TcamActionEntryKey keyOf(const ActionRow& row) { return {row.bank, row.index}; }
ActionRow actionOf(const PlacedRule& placed) {
  return {placed.bank, placed.index, placed.row.redirect};
}
QuarnBastil::TcamEntryEntry entryOf(const PlacedRule& placed) {
  return Policy::entryOf(placed.row, placed.rule, keyOf(placed));
}

}  // namespace

/// One plan being carried out in the tables of one unit.
class Programmer::Run {
 public:
  Run(Programmer& programmer, Unit& unit, const Policy::Plan& plan)
      : tables_(programmer.tables_),
        ends_(programmer.ends_),
        rate_(programmer.rate_),
        unit_(unit),
        plan_(plan),
        progress_(fmt::format("unit {}", unit.id.value()), plan.rows()),
        handles_(plan.steps.size()),
        // Operations of an earlier change that the hardware has not reported come first.
        beforePrefixes_(isBehind(*unit.rules) ? loggedSoFar(*unit.rules) : nullptr),
        beforeRules_(isBehind(*unit.prefixes) ? loggedSoFar(*unit.prefixes) : nullptr),
        prefixesBehind_(isBehind(*unit.prefixes)),
        rulesBehind_(isBehind(*unit.rules)),
        actionsBehind_(unit.actions != nullptr && isBehind(*unit.actions)) {
    for (const Step& step : plan.steps) {
      if (step.after != Step::kNone) handles_[step.after].isNeeded = true;
    }
  }

  bool done() {
    for (const ActionRow& action : plan_.lostActions) {
      if (!mayQueue() || !awaitAction(action)) return false;
      write(*unit_.actions, action, nullptr);
    }
    for (const Step& step : plan_.steps) {
      if (!mayQueue()) return false;
      if (!(step.onPrefixes() ? queuePrefix(step) : queueRule(step))) return false;
      ++step_;
    }
    if (!plan_.looseActions.empty() && !drain(0)) return false;
    for (const ActionRow& action : plan_.looseActions) {
      if (!mayQueue()) return false;
      remove(*unit_.actions, action, loggedSoFar(*unit_.rules));
    }
    return drain(0);
  }

 private:
  struct Handle {
    bool isNeeded = false;
    Dependency handle;
  };

  /// Waits for the next row's turn, and for room among the operations in flight.
  bool mayQueue() {
    if (rate_ != 0 && !awaitTurn()) return false;
    return next_ % kLook != 0 || tables_.queued() < kWindow || drain(kWindow / 2);
  }

  bool queuePrefix(const Step& step) {
    auto& table = *unit_.prefixes;
    const PrefixRow& row = std::get<PrefixRow>(step.row);
    if ((prefixesBehind_ || step.again) && !awaitKey(table, keyOf(row), step)) return false;
    const Dependency before = beforeOf(step, beforePrefixes_);
    queued(step.removes ? remove(table, row, before) : write(table, row, before));
    return true;
  }

  /// A redirecting rule has its action before it, which waits for what the rule needs, and after it
  /// when both go.
  bool queueRule(const Step& step) {
    auto& table = *unit_.rules;
    const PlacedRule& row = std::get<PlacedRule>(step.row);
    if ((rulesBehind_ || step.again) && !awaitKey(table, keyOf(row), step)) return false;
    const bool writesAction = step.withAction && !step.removes;
    if (writesAction && !awaitAction(actionOf(row))) return false;
    Dependency before = beforeOf(step, beforeRules_);
    if (writesAction) before = write(*unit_.actions, actionOf(row), before);
    const Dependency handle = step.removes ? remove(table, row, before) : write(table, row, before);
    if (step.withAction && step.removes) remove(*unit_.actions, actionOf(row), handle);
    queued(handle);
    return true;
  }

  Dependency beforeOf(const Step& step, Dependency& before) const {
    const Dependency earlier = std::exchange(before, nullptr);
    return step.after == Step::kNone ? earlier : handles_[step.after].handle;
  }

  void queued(const Dependency& handle) {
    if (handles_[step_].isNeeded) handles_[step_].handle = handle;
  }

  template <class SwTable, class Row>
  Dependency write(SwTable& table, const Row& row, const Dependency& before) {
    ++next_;
    return table.entryWriteWithResponseHandler(keyOf(row), entryOf(row), before,
                                               rejectionTeller(table));
  }

  template <class SwTable, class Row>
  Dependency remove(SwTable& table, const Row& row, const Dependency& before) {
    ++next_;
    return table.entryRemoveWithResponseHandler(keyOf(row), before, rejectionTeller(table));
  }

  /// Waits until the next row may be queued without exceeding the requested rate.
  bool awaitTurn() {
    const auto due = began_ + next_ * Clock::duration(std::chrono::seconds(1)) / rate_;
    while (Clock::now() < due) {
      if (ends_()) return false;
      progress_.at(next_ - std::min(next_, tables_.queued()));
      if (tables_.interface().pump(kPumpBudget).more) continue;
      tables_.waitForReport(std::min<Clock::duration>(due - Clock::now(), kSleep));
    }
    return true;
  }

  /// Before an action is written. It may go at any time after its rule, also one that has just
  /// followed its next hop.
  bool awaitAction(const ActionRow& action) {
    return !actionsBehind_ || awaitKey(*unit_.actions, keyOf(action), {});
  }

  /// Waits until the hardware has reported the key's last operation and, for a new row, until rows
  /// being removed leave room for it.
  template <class SwTable, class Key>
  bool awaitKey(SwTable& table, const Key& key, const Step& step) {
    if (step.again && !drain(0)) return false;
    const auto& log = *table.entryLog();
    const auto mayGo = [&] {
      const auto version = log.entryLogVersion(key, table.unitId());
      if (version > log.tableStatusVersion()) return false;
      if (step.removes || version != Asic::LogVersion(0)) return true;
      return log.tableConfigDrift(table.unitId())->map()->driftMapSize() + tables_.queued() <
             SwTable::Types::kConfigCapacity;
    };
    while (!mayGo()) {
      if (!pumpOrSleep()) return false;
    }
    return true;
  }

  /// Pumps until at most `left` operations are queued.
  bool drain(std::size_t left) {
    while (tables_.queued() > left) {
      if (!pumpOrSleep()) return false;
    }
    return true;
  }

  bool pumpOrSleep() {
    if (ends_()) return false;
    const auto pumped = tables_.interface().pump(kPumpBudget);
    progress_.at(next_ - std::min(next_, tables_.queued()));
    if (pumped.commits != 0 || pumped.reports != 0) {
      lastMove_ = Clock::now();
    } else if (!pumped.more) {
      tables_.waitForReport(kSleep);
      complain();
    }
    return true;
  }

  void complain() {
    if (complained_ || Clock::now() - lastMove_ < kPatience) return;
    complained_ = true;
    progress_.say(fmt::format("unit {}: waiting for the hardware writer: {}", unit_.id.value(),
                              tables_.waitsFor()));
  }

  Tables& tables_;
  const std::function<bool()>& ends_;
  const unsigned rate_;
  const Clock::time_point began_ = Clock::now();
  Unit& unit_;
  const Policy::Plan& plan_;
  Progress progress_;
  std::vector<Handle> handles_;
  Dependency beforePrefixes_;
  Dependency beforeRules_;
  bool prefixesBehind_;
  bool rulesBehind_;
  bool actionsBehind_;
  /// Position of the step at work, and number of rows queued.
  std::size_t step_ = 0;
  std::size_t next_ = 0;
  Clock::time_point lastMove_ = Clock::now();
  bool complained_ = false;
};

bool Programmer::carryOut(Unit& unit, const Policy::Plan& plan) {
  unit.nextIndex = plan.nextIndex;
  return Run(*this, unit, plan).done();
}

}  // namespace Agent
