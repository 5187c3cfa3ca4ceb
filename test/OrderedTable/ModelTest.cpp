#include <gtest/gtest.h>

#include <random>

#include "Drift/Specimen.h"
#include "OrderedTable/RealFamily.h"
#include "Support/Soak.h"

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

/// A handle of an operation of nobody's table.
class ForeignHandle final : public Fenrik::NodeClass<ForeignHandle, Asic::DependencyEntryHandle> {
 public:
  using KivModule = Kiv::Module<"TableModelForeign", ForeignHandle>;

  void outcomeIs(Asic::EntryState state, Version version) {
    version_ = Asic::LogVersion(version);
    entryStateStore(state);
  }
  Asic::TableVersion entryTableVersion() const override { return {tableId(), version_}; }
  Asic::SwTableId tableId() const override { return Asic::SwTableId(0x0f0f0f0f); }
  Fenrik::String tableName() const override { return Fenrik::String("foreign"); }
  Fenrik::String keyText() const override { return Fenrik::String("key"); }

 private:
  Asic::LogVersion version_;
};

/// The real agent: one after the other over the same shared memory.
class RealAgent final : public RealAgentBase {
 public:
  explicit RealAgent(unsigned units) : units_(units) {
    for (unsigned i = 0; i < kForeigns; ++i) {
      foreigns_.push_back(Fenrik::ptrIsImpl<ForeignHandle>());
    }
  }

  void start(const Model::Start& start) {
    handles_.clear();
    families.clear();
    tables = {};
    state = {};
    memory = {};
    const Fenrik::String name("table-model"), directory(dir_.path());
    memory = Fenrik::ptrIsImpl<KivSharedMem::EntityManager>(name, directory,
                                                            Drift::Directory::Access::write);
    state = Fenrik::ptrIsImpl<Stavro::EntityManager>(name, true, directory,
                                                     Drift::Directory::Access::write);
    tables = Fenrik::ptrIsImpl<Asic::OrderedTableInterface>(state);
    families.push_back(std::make_unique<RealFamily<QuarnBastil::TcamEntryFamily>>(
        *this, 0, units_, start.reported[0]));
    families.push_back(std::make_unique<RealFamily<QuarnBastil::BigBbFamily>>(*this, 1, units_,
                                                                              start.reported[1]));
    for (unsigned t = 0; t < start.absent.size(); ++t) {
      if (!start.absent[t]) mountTable(t, start.reported[t / units_], start.reset[t]);
    }
  }

  void mountTable(unsigned table, std::optional<Version> reported, bool reset) {
    families[table / units_]->mountTable(table % units_, reported, reset);
  }

  void apply(const Act& act) override {
    if (act.kind == Kind::pump) {
      auto& group = const_cast<Asic::GroupInterface&>(families[act.table]->group());
      const unsigned done = group.pump(static_cast<unsigned>(act.number));
      return see({.kind = Event::Kind::answered,
                  .what = static_cast<std::uint8_t>(act.kind),
                  .table = act.table,
                  .number = done});
    }
    if (act.kind == Kind::settle) return settle(act);
    families[act.table / units_]->apply(act.table % units_, act);
  }

  OpId nextOp() override { return nextOp_++; }
  void handleIs(OpId id, const HandlePtr& handle) override {
    handles_[id] = handle;
    std::erase_if(handles_,
                  [&](const auto& member) { return nextOp_ - member.first > kHandlesKept; });
  }
  HandlePtr handle(OpId id) const {
    const auto found = handles_.find(id);
    return found != handles_.end() && nextOp_ - id <= kHandlesKept ? found->second : HandlePtr();
  }
  DependencyPtr dependency(OpId id) const override {
    if (id != kNoOp && id >= kFirstForeign) return foreigns_[id - kFirstForeign];
    return handle(id);
  }
  void reactTo(const Act& act) override { react(act); }

  std::vector<std::unique_ptr<AnyFamily>> families;

 private:
  /// As the party that owns the handle.
  void settle(const Act& act) {
    const auto outcome = static_cast<Asic::EntryState>(act.value);
    if (act.dependency >= kFirstForeign) {
      return foreigns_[act.dependency - kFirstForeign]->outcomeIs(outcome, act.number);
    }
    const HandlePtr found = handle(act.dependency);
    if (found != nullptr) {
      const_cast<Asic::SwTableBase::EntryHandle&>(*found).entryStateIs(outcome);
    }
  }

