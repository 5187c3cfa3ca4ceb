#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <iostream>
#include <random>

#include "DriftKill/Collections.h"
#include "Support/KillPoint.h"
#include "Support/Process.h"
#include "Support/Shared.h"
#include "Support/Soak.h"

namespace DriftTest {
namespace {

/// One process after the other mounts a collection and takes the same steps, and dies at its first,
/// second, third store and so on, until one gets through.
struct Deaths {
  Deaths(const Geometry& of, const Steps& begin) : geometry(of), before(after(of, {}, begin)) {
    if (!begin.empty()) Store(original.path(), geometry).apply(begin);
  }
  ~Deaths() {
    std::cout << nameOf(geometry) << ": " << deaths
              << " deaths, the step in flight not yet done at " << olds << ", done at " << news
              << '\n';
  }

  /// Whether the steps change the index table for its tombstones, or go round the ring of 32.
  bool goesRound(const Steps& steps) const {
    const TempDir copy;
    copyCollection(original.path(), copy.path());
    Store store(copy.path(), geometry);
    store.apply(steps);
    if (isDense(geometry)) return store.fresh() > 32;
    const auto removeAlls = std::ranges::count(steps, Step::Kind::removeAll, &Step::kind);
    return store.line(Format::Line::active) >> 1 > static_cast<Word>(removeAlls);
  }

  /// A death behind every store, or behind each of so many.
  void run(const Steps& steps, std::size_t stride = 1) {
    for (std::size_t stores = 1;; stores += stride) {
      const TempDir work;
      copyCollection(original.path(), work.path());
      *done = 0;
      Support::Process writer([&] {
        Support::storesLeft = stores;
        Store store(work.path(), geometry);
        for (const Step& step : steps) {
          store.apply({&step, 1});
          ++*done;
        }
        ::_exit(0);
      });
      const int status = writer.wait();
      if (status == 0 && *done == steps.size()) return;
      ASSERT_EQ(status, -SIGKILL);
      ++deaths;
      try {
        check(work.path(), steps);
      } catch (const std::exception& wrong) {
        FAIL() << "death at store " << stores << ", in step " << *done << ": " << wrong.what();
      }
    }
  }

  void check(const std::string& left, const Steps& steps) {
    const std::span<const Step> all(steps);
    Either either;
    either.before = after(geometry, before, all.first(*done));
    either.after = after(geometry, either.before, all.subspan(*done, *done < steps.size() ? 1 : 0));
    if (*done < steps.size() && steps[*done].kind == Step::Kind::removeThrough && exists(left)) {
      // Each version goes in a step of its own: what has gone already is the old state.
      Reader reader(left);
      const Word first = reader.view.dense->window().first;
      while (either.before.size() > either.after.size() &&
             either.before.begin()->first[0] < first) {
        either.before.erase(either.before.begin());
        ++partly;
      }
    }
    std::optional<bool> wasNew;
    if (exists(left)) wasNew = either.isNew(Reader(left).view);
    const bool isNew = takeOver(left, geometry, either);
    if (wasNew.value_or(isNew) != isNew) fault("a reader and the successor differ");
    ++(isNew ? news : olds);
  }

  const Geometry geometry;
  const Model before;
  const TempDir original;
  /// Steps that the process had done when it died.
  const Support::Shared<std::atomic<std::size_t>> done;
  std::size_t deaths = 0;
  std::size_t olds = 0;
  std::size_t news = 0;
  std::size_t partly = 0;
};

/// Steps that fill a table of 16 buckets with tombstones over and over.
Steps hashedSteps(const Geometry& geometry, std::mt19937& random, std::size_t count, Model model) {
  Steps steps;
  for (Word generation = 2; steps.size() < count; ++generation) {
    const Word key = random() % 16;
    const Step step = steps.size() % 50 == 49 ? removeAll()
                      : model.contains(keyOf(geometry, key))
                          ? (random() % 3 == 0 ? set(key, generation) : remove(key))
                      : model.size() < 6 ? set(key, generation)
                                         : remove(model.begin()->first.back());
    steps.push_back(step);
    model = after(geometry, std::move(model), step);
  }
  return steps;
}

/// Steps that go round a ring of 32 slots: with gaps, prepends, and changes within the window.
Steps denseSteps(const Geometry& geometry, std::mt19937& random, std::size_t count, Model model) {
  Steps steps;
  Word next = model.rbegin()->first.back() + 1;
  for (Word generation = 2; steps.size() < count; ++generation) {
    const Word first = model.empty() ? next : model.begin()->first.back();
    const Word within = first + random() % (next - first + 1);
    const unsigned dice = random() % 16;
    Step step = set(next + (dice == 0 ? 3 : 0), generation);
    if (next - first > 20 || dice > 11) step = remove(first);
    if (dice == 9 && first > 4 && next - first < 16) step = set(first - 1 - dice % 3, generation);
    if (dice == 10 && within < next) step = set(within, generation);
    if (dice == 11 && within < next) step = remove(within);
    if (dice == 12 && within < next) step = removeThrough(within);
    if (steps.size() % 50 == 49) step = removeAll();
    if (step.kind == Step::Kind::set) next = std::max(next, step.key + 1);
    steps.push_back(step);
    model = after(geometry, std::move(model), step);
  }
  return steps;
}

class KillPointDeathTest : public testing::TestWithParam<Geometry> {};

INSTANTIATE_TEST_SUITE_P(Sizes, KillPointDeathTest,
                         testing::Values(hashedOf(24, 8), hashedOf(124, 8), hashedOf(536, 8),
                                         denseOf(24, 24), denseOf(124, 24), denseOf(536, 24)),
                         [](const auto& info) { return nameOf(info.param); });

TEST_P(KillPointDeathTest, NothingIsLostAtAnyStore) {
  const Geometry& geometry = GetParam();
  const unsigned seed = Support::seed();
  SCOPED_TRACE(fmt::format("BASTIL_SEED={}", seed));
  std::mt19937 random(seed);
  Deaths deaths(geometry, setAll(1, 6));
  Steps steps;
  // Each file has a hash seed of its own: not all steps fill the table with tombstones.
  for (int tries = 0; tries < 100 && !deaths.goesRound(steps); ++tries) {
    // About as many stores at each size.
    const std::size_t count = geometry.recordSize == 24 ? 150 : 100;
    steps = (isDense(geometry) ? denseSteps : hashedSteps)(geometry, random, count, deaths.before);
  }
  ASSERT_TRUE(deaths.goesRound(steps));
  // A sanitizer makes a fork so dear that only every 17th store is tried.
  deaths.run(steps, kInstrumented ? 17 : 1);
  EXPECT_GT(deaths.olds, deaths.deaths / 10);
  EXPECT_GT(deaths.news, deaths.deaths / 50);
  EXPECT_TRUE(!isDense(geometry) || deaths.partly > 0);
}

TEST_P(KillPointDeathTest, ACollectionIsWholeOrAbsentWhileItIsMade) {
  Deaths deaths(GetParam(), {});
  deaths.run({set(1)});
  EXPECT_GT(deaths.deaths, Format::kLineCount * 4);
  EXPECT_GT(deaths.news, 0U);
}

}  // namespace
}  // namespace DriftTest
