#include "agent/Programmer.h"

#include <fmt/format.h>

#include <algorithm>
#include <vector>

#include "policy/Rows.h"

namespace Agent {
namespace {

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
        progress_(fmt::format("unit {}", unit.id.value()), plan.steps.size()),
        handles_(plan.steps.size()),
        // Operations of an earlier change that the hardware has not reported come first.
        beforePrefixes_(isBehind(*unit.rules) ? Tables::loggedSoFar(*unit.rules) : nullptr),
        beforeRules_(isBehind(*unit.prefixes) ? Tables::loggedSoFar(*unit.prefixes) : nullptr),
        prefixesBehind_(isBehind(*unit.prefixes)),
        rulesBehind_(isBehind(*unit.rules)) {
    for (const Step& step : plan.steps) {
      if (step.after != Step::kNone) handles_[step.after].isNeeded = true;
    }
  }

  bool done() {
    for (next_ = 0; next_ < plan_.steps.size(); ++next_) {
      const Step& step = plan_.steps[next_];
      if (rate_ != 0 && !awaitTurn()) return false;
      const bool queued = step.onPrefixes() ? queue(*unit_.prefixes, std::get<0>(step.row), step)
                                            : queue(*unit_.rules, std::get<1>(step.row), step);
      if (!queued) return false;
      if (next_ % kLook == 0 && tables_.queued() >= kWindow && !drain(kWindow / 2)) return false;
    }
    return drain(0);
  }

 private:
  struct Handle {
    bool isNeeded = false;
    Dependency handle;
  };

  template <class SwTable, class Row>
  bool queue(SwTable& table, const Row& row, const Step& step) {
    const auto key = keyOf(row);
    if ((step.onPrefixes() ? prefixesBehind_ : rulesBehind_) || step.again) {
      if (!awaitKey(table, key, step)) return false;
    }
    const auto tell = [&table](const auto& handle) {  // may be called after this run
      if (Asic::entryFailed(handle->entryState())) fail(table, *handle);
    };
    Dependency& before = step.onPrefixes() ? beforePrefixes_ : beforeRules_;
    Dependency dependency = step.after == Step::kNone ? before : handles_[step.after].handle;
    before = nullptr;
    const Dependency handle =
        step.removes ? table.entryRemoveWithResponseHandler(key, dependency, tell)
                     : table.entryWriteWithResponseHandler(key, entryOf(row), dependency, tell);
    if (handles_[next_].isNeeded) handles_[next_].handle = handle;
    return true;
  }

  template <class SwTable, class Handle>
  [[noreturn]] static void fail(SwTable& table, const Handle& handle) {
    const auto& own = dynamic_cast<const typename SwTable::EntryHandle&>(handle);
    throw RowRejected(fmt::format(
        "{} unit {}, row {}: {}. What was written before it stays; started again when there is "
        "room, the agent goes on from there",
        table.canonicalName()->name(), table.unitId().value(), own.keyText(), own.rejection()));
  }

  /// Waits until the next row may be queued without exceeding the requested rate.
  bool awaitTurn() {
    const auto due = began_ + next_ * Clock::duration(std::chrono::seconds(1)) / rate_;
    while (Clock::now() < due) {
      if (ends_()) return false;
      progress_.at(next_ - std::min(next_, tables_.queued()));
      if (tables_.interface().pump(kPumpBudget).more) continue;
      tables_.interface().waitForReport(std::min<Clock::duration>(due - Clock::now(), kSleep));
    }
    return true;
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
      tables_.interface().waitForReport(kSleep);
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
  std::size_t next_ = 0;
  Clock::time_point lastMove_ = Clock::now();
  bool complained_ = false;
};

bool Programmer::carryOut(Unit& unit, const Policy::Plan& plan) {
  unit.nextIndex = plan.nextIndex;
  return Run(*this, unit, plan).done();
}

}  // namespace Agent
