#include <gtest/gtest.h>

#include <random>
#include <span>

#include "OrderedTable/RealAgent.h"
#include "OrderedTable/ToyFamily.h"
#include "Support/Soak.h"
#include "Support/TempDir.h"

namespace {

using namespace TableModel;
using Kind = Act::Kind;

/// Together a million in an ordinary run, each in a process of its own.
constexpr unsigned kRuns = 2;
#if BASTIL_SANITIZED
constexpr std::uint64_t kSteps = 30'000;
constexpr unsigned kRoomSteps = 2'000;
#else
constexpr std::uint64_t kSteps = 500'000;
constexpr unsigned kRoomSteps = 20'000;
#endif

constexpr Key kKeys = 64;

/// Random acts, chosen with an eye on the model so that roads cross.
class Choice {
 public:
  Choice(unsigned seed, const Model& model) : random_(seed), model_(model) { newHabits(); }

  unsigned below(std::uint64_t bound) { return static_cast<unsigned>(random_() % bound); }
  bool percent(unsigned share) { return below(100) < share; }

  /// Reports move on by so little at a time.
  void reportStepIs(unsigned step) { reportStep_ = step; }
  /// How the next stretch of acts is made.
  void newHabits() {
    keys_ = 1U << (1 + below(6));
    dependentShare_ = below(3) * 25;
    pumpWeight_ = 4 + below(24);
    reportWeight_ = 2 + below(20);
    hostile_ = percent(50);
  }
  /// Nothing that goes over all entries or clears them.
  void sparingIs() { sparing_ = true; }

  Act act(unsigned depth = 0) {
    Act act;
    act.table = presentTable();
    act.key = below(keys_);
    act.value = below(6);
    switch (pick({28, 14, sparing_ ? 0U : 1U, pumpWeight_, reportWeight_, 4, 2, 12, 6, 6})) {
      case 0:
        operation(act, Kind::write, depth);
        break;
      case 1:
        operation(act, Kind::remove, depth);
        break;
      case 2:
        act.key = 0;
        operation(act, Kind::removeAll, depth);
        if (percent(30)) act.kind = Kind::clear;
        act.flag = percent(50);
        break;
      case 3:
        pump(act);
        break;
      case 4:
        report(act);
        break;
      case 5:
        act.kind = percent(80) || model_.configEntrys(act.table) == 0 ? Kind::update : Kind::direct;
        if (sparing_) act.kind = Kind::update;
        break;
      case 6:
        helper(act);
        break;
      case 7:
        read(act);
        break;
      case 8:
        settle(act);
        break;
      default:
        iterate(act);
        break;
    }
    return act;
  }

  Model::Start start(bool first) {
    Model::Start start;
    if (first) return start;
    for (unsigned t = 0; t < model_.tableCount(); ++t) {
      if (percent(15)) start.absent.insert(t);
      if (percent(10)) start.reset.insert(t);
    }
    // Someone must be there.
    start.absent.erase(below(model_.tableCount()));
    return start;
  }
  /// What the hardware has reported of a family while no agent was there, if anything.
  std::optional<Version> reported(unsigned family) {
    return percent(70) ? std::optional(version(model_.family(family))) : std::nullopt;
  }

  /// A version that the hardware may report: mostly a true one.
  Version version(const TableModel::Family& family) {
    const Version newest = family.scratchpad, known = std::min(family.statusVersion, newest);
    if (reportStep_ != 0) return std::min(newest, known + below(reportStep_));
    switch (pick({40, 30, 5, 10, 3, hostile_ ? 4U : 0U})) {
      case 0:
        return known + random_() % (newest - known + 1);
      case 1:
        return newest;
      case 2:
        return known;
      case 3:
        return random_() % (newest + 1);
      case 4:
        return 0;
      default:
        break;
    }
    const Version wrong[] = {newest + 1 + below(5), Version{1} << 63, UINT64_MAX};
    return wrong[below(3)];
  }

 private:
  unsigned pick(std::initializer_list<unsigned> weights) {
    unsigned sum = 0;
    for (const unsigned weight : weights) sum += weight;
    unsigned at = below(sum), index = 0;
    for (const unsigned weight : weights) {
      if (at < weight) return index;
      at -= weight;
      ++index;
    }
    return index;
  }

  unsigned presentTable() {
    for (;;) {
      const unsigned table = below(model_.tableCount());
      if (model_.present(table)) return table;
    }
  }

