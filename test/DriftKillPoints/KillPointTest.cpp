#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <iostream>
#include <optional>
#include <random>

#include "Support/Collections.h"
#include "Support/KillPoint.h"
#include "Support/Process.h"
#include "Support/Shared.h"
#include "Support/Soak.h"

/// Writers that die in their steps, and successors that find each step done or not begun.
namespace Drift::Specimens {
namespace {

constexpr std::string_view kEntity = "table";
/// A sanitizer makes a fork so dear that only some stores are tried.
constexpr std::size_t kStride = BASTIL_SANITIZED ? 17 : 1;

std::string pathIn(const std::string& directory) {
  return directory + "/" + Directory::fileNameOf(kEntity);
}

struct Step {
  enum class Kind : Word { set, remove, removeThrough, removeAll };
  Kind kind;
  Word key = 0;
  Word generation = 0;
};
using Steps = std::vector<Step>;
using Kind = Step::Kind;

void enter(const Geometry& geometry, Model& model, const Step& step) {
  const Record key = keyOf(geometry, step.key);
  if (step.kind == Kind::set) model[key] = recordOf(geometry, key, step.generation);
  if (step.kind == Kind::remove) model.erase(key);
  if (step.kind == Kind::removeThrough) model.erase(model.begin(), model.upper_bound(key));
  if (step.kind == Kind::removeAll) model.clear();
}

/// A writer whose predecessor lost nothing.
struct Store {
  Store(const std::string& directory, const Geometry& ofGeometry)
      : geometry(ofGeometry),
        file(DriftFile::openForWriting({directory, Directory::Access::write}, kEntity, ofGeometry,
                                       {})),
        writer(*file) {
    if (file->reason() != "") fault("{}", file->reason().view());
    if (writer.dropped() != 0) fault("{} words were dropped", writer.dropped());
  }

  void take(const Step& step) {
    const Record key = keyOf(geometry, step.key);
    if (step.kind == Kind::set) writer.set(recordOf(geometry, key, step.generation));
    if (step.kind == Kind::remove) (void)writer.remove(key);
    if (step.kind == Kind::removeThrough) writer.dense->removeThrough(step.key);
    if (step.kind == Kind::removeAll) writer.removeAll();
  }
  /// Above all that were ever stored, and of a hashed collection above all keys that are in use.
  Word fresh() const { return isDense(geometry) ? writer.dense->next() : 2 * geometry.capacity; }

  void expectExactly(const Model& model) const {
    const Sight sight = look(*file, model);
    if (!sight.sound()) fault("{}", sight.text());
  }

  /// What it adds, replaces and removes is there or not, and counted.
  void goOn(Model& model) {
    const Word fresh = this->fresh();
    Steps steps = {{Kind::set, fresh, 1}, {Kind::set, fresh, 2}, {Kind::remove, fresh}};
    if (!model.empty()) {
      const Word key = std::next(model.begin(), static_cast<long>(model.size() / 2))->first.back();
      const Word first = model.begin()->first.back();
      steps.insert(steps.begin() + 1,
                   {{Kind::set, key, 1000}, {Kind::remove, key}, {Kind::set, key, 1001}});
      steps.insert(steps.end() - 1, {Kind::remove, first});
    }
    for (const Step& step : steps) {
      take(step);
      enter(geometry, model, step);
      expectExactly(model);
    }
  }

