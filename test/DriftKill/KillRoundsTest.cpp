#include <gtest/gtest.h>
#include <sys/prctl.h>

#include <algorithm>
#include <atomic>
#include <iostream>
#include <random>

#include "DriftKill/Collections.h"
#include "Support/Process.h"
#include "Support/Shared.h"
#include "Support/Soak.h"

namespace DriftTest {
namespace {

const Geometry kGeometries[] = {
    // Full and refused at times; 128 buckets are changed for their tombstones often.
    hashedOf(536, 40), hashedOf(24, 40), hashedOf(124, 40),
    // Three chunks of memory, which the window wanders through.
    denseOf(548, 4000), denseOf(24, 100)};
constexpr std::size_t kCollections = std::size(kGeometries);
/// Of a hashed collection.
constexpr Word kKeys = 48;
/// Keeps the verification of a round short.
constexpr Word kWindow = 60;

/// Generations by number, and the version behind the newest.
struct Contents {
  std::map<Word, Word> generations;
  Word next = 1;

  void enter(const Step& step) {
    if (step.kind == Step::Kind::set) {
      generations[step.key] = step.generation;
      next = std::max(next, step.key + 1);
    }
    if (step.kind == Step::Kind::remove) generations.erase(step.key);
    if (step.kind == Step::Kind::removeAll) generations.clear();
  }
  Model model(const Geometry& geometry) const {
    Model model;
    for (const auto& [number, generation] : generations) {
      const Record key = keyOf(geometry, number);
      model[key] = recordOf(geometry, key, generation);
    }
    return model;
  }
};

struct Entry {
  std::size_t collection;
  Step step;
};

/// What a writer noted of its life. It lies in memory that outlives it: a step is noted before it
/// is begun, and again when it is done.
struct Journal {
  static constexpr Word kRoom = 1 << 18;

  Entry entries[kRoom];
  std::atomic<Word> begun, done;
  std::atomic<bool> ready;
  /// Whether the step in flight when the predecessor died was found done, once that is known.
  enum class Found : Word { unknown, old, done };
  std::atomic<Found> found;
  std::atomic<Word> generation, refusals;
  char fault[1000];
};

/// What the collections hold, as far as the one who forks the writers can know.
struct Oracle {
  Contents contents[kCollections];
  std::optional<Entry> inFlight;

  /// Reads up on a life that has ended.
  void enter(const Journal& journal) {
    if (journal.found != Journal::Found::unknown) {
      if (journal.found == Journal::Found::done) enter(*inFlight);
      inFlight.reset();
    }
    for (Word i = 0; i < journal.done; ++i) enter(journal.entries[i]);
    if (journal.begun > journal.done) inFlight = journal.entries[journal.done];
  }
  void enter(const Entry& entry) { contents[entry.collection].enter(entry.step); }
};

/// The life of one writer: verify what its predecessor left, go on until killed.
class Life {
 public:
  Life(Journal& journal, const Oracle& oracle, const std::string& directory, unsigned seed)
      : journal_(journal), oracle_(oracle), random_(seed) {
    for (std::size_t i = 0; i < kCollections; ++i) {
      stores_[i].emplace(directory + "/" + std::to_string(i), kGeometries[i]);
      verify(i);
    }
    journal_.ready = true;
    // Some steps in one collection, then in the next.
    while (journal_.done + 16 < Journal::kRoom) {
      const std::size_t i = random_() % kCollections;
      for (int left = 16; left > 0; --left) oneStep(i);
    }
    for (;;) ::pause();
  }

 private:
  void verify(std::size_t i) {
    const Geometry& geometry = kGeometries[i];
    Contents& contents = oracle_.contents[i];
    if (oracle_.inFlight && oracle_.inFlight->collection == i) {
      const Model before = contents.model(geometry);
      const Step& step = oracle_.inFlight->step;
      const bool isNew = Either{before, after(geometry, before, step)}.isNew(stores_[i]->view());
      if (isNew) contents.enter(step);
      journal_.found = isNew ? Journal::Found::done : Journal::Found::old;
    }
    expectExactly(stores_[i]->view(), contents.model(geometry));
    // An operation that was lost has taken no version with it, one that was refused may have.
    if (isDense(geometry)) contents.next = std::max(contents.next, stores_[i]->fresh());
  }