  void operation(Act& act, Kind kind, unsigned depth) {
    act.kind = kind;
    if (percent(dependentShare_)) {
      const OpId next = model_.nextOp();
      act.dependency = percent(20) ? kFirstForeign + below(kForeigns)
                       : next == 0 ? kNoOp
                                   : next - 1 - below(std::min<OpId>(next, 40));
    }
    act.handler = percent(60);
    if (!act.handler || depth == 2) return;
    while (percent(15)) act.reaction.push_back(this->act(depth + 1));
    act.handlerThrows = percent(2);
  }

  void pump(Act& act) {
    act.kind = Kind::pump;
    act.table = below(model_.groupCount());
    act.key = 0;
    act.number = percent(30) ? 1 : below(20);
  }

  void report(Act& act) {
    act.kind = Kind::report;
    act.number = version(model_.familyOf(act.table));
  }

  void helper(Act& act) {
    act.kind = percent(70) ? Kind::helper : Kind::watch;
    act.flag = percent(act.kind == Kind::watch ? 60 : 10);
    act.plan.plain = percent(30);
    act.plan.mask = percent(50) ? 1 + below(7) : 0;
    act.plan.answer = percent(80);
    act.plan.throws = percent(10);
    act.plan.rejects = percent(70);
  }

  void read(Act& act) {
    const Kind kinds[] = {Kind::has, Kind::read, Kind::entry, Kind::config, Kind::count};
    act.kind = kinds[below(sparing_ || percent(60) ? 4 : 5)];
  }

  void settle(Act& act) {
    act.kind = Kind::settle;
    const State states[] = {State::pending,          State::inLog,
                            State::rejected,         State::done,
                            State::dependencyFailed, State::resourceFailed};
    act.value = static_cast<Value>(states[below(6)]);
    act.number = below(1000);
    act.dependency = kFirstForeign + below(kForeigns);
    // Whom nobody will ever finish, somebody must.
    const auto& queue = model_.queue(below(model_.groupCount()));
    if (queue.empty() || queue.front()->dependency == nullptr) return;
    const Operation& waitedFor = *queue.front()->dependency;
    if (waitedFor.state != State::pending) return;
    if (waitedFor.id < kFirstForeign) return;
    act.dependency = waitedFor.id;
    act.value = static_cast<Value>(states[1 + below(5)]);
  }

  void iterate(Act& act) {
    act.kind = sparing_      ? Kind::has
               : percent(4)  ? Kind::snapshot
               : percent(20) ? Kind::iterBegin
                             : Kind::iterStep;
    act.slot = act.table * 2 + below(2);
    act.flag = percent(50);
  }

  std::mt19937_64 random_;
  const Model& model_;
  unsigned keys_ = 16;
  unsigned dependentShare_ = 0;
  unsigned pumpWeight_ = 1;
  unsigned reportWeight_ = 1;
  bool hostile_ = false;
  bool sparing_ = false;
  unsigned reportStep_ = 0;
};

/// Both agents, step by step.
class TwinRun {
 public:
  enum class Depth { quick, full, walked };

  explicit TwinRun(unsigned seed)
      : plan_([&] {
          auto families = familiesOfRun(seed);
          families.push_back(familyOfRun<ToyFamily>());
          return planOf(families);
        }()),
        model(plan_.shape),
        real(dir_.path(), plan_),
        choice(seed, model) {
    real.start({});
    for (unsigned t = 0; t < model.tableCount(); ++t) {
      const unsigned units = plan_.shape.units;
      model.family(t / units).places[t % units] =
          real.families[t / units]->learnPlaces(t % units, kKeys + 1);
    }
    start(true);
  }

  void start(bool first = false) {
    const Model::Start start = choice.start(first);
    for (unsigned f = 0; f < real.families.size() && !first; ++f) reportedIs(f);
    real.end();
    real.start(start);
    model.start(start);
    model.touched.clear();
    forgetEvents();
    compare(Depth::walked);
  }

  void mountMissing() {
    for (unsigned t = 0; t < model.tableCount(); ++t) {
      if (model.present(t)) continue;
      reportedIs(t / plan_.shape.units);
      const bool reset = choice.percent(20);
      real.mountTable(t, reset);
      model.mountTable(t, reset);
      forgetEvents();
      return compare(Depth::full);
    }
  }

  void step(const Act& act) {
    real.run(act);
    model.addOrders.swap(real.addOrders);
    real.addOrders.clear();
    model.run(act);
    expectNone(difference(model.events, real.events));
    forgetEvents();
    compareTouched();
    compare(Depth::quick);
  }

  void compare(Depth depth) {
    Differences differ;
    for (const auto& family : real.families) {
      depth == Depth::quick ? family->compareQuickly(differ, model)
                            : family->compareFully(differ, model, kKeys);
      if (depth == Depth::walked) family->compareWalks(differ, model);
    }
    expectNone(differ.text);
  }