  const Geometry geometry;
  const std::unique_ptr<DriftFile> file;
  AnyWriter writer;
};

/// Lets a table grow from 4 to 16 buckets, and fills it with tombstones over and over.
Step hashedStep(const Geometry& geometry, const Model& model, std::mt19937& random) {
  const Word key = random() % 16;
  const bool there = model.contains(keyOf(geometry, key));
  if (there ? random() % 3 == 0 : model.size() < 6) return {Kind::set, key, random()};
  return {Kind::remove, there ? key : model.begin()->first.back()};
}

/// Goes round a ring of 32 slots: with gaps, prepends, and changes within the window.
Step denseStep(const Model& model, Word next, std::mt19937& random) {
  const Word first = model.empty() ? next : model.begin()->first.back();
  const Word within = first + random() % (next - first + 1);
  const unsigned dice = random() % 16;
  const Word generation = random();
  if (next - first > 20 || dice > 12) return {Kind::remove, first};
  if (dice == 0) return {Kind::set, next + 3, generation};
  if (dice == 9 && first > 4 && next - first < 16) return {Kind::set, first - 2, generation};
  if (dice == 10 && within < next) return {Kind::set, within, generation};
  if (dice == 11 && within < next) return {Kind::remove, within};
  if (dice == 12 && within < next) return {Kind::removeThrough, within};
  return {Kind::set, next, generation};
}

/// From the model on, where `next` is the next version.
Steps stepsFrom(const Geometry& geometry, Model model, Word next, std::size_t count,
                std::mt19937& random) {
  Steps steps;
  while (steps.size() < count) {
    const bool all = steps.size() % 50 == 49;
    const Step step = all                 ? Step{Kind::removeAll}
                      : isDense(geometry) ? denseStep(model, next, random)
                                          : hashedStep(geometry, model, random);
    if (step.kind == Kind::set) next = std::max(next, step.key + 1);
    steps.push_back(step);
    enter(geometry, model, step);
  }
  return steps;
}

/// Forks writers, and holds what they left against the steps that they had done.
struct Deaths {
  ~Deaths() {
    std::cout << nameOf(geometry) << ": " << news + olds
              << " deaths, the step in flight not yet done at " << olds << ", done at " << news
              << '\n';
  }

  /// Whether a writer over the collection gets through all steps before the store of that number.
  bool livesThrough(const std::string& directory, const Steps& steps, std::size_t stores) const {
    *done = 0;
    Support::Process writer([&] {
      Support::storesLeft = stores;
      Store store(directory, geometry);
      for (const Step& step : steps) {
        store.take(step);
        ++*done;
      }
      ::_exit(0);
    });
    const int status = writer.wait();
    if (status != 0 && status != -SIGKILL) fault("a writer ended with {}", status);
    return status == 0;
  }

  /// A reader and the successor find the step in flight done or not, both the same. Turns the model
  /// of before the steps into that of what the successor leaves; returns the version after.
  Word check(const std::string& left, const Steps& steps, Model& model) {
    for (std::size_t i = 0; i < *done; ++i) enter(geometry, model, steps[i]);
    Model after = model;
    if (*done < steps.size()) enter(geometry, after, steps[*done]);
    std::optional<bool> wasNew;
    if (std::filesystem::exists(pathIn(left))) {
      const auto file =
          DriftFile::openForReading({left, Directory::Access::read}, kEntity, nullptr);
      if (*done < steps.size() && steps[*done].kind == Kind::removeThrough) {
        passBy(DenseView(*file).window().first, model, after);
      }
      wasNew = isNew(*file, model, after);
    }
    Store successor(left, geometry);
    const bool isDone = isNew(*successor.file, model, after);
    if (wasNew.value_or(isDone) != isDone) fault("a reader and the successor differ");
    ++(isDone ? news : olds);
    if (isDone) model = after;
    successor.expectExactly(model);
    successor.goOn(model);
    return successor.fresh();
  }

  const Geometry geometry;
  /// Steps that the writer had done when it died.
  const Support::Shared<std::atomic<std::size_t>> done{};
  std::size_t olds = 0, news = 0, partly = 0;

 private:
  /// Each version goes in a step of its own: what has gone already is the old state.
  void passBy(Word first, Model& before, const Model& after) {
    const std::size_t all = before.size();
    while (before.size() > after.size() && before.begin()->first[0] < first) {
      before.erase(before.begin());
    }
    partly += before.size() != all ? 1 : 0;
  }

  static bool isNew(const DriftFile& file, const Model& before, const Model& after) {
    AnyView view(file);
    const Sight old = look(view, before, after.size());
    if (old.sound()) return false;
    const Sight now = look(view, after, before.size());
    if (!now.sound()) fault("neither old nor new: {}; {}", old.text(), now.text());
    return true;
  }
};

class KillPointDeathTest : public testing::TestWithParam<Geometry> {
 protected:
  /// A death after every store of the steps, each over a copy of the collection.
  void dieEverywhere(const std::string& original, const Model& model, const Steps& steps) {
    for (std::size_t stores = 1;; stores += kStride) try {
        const TempDir work;
        copyFile(pathIn(original), pathIn(work.path()));
        if (deaths.livesThrough(work.path(), steps, stores)) return;
        Model left = model;
        deaths.check(work.path(), steps, left);
      } catch (const std::exception& wrong) {
        FAIL() << "death at store " << stores << ", in step " << *deaths.done << ": "
               << wrong.what();
      }
  }