  void oneStep(std::size_t i) {
    const Step step = isDense(kGeometries[i]) ? denseStep(oracle_.contents[i]) : hashedStep();
    stores_[i]->prepare(step);
    journal_.entries[journal_.done] = {i, step};
    ++journal_.begun;
    try {
      stores_[i]->perform(step);
      ++journal_.done;
      oracle_.contents[i].enter(step);
    } catch (const Drift::CollectionFullException&) {
      --journal_.begun;
      ++journal_.refusals;
    }
  }

  Step hashedStep() {
    const unsigned dice = random_() % 256;
    if (dice == 0) return removeAll();
    if (dice < 100) return remove(random_() % kKeys);
    return set(random_() % kKeys, ++journal_.generation);
  }

  Step denseStep(const Contents& contents) {
    const Word next = contents.next;
    const auto& there = contents.generations;
    const Word first = there.empty() ? next : there.begin()->first;
    const Word within = first + random_() % (next - first + 1);
    const unsigned dice = random_() % 64;
    if (next - first > kWindow || (dice < 24 && first < next)) return remove(first);
    if (dice == 24) return removeAll();
    const Word generation = ++journal_.generation;
    if (dice == 25) return set(next + random_() % 20, generation);
    if (dice == 26) return set(first - std::min<Word>(first, 1 + random_() % 4), generation);
    if (dice < 32) return remove(within);
    if (dice < 40) return set(within, generation);
    return set(next, generation);
  }

  Journal& journal_;
  Oracle oracle_;
  std::mt19937 random_;
  std::optional<Store> stores_[kCollections];
};

TEST(KillRoundsSoakDeathTest, WhatWasCommittedSurvivesAnyNumberOfKills) {
  const int usual = kInstrumented ? 500 : 3'000;
  const int rounds = Support::soakFactor() == 1 ? usual : 1'000'000;
  const unsigned seed = Support::seed();
  SCOPED_TRACE(fmt::format("BASTIL_SEED={}", seed));
  std::mt19937 random(seed);
  const TempDir directory;
  const Support::Shared<Journal> journal;
  Oracle oracle;
  // The kernel rounds waits up by 50 us otherwise, which is longer than most lives here.
  ::prctl(PR_SET_TIMERSLACK, 1UL);

  int inMounts = 0, inFlights = 0, olds = 0, news = 0;
  Word steps = 0;
  for (int round = 0; round < rounds; ++round) {
    journal->begun = journal->done = 0;
    journal->ready = false;
    journal->found = Journal::Found::unknown;
    const auto lifeSeed = static_cast<unsigned>(random());
    Support::Process child([&] {
      try {
        Life(*journal, oracle, directory.path(), lifeSeed);
      } catch (const std::exception& wrong) {
        std::string(wrong.what()).copy(journal->fault, sizeof journal->fault - 1);
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
      while (!journal->ready && child.running()) pause(50'000);
      pause(200'000);
    }
    child.kill();
    ASSERT_STREQ(journal->fault, "") << "in round " << round;
    oracle.enter(*journal);
    inMounts += journal->ready ? 0 : 1;
    inFlights += journal->begun > journal->done ? 1 : 0;
    olds += journal->found == Journal::Found::old ? 1 : 0;
    news += journal->found == Journal::Found::done ? 1 : 0;
    steps += journal->done;
  }
  std::cout << rounds << " kills, " << inFlights << " in an operation, which was found not done "
            << olds << " times and done " << news << " times, " << inMounts << " in a mount; "
            << steps << " operations, " << journal->refusals << " refused\n";
  EXPECT_GT(inFlights, rounds / 4);
  EXPECT_GT(olds, rounds / 50);
  EXPECT_GT(news, rounds / 50);
  EXPECT_GT(inMounts, rounds / 100);
  // So few rounds as a sanitizer has time for do not surely fill a collection.
  EXPECT_TRUE(BASTIL_SANITIZED || journal->refusals > 0);
}

}  // namespace
}  // namespace DriftTest
