#include <gtest/gtest.h>
#include <sys/prctl.h>

#include <algorithm>
#include <atomic>
#include <iostream>

#include "DriftKill/Collections.h"
#include "Support/Process.h"
#include "Support/Shared.h"
#include "Support/Soak.h"

namespace DriftTest {
namespace {

const Geometry kGeometries[] = {
    // Full and refused at times; 128 buckets are changed for their tombstones often.
    hashedOf(536, 40),
    hashedOf(24, 40),
    hashedOf(124, 40),
    // Three chunks of memory, which the window wanders through.
    denseOf(548, 4000),
    denseOf(24, 100),
};
constexpr std::size_t kCollections = std::size(kGeometries);
/// Hashed: keys 0 to 47. Dense: version modulo 4096, the slots of the longer ring.
constexpr Word kPlaces = 4096;
constexpr Word kKeys = 48;
/// Keeps the verification of a round short.
constexpr Word kWindow = 60;

/// What a collection must hold. It lies in memory that outlives the writer; the writer notes here
/// what it is about to do, does it, notes that it is done, and only then enters the result.
struct Oracle {
  enum class Stage : Word { idle, inFlight, done };

  std::atomic<Stage> stage;
  std::atomic<Word> kind, key, generation;
  std::atomic<Word> versions[kPlaces];     ///< key or version
  std::atomic<Word> generations[kPlaces];  ///< 0: absent
  std::atomic<Word> first, next;           ///< dense: bounds of what is not absent

  Step step() const { return {static_cast<Step::Kind>(kind.load()), key, generation}; }

  void announce(const Step& step) {
    kind = static_cast<Word>(step.kind);
    key = step.key;
    generation = step.generation;
    stage = Stage::inFlight;
  }

  Model model(const Geometry& geometry) const {
    Model model;
    const Word begin = isDense(geometry) ? first.load() : 0;
    const Word end = isDense(geometry) ? next.load() : kKeys;
    for (Word number = begin; number < end; ++number) {
      const Word place = number % kPlaces;
      if (generations[place] == 0 || versions[place] != number) continue;
      const Record words = keyOf(geometry, number);
      model[words] = recordOf(geometry, words, generations[place]);
    }
    return model;
  }

  /// May be done again after a death in the middle.
  void enter(const Step& step) {
    const Word place = step.key % kPlaces;
    switch (step.kind) {
      case Step::Kind::set:
        generations[place] = 0;
        versions[place] = step.key;
        generations[place] = step.generation;
        first = std::min(first.load(), step.key);
        next = std::max(next.load(), step.key + 1);
        break;
      case Step::Kind::remove:
        generations[place] = 0;
        break;
      case Step::Kind::removeAll:
        for (std::atomic<Word>& one : generations) one = 0;
        break;
    }
    while (first < next && generations[first % kPlaces] == 0) ++first;
    stage = Stage::idle;
  }
};

struct State {
  Oracle oracles[kCollections];
  std::atomic<bool> ready;
  std::atomic<Word> steps, refusals;
  std::atomic<Word> olds, news;  ///< how operations in flight were found
  std::atomic<Word> generation;
  char fault[1000];
};

/// The life of one writer: verify what its predecessor left, repair the oracle, go on until killed.
class Life {
 public:
  Life(State& shared, const std::string& directory, unsigned seed)
      : shared_(shared), random_(seed) {
    for (std::size_t i = 0; i < kCollections; ++i) {
      stores_[i].emplace(directory + "/" + std::to_string(i), kGeometries[i]);
      verify(i);
    }
    shared_.ready = true;
  }

  [[noreturn]] void goOn() {
    for (;;) {
      // Some steps in one collection, then in the next.
      const std::size_t i = random_() % kCollections;
      for (int left = 16; left > 0; --left) oneStep(i);
    }
  }

 private:
  void verify(std::size_t i) {
    Oracle& oracle = shared_.oracles[i];
    const Geometry& geometry = kGeometries[i];
    Model model = oracle.model(geometry);
    if (oracle.stage != Oracle::Stage::idle) {
      const Step step = oracle.step();
      const Either either{model, after(geometry, model, step)};
      bool isNew = oracle.stage == Oracle::Stage::done;
      if (!isNew) {
        isNew = either.isNew(stores_[i]->view());
        ++(isNew ? shared_.news : shared_.olds);
      }
      if (isNew) {
        oracle.stage = Oracle::Stage::done;
        oracle.enter(step);
        model = either.after;
      }
    }
    oracle.stage = Oracle::Stage::idle;
    expectExactly(stores_[i]->view(), model);
    // An operation that was lost has taken no version with it.
    if (isDense(kGeometries[i])) next_[i] = std::max(oracle.next.load(), stores_[i]->fresh());
  }