  /// Logs so many writes to so many keys beyond those of the acts, without a look at what they do.
  void fill(unsigned table, Key records, Key keys) {
    Act act;
    act.kind = Kind::direct;
    act.table = table;
    for (; records != 0; --records) {
      act.key = 1000 + records % keys;
      act.value = 1 + records / keys % 2;
      real.run(act);
      model.run(act);
      forgetEvents();
    }
  }

 private:
  const Support::TempDir dir_;
  const RealAgent::Plan plan_;

 public:
  Model model;
  RealAgent real;
  Choice choice;

 private:
  static void expectNone(const std::string& differs) {
    if (!differs.empty()) throw std::logic_error(differs);
  }

  void reportedIs(unsigned family) {
    model.family(family).reported = choice.reported(family);
    real.families[family]->reportedIs(model.family(family).reported);
  }
  void forgetEvents() {
    real.events.clear();
    model.events.clear();
  }

  void compareTouched() {
    for (const OpPtr& op : model.touched) {
      if (op->id >= kFirstForeign) continue;
      const HandlePtr handle = real.handle(op->id);
      if (handle == nullptr) continue;
      if (static_cast<State>(handle->entryState()) != op->state ||
          handle->logVersion().value() != op->logVersion ||
          handle->version() != Asic::EntryVersion(Asic::MajorVersion(op->major), 0)) {
        throw std::logic_error(fmt::format(
            "the handle of operation {} is in state {} at {} instead of {} at {}", op->id,
            static_cast<unsigned>(handle->entryState()), handle->logVersion().value(),
            static_cast<unsigned>(op->state), op->logVersion));
      }
    }
    model.touched.clear();
  }
};

void runSteps(unsigned seed, std::uint64_t steps) {
  TwinRun run(seed);
  std::uint64_t step = 0;
  std::uint64_t untilStart = 500;
  try {
    for (; step < steps; ++step) {
      if (untilStart-- == 0) {
        run.start();
        untilStart = 200 + run.choice.below(4000);
      } else if (step % 128 == 0) {
        run.choice.newHabits();
        if (run.choice.percent(30)) run.mountMissing();
      }
      if (step % 512 == 0) {
        run.compare(step % 4096 == 0 ? TwinRun::Depth::walked : TwinRun::Depth::full);
      }
      run.step(run.choice.act());
    }
    run.compare(TwinRun::Depth::walked);
  } catch (const std::exception& error) {
    FAIL() << "step " << step << ": " << error.what();
  }
  EXPECT_THAT(std::span(run.model.roads).first(Model::kUsualRoads), testing::Each(testing::Gt(0U)));
}

class TableModelSoak : public testing::TestWithParam<unsigned> {};

INSTANTIATE_TEST_SUITE_P(Runs, TableModelSoak, testing::Range(0U, kRuns));

TEST_P(TableModelSoak, TheTablesDoWhatTheModelDoes) {
  const unsigned seed = Support::seed() + GetParam();
  SCOPED_TRACE(fmt::format("BASTIL_SEED={}", seed - GetParam()));
  runSteps(seed, kSteps * static_cast<unsigned>(Support::soakFactor()));
}

/// Acts around a limit; what happens there must differ in nothing from the model.
void runAtLimit(TwinRun& run) {
  unsigned step = 0;
  try {
    for (; step < kRoomSteps; ++step) {
      if (step % 128 == 0) run.choice.newHabits();
      run.step(run.choice.act());
    }
    run.compare(TwinRun::Depth::full);
  } catch (const std::exception& error) {
    FAIL() << "step " << step << ": " << error.what();
  }
}

TEST(TableModel, AFullConfigurationRejectsWhatItHasNoRoomFor) {
  const unsigned seed = Support::seed();
  SCOPED_TRACE(fmt::format("BASTIL_SEED={}", seed));
  TwinRun run(seed);
  run.choice.sparingIs();
  const auto capacity = static_cast<Key>(run.model.shape().configCapacity);
  for (const unsigned table : {0U, 3U, 4U}) run.fill(table, capacity - 8, capacity - 8);
  runAtLimit(run);
  EXPECT_GT(run.model.roads[Model::kConfigFull], 0U);
}

TEST(TableModel, AFullLogHoldsEverythingBackUntilThereIsRoom) {
  const unsigned seed = Support::seed();
  SCOPED_TRACE(fmt::format("BASTIL_SEED={}", seed));
  TwinRun run(seed);
  run.choice.sparingIs();
  run.choice.reportStepIs(2);
  run.fill(2, static_cast<Key>(run.model.shape().logLimit - 8), 1);
  runAtLimit(run);
  EXPECT_GT(run.model.roads[Model::kWaitedForRoom], 0U);
}

}  // namespace
