#include <gmock/gmock.h>
#include <sys/mman.h>
#include <unistd.h>

#include <csignal>
#include <iostream>
#include <span>

#include "Restart/Model.h"
#include "Support/Process.h"
#include "Support/Soak.h"
#include "Support/TableRig.h"
#include "Support/TempDir.h"

namespace RestartTest {
namespace {

using std::chrono::microseconds;
using std::chrono::steady_clock;

constexpr int kRounds = BASTIL_SANITIZED ? 40 : 500;
/// Of both units together: as many as a unit may hold.
constexpr std::uint32_t kManyKeys = BASTIL_SANITIZED ? 1024 : 32'768;
constexpr std::uint32_t kFewKeys = 40;

/// One directory in shared memory through many agents, one after the other.
class History {
 public:
  History(Page& page, Random& random, std::uint32_t keys)
      : page_(page), random_(random), tcam_(dir_.path(), keys), blocks_(dir_.path(), keys) {
    page_.keys = keys;
  }

  void round(bool first) {
    static constexpr unsigned kSets[][2] = {{0, 1}, {1, 2}, {0, 2}};
    // An agent comes back with its units, as a rule; a second of three rounds, otherwise.
    if (first || random_() % 3 == 0) std::ranges::copy(kSets[random_() % 3], page_.units.begin());
    page_.reset = !first && random_() % 8 == 0;
    page_.load = first || random_() % 8 == 0;
    page_.seed = random_();
    page_.phase = Phase::start;
    page_.order = Order::wait;
    tcam_.plan(page_, page_.tcam);
    blocks_.plan(page_, page_.blocks);
    Phase goal = goals_[random_() % std::size(goals_)];
    if (goal == Phase::churn && page_.load) goal = Phase::load;
    agent_ = Support::Process([this] { runAgent(dir_.path(), page_); });
    live(goal);
    agent_.signal(SIGKILL);
    EXPECT_EQ(agent_.wait(), -SIGKILL) << "it ended by itself";
    ++deaths[static_cast<unsigned>(page_.phase.load())];
    compare(Moment::dead);
  }

  static inline std::array<unsigned, kPhases> deaths{};

 private:
  void live(Phase goal) {
    if (goal < Phase::up) {
      await(goal);
      return linger(goal == Phase::bringUp ? bringUp_ : bringUp_ / 3);
    }
    const auto begin = steady_clock::now();
    await(Phase::up);
    bringUp_ =
        std::min(bringUp_, std::chrono::duration_cast<microseconds>(steady_clock::now() - begin));
    compare(Moment::up);
    if (goal == Phase::up || testing::Test::HasFailure()) return;
    page_.order = Order::work;
    const auto reports = goal == Phase::load ? 0 : random_() % 6;
    for (unsigned i = 0; i < reports; ++i) {
      linger(microseconds(1000));
      report(false);
    }
    const bool loadsMany = page_.load && page_.keys == kManyKeys;
    linger(microseconds(loadsMany ? 300'000 : goal == Phase::load ? 600 : 2000));
    if (goal < Phase::acknowledge) return;
    page_.order = Order::drain;
    await(Phase::acknowledge);
    if (goal == Phase::acknowledge) {
      report(random_() % 2 == 0);
      return linger(microseconds(300));
    }
    report(true);
    await(Phase::drained);
    if (testing::Test::HasFailure()) return;
    compare(Moment::drained);
  }

  /// The hardware's side: somewhere behind the last report, or at the end.
  void report(bool everything) {
    reportOf<Tcam>(tcam_, everything);
    reportOf<Blocks>(blocks_, everything);
  }
  template <class Family>
  void reportOf(Model<Family>& model, bool everything) {
    const auto announced = model.announced();
    const auto behind = announced - model.reported();
    if (behind == 0 || (!everything && random_() % 2 == 0)) return;
    model.reportedIs(everything ? announced : model.reported() + 1 + random_() % behind);
    Support::ReporterRig(dir_.path(), Family::Constants::canonicalGroupName())
        .report(Family::kTableId, model.reported());
  }

  void compare(Moment moment) {
    SCOPED_TRACE(testing::Message()
                 << "moment " << static_cast<int>(moment) << " phase "
                 << static_cast<unsigned>(page_.phase.load()) << " units " << page_.units[0]
                 << page_.units[1] << " reset " << page_.reset);
    tcam_.compare(page_.tcam, moment);
    blocks_.compare(page_.blocks, moment);
  }

  void await(Phase phase) {
    const auto end = steady_clock::now() + std::chrono::seconds(60);
    while (page_.phase < phase) {
      ASSERT_TRUE(agent_.running()) << "it ended by itself";
      ASSERT_LT(steady_clock::now(), end)
          << "it hangs in phase " << static_cast<unsigned>(page_.phase.load());
      ::usleep(20);
    }
  }
  void linger(microseconds longest) {
    const auto time = random_() % static_cast<std::uint64_t>(longest.count() + 1);
    if (time > 50) ::usleep(static_cast<unsigned>(time));
  }

  static constexpr Phase goals_[] = {Phase::bringUp, Phase::bringUp,     Phase::reconcile,
                                     Phase::up,      Phase::churn,       Phase::churn,
                                     Phase::churn,   Phase::acknowledge, Phase::drained};

  Support::TempDir dir_;
  Page& page_;
  Random& random_;
  Model<Tcam> tcam_;
  Model<Blocks> blocks_;
  Support::Process agent_;
  /// The shortest that an agent needed to come up.
  microseconds bringUp_{20'000};
};

TEST(RestartSoak, WhatAKilledAgentLeavesIsTakenOver) {
  const unsigned seed = Support::seed();
  SCOPED_TRACE(testing::Message() << "BASTIL_SEED=" << seed);
  std::cout << "BASTIL_SEED=" << seed << std::endl;
  Random random(seed);
  void* const memory = ::mmap(nullptr, sizeof(Page), PROT_READ | PROT_WRITE,
                              MAP_SHARED | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  ASSERT_NE(memory, MAP_FAILED);
  Page& page = *new (memory) Page;
  const int rounds = kRounds * Support::soakFactor();
  constexpr int kRoundsOfMany = 8;
  constexpr int kRoundsOfFew = 60;
  for (int done = 0; done < rounds && !HasFailure();) {
    const bool many = done == 0;
    History history(page, random, many ? kManyKeys : kFewKeys);
    const int end = std::min(rounds, done + (many ? kRoundsOfMany : kRoundsOfFew));
    for (bool first = true; done < end && !HasFailure(); ++done, first = false) {
      SCOPED_TRACE(testing::Message() << "round " << done);
      history.round(first);
    }
  }
  ::munmap(memory, sizeof(Page));
  std::cout << "killed in the phases start to drained:";
  for (const unsigned deaths : History::deaths) std::cout << ' ' << deaths;
  std::cout << std::endl;
  if (HasFailure() || BASTIL_SANITIZED) return;
  EXPECT_THAT(std::span(History::deaths).subspan(1), testing::Each(testing::Gt(0U)));
}

}  // namespace
}  // namespace RestartTest