  /// Whether the steps change the index table for its tombstones, beside letting it grow after each
  /// removal of everything; or go round the ring of 32 and remove several records at once.
  bool goesRound(const std::string& original, Model model, const Steps& steps) const {
    const TempDir copy;
    copyFile(pathIn(original), pathIn(copy.path()));
    Store store(copy.path(), geometry);
    const auto switches = [&] {
      const Word active = CheckedWord(store.file->data(), Format::Line::active).load().value();
      return Format::ActiveIndex::from(active).switches;
    };
    const Word before = switches();
    bool several = false;
    for (const Step& step : steps) {
      store.take(step);
      const std::size_t had = model.size();
      enter(geometry, model, step);
      several |= step.kind == Kind::removeThrough && model.size() + 1 < had;
    }
    if (isDense(geometry)) return store.fresh() > 32 && several;
    const auto removeAlls = std::ranges::count(steps, Kind::removeAll, &Step::kind);
    return switches() - before > 2 * static_cast<Word>(removeAlls);
  }

  const Geometry& geometry = GetParam();
  Deaths deaths{geometry};
  const Support::Seed seed{};
  std::mt19937 random{seed};
};

INSTANTIATE_TEST_SUITE_P(Sizes, KillPointDeathTest,
                         testing::Values(hashedOf(24, 8), hashedOf(124, 8), hashedOf(536, 8),
                                         denseOf(24, 24), denseOf(124, 24), denseOf(536, 24)),
                         [](const auto& info) { return nameOf(info.param); });

TEST_P(KillPointDeathTest, NothingIsLostAtAnyStore) {
  std::optional<TempDir> original;
  Model model;
  Steps steps;
  bool isRound = false;
  // Each file has a hash seed of its own: not all steps fill the table with tombstones.
  for (int tries = 0; tries < 100 && !isRound; ++tries) {
    original.emplace();
    model.clear();
    for (Word key = 1; key <= 6; ++key) {
      const Step step{Kind::set, key, 1};
      Store(original->path(), geometry).take(step);
      enter(geometry, model, step);
    }
    // About as many stores at each size.
    const std::size_t count = geometry.recordSize == 24 ? 150 : 100;
    steps = stepsFrom(geometry, model, 7, count, random);
    isRound = goesRound(original->path(), model, steps);
  }
  ASSERT_TRUE(isRound);
  dieEverywhere(original->path(), model, steps);
  EXPECT_GT(deaths.olds, deaths.news / 10);
  EXPECT_GT(deaths.news, deaths.olds / 50);
  EXPECT_TRUE(!isDense(geometry) || deaths.partly > 0);
}

TEST_P(KillPointDeathTest, ACollectionIsWholeOrAbsentWhileItIsMade) {
  dieEverywhere(TempDir().path(), {}, {{Kind::set, 1, 1}});
  EXPECT_GT(deaths.olds * kStride, Format::kLineCount * 4);
  EXPECT_TRUE(kStride > 1 || deaths.news > 0);
}

using KillRoundsSoakDeathTest = KillPointDeathTest;
INSTANTIATE_TEST_SUITE_P(Sizes, KillRoundsSoakDeathTest,
                         testing::Values(hashedOf(536, 8), denseOf(536, 24)),
                         [](const auto& info) { return nameOf(info.param); });

/// One writer after the other goes on with what the last one left, and dies at any store.
TEST_P(KillRoundsSoakDeathTest, WhatWasCommittedSurvivesAnyNumberOfKills) {
  const TempDir directory;
  Model model;
  Word next = 1;
  const int rounds = (BASTIL_SANITIZED ? 100 : 1000) * Support::soakFactor();
  for (int round = 0; round < rounds; ++round) try {
      const Steps steps = stepsFrom(geometry, model, next, 100, random);
      deaths.livesThrough(directory.path(), steps, 1 + random() % (1U << (4 + random() % 9)));
      next = deaths.check(directory.path(), steps, model);
    } catch (const std::exception& wrong) {
      FAIL() << "round " << round << ", step " << *deaths.done << ": " << wrong.what();
    }
  EXPECT_GT(deaths.news, 0U);
}

}  // namespace
}  // namespace Drift::Specimens