  void oneStep(std::size_t i) {
    Oracle& oracle = shared_.oracles[i];
    const Step step = isDense(kGeometries[i]) ? denseStep(oracle, next_[i]) : hashedStep();
    stores_[i]->prepare(step);
    oracle.announce(step);
    try {
      stores_[i]->perform(step);
      oracle.stage = Oracle::Stage::done;
      oracle.enter(step);
      if (step.kind == Step::Kind::set) next_[i] = std::max(next_[i], step.key + 1);
    } catch (const Drift::CollectionFullException&) {
      oracle.stage = Oracle::Stage::idle;
      ++shared_.refusals;
    }
    ++shared_.steps;
  }

  Step hashedStep() {
    const unsigned dice = random_() % 256;
    if (dice == 0) return removeAll();
    if (dice < 100) return remove(random_() % kKeys);
    return set(random_() % kKeys, ++shared_.generation);
  }

  Step denseStep(const Oracle& oracle, Word next) {
    const Word first = oracle.first < next ? oracle.first.load() : next;
    const Word within = first + random_() % (next - first + 1);
    const unsigned dice = random_() % 64;
    if (next - first > kWindow || (dice < 24 && first < next)) return remove(first);
    if (dice == 24) return removeAll();
    const Word generation = ++shared_.generation;
    if (dice == 25) return set(next + random_() % 20, generation);
    if (dice == 26) return set(first - std::min<Word>(first, 1 + random_() % 4), generation);
    if (dice < 32) return remove(within);
    if (dice < 40) return set(within, generation);
    return set(next, generation);
  }

  State& shared_;
  std::mt19937 random_;
  std::optional<Store> stores_[kCollections];
  Word next_[kCollections] = {};
};

TEST(KillRoundsSoakDeathTest, WhatWasCommittedSurvivesAnyNumberOfKills) {
  const int usual = kInstrumented ? 1'000 : 20'000;
  const int rounds = Support::soakFactor() == 1 ? usual : 1'000'000;
  const unsigned seed = Support::seed();
  SCOPED_TRACE(fmt::format("BASTIL_SEED={}", seed));
  std::mt19937 random(seed);
  const TempDir directory;
  const Support::Shared<State> shared;
  // The kernel rounds waits up by 50 us otherwise, which is longer than most lives here.
  ::prctl(PR_SET_TIMERSLACK, 1UL);

  int inMounts = 0;
  const auto inFlight = [](const Oracle& oracle) {
    return oracle.stage == Oracle::Stage::inFlight;
  };
  int inFlights = 0;
  for (int round = 0; round < rounds; ++round) {
    shared->ready = false;
    const unsigned lifeSeed = static_cast<unsigned>(random());
    Support::Process child([&] {
      try {
        Life(*shared, directory.path(), lifeSeed).goOn();
      } catch (const std::exception& wrong) {
        std::string(wrong.what()).copy(shared->fault, sizeof shared->fault - 1);
      }
    });
    const auto pause = [&](long most) {
      const timespec time{0, static_cast<long>(random() % static_cast<unsigned>(most))};
      ::nanosleep(&time, nullptr);
    };
    // One in eight dies at any moment of its mounting and verifying.
    if (round % 8 == 7) {
      pause(1'000'000);
    } else {
      while (!shared->ready && child.running()) pause(50'000);
      pause(200'000);
    }
    child.kill();
    ASSERT_STREQ(shared->fault, "") << "in round " << round;
    inMounts += shared->ready ? 0 : 1;
    inFlights += std::ranges::any_of(shared->oracles, inFlight) ? 1 : 0;
  }
  std::cout << rounds << " kills, " << inFlights << " in an operation, which was found not done "
            << shared->olds << " times and done " << shared->news << " times, " << inMounts
            << " in a mount; " << shared->steps << " operations, " << shared->refusals
            << " refused\n";
  EXPECT_GT(inFlights, rounds / 4);
  EXPECT_GT(shared->olds, static_cast<Word>(rounds / 50));
  EXPECT_GT(shared->news, static_cast<Word>(rounds / 50));
  EXPECT_GT(inMounts, rounds / 100);
  EXPECT_GT(shared->refusals, 0U);
}

}  // namespace
}  // namespace DriftTest