  Drift::Specimens::TempDir dir_;
  unsigned units_;
  std::map<OpId, HandlePtr> handles_;
  std::vector<Fenrik::Ptr<ForeignHandle>> foreigns_;
  OpId nextOp_ = 0;
};

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
    const unsigned families = static_cast<unsigned>(model_.shape().groupOfFamily.size());
    for (unsigned f = 0; f < families; ++f) {
      std::optional<Version> reported;
      if (!first && percent(70)) reported = version(model_.family(f));
      start.reported.push_back(reported);
    }
    for (unsigned t = 0; t < model_.tableCount(); ++t) {
      start.absent.push_back(!first && percent(15));
      start.reset.push_back(!first && percent(10));
    }
    // Someone must be there.
    start.absent[below(model_.tableCount())] = false;
    return start;
  }

  /// A version that the hardware may report: mostly a true one.
  Version version(const TableModel::Family& family) {
    const Version newest = family.tableVersion, known = std::min(family.statusVersion, newest);
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
    act.table = below(model_.shape().groupOfFamily.size());
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
    const auto& queue = model_.queue(below(model_.shape().groupOfFamily.size()));
    if (queue.empty() || queue.front()->dependency == nullptr) return;
    const Operation& waitedFor = *queue.front()->dependency;
    if (waitedFor.state != State::pending) return;
    if (waitedFor.id < kFirstForeign && !model_.abandoned(waitedFor)) return;
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

  TwinRun(unsigned seed, Model::Shape shape)
      : model(shape), real(shape.units), choice(seed, model) {
    start(true);
  }

  void start(bool first = false) {
    const Model::Start start = choice.start(first);
    // Places are asked for before there is anything to be seen in them.
    real.start(start);
    if (first) learnPlaces();
    model.start(start);
    real.events.clear();
    model.events.clear();
    model.touched.clear();
    compare(Depth::walked);
  }

  void mountMissing() {
    for (unsigned t = 0; t < model.tableCount(); ++t) {
      if (model.present(t)) continue;
      std::optional<Version> reported;
      if (choice.percent(70)) reported = choice.version(model.familyOf(t));
      const bool reset = choice.percent(20);
      real.mountTable(t, reported, reset);
      model.mountTable(t, reported, reset);
      real.events.clear();
      model.events.clear();
      return compare(Depth::full);
    }
  }

  void step(const Act& act) {
    real.run(act);
    model.addOrders.swap(real.addOrders);
    real.addOrders.clear();
    model.run(act);
    expectNone(difference(model.events, real.events));
    real.events.clear();
    model.events.clear();
    compareTouched();
    compare(Depth::quick);
  }

  void compare(Depth depth) {
    for (const auto& family : real.families) {
      expectNone(depth == Depth::quick ? family->quickDifference(model)
                                       : family->fullDifference(model, kKeys));
      if (depth == Depth::walked) expectNone(family->walkedDifference(model));
    }
  }

  /// Configures entries beyond the keys of the acts.
  void fill(unsigned table, std::size_t entries) {
    for (Key key = 1000; entries != 0; ++key, --entries) {
      const ConfigRecord record{1, 0, false};
      real.families[table / model.shape().units]->configIs(table % model.shape().units, key,
                                                           record);
      model.configIs(table, key, record);
    }
  }
  /// Logs writes without a look at what they do.
  void fillLog(unsigned table, Version records) {
    Act act;
    act.kind = Kind::direct;
    act.table = table;
    for (; records != 0; --records) {
      act.value = 1 + records % 2;
      real.run(act);
      model.run(act);
      real.events.clear();
      model.events.clear();
    }
  }

  Model model;
  RealAgent real;
  Choice choice;

 private:
  static void expectNone(const std::string& differs) {
    if (!differs.empty()) throw std::logic_error(differs);
  }

  void learnPlaces() {
    for (unsigned t = 0; t < model.tableCount(); ++t) {
      const unsigned units = model.shape().units;
      model.places[t] = real.families[t / units]->learnPlaces(t % units, kKeys + 1);
    }
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
  TwinRun run(seed, {});
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
  const Model::Roads& roads = run.model.roads;
  EXPECT_GT(roads.waitedForDependency, 0U);
  EXPECT_GT(roads.failed, 0U);
  EXPECT_GT(roads.overtaken, 0U);
  EXPECT_GT(roads.doneAtCommit, 0U);
  EXPECT_GT(roads.removedNothing, 0U);
  EXPECT_GT(roads.clearedNothing, 0U);
  EXPECT_GT(roads.reportedAll, 0U);
  EXPECT_GT(roads.reportedBack, 0U);
  EXPECT_GT(roads.reportedBeyond, 0U);
  EXPECT_GT(roads.unitMissing, 0U);
  EXPECT_GT(roads.deleteOvertaken, 0U);
  EXPECT_GT(roads.purged, 0U);
  EXPECT_GT(roads.bookmarkLost, 0U);
  EXPECT_GT(roads.updated, 0U);
  EXPECT_GT(roads.updateRefused, 0U);
  EXPECT_GT(roads.updateUnchanged, 0U);
  EXPECT_GT(roads.helperThrew, 0U);
  EXPECT_GT(roads.nestedPump, 0U);
  EXPECT_GT(roads.needed, 0U);
  EXPECT_GT(roads.neededOwn, 0U);
  EXPECT_GT(roads.suppressed, 0U);
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
  TwinRun run(seed, {});
  run.choice.sparingIs();
  for (const unsigned table : {0U, 3U}) run.fill(table, run.model.shape().configCapacity - 8);
  runAtLimit(run);
  EXPECT_GT(run.model.roads.configFull, 0U);
}

TEST(TableModel, AFullLogHoldsEverythingBackUntilThereIsRoom) {
  const unsigned seed = Support::seed();
  SCOPED_TRACE(fmt::format("BASTIL_SEED={}", seed));
  TwinRun run(seed, {});
  run.choice.sparingIs();
  run.choice.reportStepIs(2);
  run.fillLog(2, run.model.shape().logLimit - 8);
  runAtLimit(run);
  EXPECT_GT(run.model.roads.waitedForRoom, 0U);
}

}  // namespace
