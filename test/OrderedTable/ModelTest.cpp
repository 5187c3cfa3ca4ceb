#include <gmock/gmock.h>

#include <span>

#include "OrderedTable/Choice.h"
#include "OrderedTable/RealAgent.h"
#include "OrderedTable/ToyFamily.h"
#include "Support/Soak.h"
#include "Support/TempDir.h"

namespace {

using namespace TableModel;
using Kind = Act::Kind;

/// Each family is in one of them: the larger group has five.
constexpr unsigned kRuns = 5;
/// Together a million in an ordinary run, each in a process of its own.
#if BASTIL_SANITIZED
constexpr std::uint64_t kSteps = 60'000;
constexpr unsigned kRoomSteps = 2'000;
#else
constexpr std::uint64_t kSteps = 200'000;
constexpr unsigned kRoomSteps = 20'000;
#endif

constexpr Key kKeys = 64;

/// Both agents, step by step.
class TwinRun {
 public:
  using Depth = AnyFamily::Depth;

  explicit TwinRun(unsigned seed)
      : plan_([&] {
          auto families = familiesOfRun(seed);
          families.push_back(familyOfRun<ToyFamily>());
          auto plan = planOf(families);
          for (unsigned f = 0; f < families.size(); ++f) {
            if (families[f].usesResources) plan.shape.users.insert(f);
          }
          return plan;
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
    roundsAre();
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
      roundsAre();
      model.mountTable(t, reset);
      forgetEvents();
      return compare(Depth::full);
    }
  }

  void step(const Act& act) {
    real.run(act);
    // Does what an exception may have kept from being done.
    Asic::OutermostCall::Scope(real.running().tables().outermostCall()).end();
    roundsAre();
    model.run(act);
    model.doPutOff();
    if (!model.rounds.empty()) throw std::logic_error("users were updated without a change");
    expectNone(difference(model.events, real.events));
    forgetEvents();
    compareTouched();
    compare(Depth::quick);
  }

  void compare(Depth depth) {
    Differences differ;
    for (const auto& family : real.families) family->compare(differ, model, depth, kKeys);
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
  void roundsAre() { model.rounds = real.takenRounds(); }
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
  const bool hasUsers = !run.model.shape().users.empty();
  EXPECT_THAT(std::span(run.model.roads).first(hasUsers ? Model::kUsualRoads : Model::kOfResources),
              testing::Each(testing::Gt(0U)));
}

class TableModelSoak : public testing::TestWithParam<unsigned> {};

INSTANTIATE_TEST_SUITE_P(Runs, TableModelSoak, testing::Range(0U, kRuns));

TEST_P(TableModelSoak, TheTablesDoWhatTheModelDoes) {
  const Support::Seed seed;
  runSteps(seed + GetParam(), kSteps * static_cast<unsigned>(Support::soakFactor()));
}

/// Acts around a limit; what happens there must differ in nothing from the model.
void runAtLimit(const std::function<void(TwinRun&)>& approach, Model::Road road) {
  const Support::Seed seed;
  TwinRun run(seed);
  run.choice.sparingIs();
  approach(run);
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
  EXPECT_GT(run.model.roads[road], 0U);
}

TEST(TableModel, AFullConfigurationRejectsWhatItHasNoRoomFor) {
  const auto approach = [](TwinRun& run) {
    const auto most = static_cast<Key>(run.model.shape().configCapacity) - 8;
    for (const unsigned table : {0U, 3U, 4U}) run.fill(table, most, most);
  };
  runAtLimit(approach, Model::kConfigFull);
}

TEST(TableModel, AFullLogHoldsEverythingBackUntilThereIsRoom) {
  const auto approach = [](TwinRun& run) {
    run.choice.reportStepIs(2);
    run.fill(2, static_cast<Key>(run.model.shape().logLimit - 8), 1);
  };
  runAtLimit(approach, Model::kWaitedForRoom);
}

}  // namespace
