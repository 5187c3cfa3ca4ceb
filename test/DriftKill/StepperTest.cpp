#include "Support/Stepper.h"

#include <gtest/gtest.h>

#include <iostream>
#include <random>

#include "DriftKill/Collections.h"
#include "Support/Soak.h"

namespace DriftTest {
namespace {

using Support::Stepper;
using Body = std::function<void(Stepper::Mark)>;

struct Totals {
  std::size_t instructions = 0;
  std::size_t states = 0;
  std::size_t olds = 0;
  std::size_t news = 0;
};

/// One operation that is stepped.
struct Scenario {
  std::string name;
  Geometry geometry;
  Steps before;  ///< by an earlier writer
  Steps prefix;  ///< by the writer that is stepped
  Step step;
};

/// A state that a writer may leave: a directory with a copy of its file, and what is in it.
struct Leftover {
  std::unique_ptr<TempDir> directory;
  Either either;
};

/// Takes children through what they do to a collection, and counts.
class Stepping {
 public:
  /// Every `keepEach`-th state of a file is kept.
  explicit Stepping(std::size_t keepEach = 0) : keepEach_(keepEach) {}
  ~Stepping() {
    std::cout << all_.instructions << " instructions, " << all_.states << " states of the file, "
              << all_.olds << " old and " << all_.news << " new\n";
  }

  /// Steps a scenario, which must show the old state and the new one. It begins in a copy of
  /// `origin`, if that is given.
  void run(const Scenario& scenario, const std::string* origin = nullptr) {
    SCOPED_TRACE(nameOf(scenario.geometry) + ": " + scenario.name);
    const Geometry& geometry = scenario.geometry;
    const auto& prefix = scenario.prefix;
    const auto& step = scenario.step;
    const TempDir directory;
    if (origin != nullptr) {
      copyCollection(*origin, directory.path());
    } else {
      Store(directory.path(), geometry).apply(scenario.before);
    }
    const Model old = after(geometry, after(geometry, {}, scenario.before), prefix);
    const Totals totals =
        through(directory.path(), geometry, {old, after(geometry, old, step)}, [&](auto mark) {
          Store store(directory.path(), geometry);
          store.apply(prefix);
          store.prepare(step);
          mark();
          store.perform(step);
          mark();
        });
    EXPECT_GT(totals.olds, 0U);
    EXPECT_GT(totals.news, 0U);
  }

  /// At each distinct state of the file a new reader and one that had it open all the time read
  /// everything, and a successor takes over a copy and goes on.
  Totals through(const std::string& directory, const Geometry& geometry, const Either& either,
                 const Body& body) try {
    Totals totals;
    const TempDir copy;
    Stepper stepper(body);
    std::optional<Reader> resident;
    std::string last;
    // The file, its appearance included.
    const auto changed = [&] {
      if (!resident && !exists(directory)) return false;
      if (!resident) resident.emplace(directory);
      const auto* const bytes = reinterpret_cast<const char*>(resident->file->data());
      const std::string_view now(bytes, resident->file->header().fileSize);
      if (now == last) return false;
      last = now;
      return true;
    };
    for (bool going = true; going;) {
      going = stepper.step();
      ++totals.instructions;
      if (!changed() && totals.instructions > 1) continue;
      ++totals.states;
      bool isNew = false;
      if (resident) {
        isNew = either.isNew(Reader(directory).view);
        if (either.isNew(resident->view) != isNew) fault("two readers differ");
      }
      if (totals.news != 0 && !isNew) fault("what was committed is gone again");
      ++(isNew ? totals.news : totals.olds);
      copyCollection(directory, copy.path());
      if (keepEach_ != 0 && totals.states % keepEach_ == keepEach_ / 2) {
        leftovers.push_back({std::make_unique<TempDir>(), either});
        copyCollection(directory, leftovers.back().directory->path());
      }
      if (takeOver(copy.path(), geometry, either) != isNew) fault("reader and successor differ");
    }
    all_.instructions += totals.instructions;
    all_.states += totals.states;
    all_.olds += totals.olds;
    all_.news += totals.news;
    return totals;
  } catch (const std::exception& wrong) {
    ADD_FAILURE() << wrong.what();
    return {};
  }

  std::size_t states() const { return all_.states; }

  std::vector<Leftover> leftovers;

 private:
  std::size_t keepEach_;
  Totals all_;
};

/// 8 records in 16 buckets.
std::vector<Scenario> hashedScenarios(std::uint32_t recordSize) {
  const Geometry of = hashedOf(recordSize, 8);
  const Steps some = setAll(1, 6);
  return {
      {"insert into an empty table", of, {}, {}, set(1)},
      {"insert", of, some, {}, set(7)},
      {"insert in the place of a removed record", of, some, {remove(4)}, set(4, 2)},
      {"replace", of, some, {}, set(3, 2)},
      {"replace again", of, some, {set(3, 2)}, set(3, 3)},
      {"delete", of, some, {}, remove(3)},
      {"delete the last one", of, {set(1)}, {}, remove(1)},
      {"remove all", of, some, {}, removeAll()},
      {"insert after remove all", of, some, {removeAll()}, set(2, 2)},
  };
}

/// 20 records in a ring of 32.
std::vector<Scenario> denseScenarios(std::uint32_t recordSize) {
  const Geometry of = denseOf(recordSize, 20);
  const Steps some = setAll(1, 12);
  Steps lap = setAll(1, 20);
  for (Word version = 1; version <= 20; ++version) {
    lap.insert(lap.end(), {set(version + 20), remove(version)});
  }
  return {
      {"append the first", of, {}, {}, set(1)},
      {"append", of, some, {}, set(13)},
      {"append over an older lap", of, lap, {}, set(41)},
      {"append behind a gap", of, some, {}, set(16)},
      {"append to a log that has become empty", of, {set(1), set(2), removeAll()}, {}, set(3)},
      {"append above an empty window", of, {set(1), set(2), removeAll()}, {}, set(20)},
      {"trim", of, some, {}, remove(1)},
      {"trim over absent versions", of, some, {remove(2), remove(3)}, remove(1)},
      {"trim the last one", of, {set(1)}, {}, remove(1)},
      {"replace", of, some, {}, set(7, 2)},
      {"replace again", of, some, {set(6, 2)}, set(7, 2)},
      {"remove in the middle", of, some, {}, remove(7)},
      {"insert in the middle", of, some, {remove(7)}, set(7, 2)},
      {"prepend", of, some, {remove(1), remove(2), remove(3)}, set(3, 2)},
      {"prepend before a gap", of, some, {remove(1), remove(2), remove(3)}, set(1, 2)},
      {"remove all", of, some, {remove(5)}, removeAll()},
  };
}

/// A step that makes the writer change to its other index table: found by a rehearsal on a copy,
/// because a file's hash seed is its own.
void stepThroughSwitch(Stepping& stepping, const Geometry& geometry, Word records) {
  const TempDir directory;
  const TempDir rehearsal;
  Scenario scenario{"other table", geometry, setAll(1, records), {}, {}};
  Store(directory.path(), geometry).apply(scenario.before);
  copyCollection(directory.path(), rehearsal.path());
  Model model = after(geometry, {}, scenario.before);
  Store store(rehearsal.path(), geometry);
  const Word active = store.line(Format::Line::active);
  std::mt19937 random(Support::seed());
  for (Word generation = 2; generation < 100'000; ++generation) {
    const Word key = random() % (2 * geometry.capacity);
    scenario.step = model.contains(keyOf(geometry, key)) ? remove(key)
                    : model.size() <= records            ? set(key, generation)
                                                         : remove(model.begin()->first.back());
    store.apply({&scenario.step, 1});
    if (store.line(Format::Line::active) != active) {
      return stepping.run(scenario, &directory.path());
    }
    scenario.prefix.push_back(scenario.step);
    model = after(geometry, std::move(model), scenario.step);
  }
  FAIL() << "no insert has changed the table";
}

TEST(StepperDeathTest, ARecordIsOldOrNewAtEveryInstruction) {
  for (const std::uint32_t size : {24U, 124U, 536U, 548U}) {
    Stepping hashed;
    Stepping dense;
    if (size != 548) {
      for (const Scenario& scenario : hashedScenarios(size)) hashed.run(scenario);
    }
    for (const Scenario& scenario : denseScenarios(size)) dense.run(scenario);
  }
}

TEST(StepperDeathTest, TheChangeToTheOtherIndexTableLosesNothingAtAnyInstruction) {
  Stepping stepping;
  for (const std::uint32_t size : {24U, 124U, 536U}) {
    stepThroughSwitch(stepping, hashedOf(size, 8), 6);
  }
  // Tables of a page and more, which are given back to the system instead of being cleared.
  const Geometry large = hashedOf(24, 256);
  stepThroughSwitch(stepping, large, 250);
  stepping.run({"remove all", large, setAll(1, 250), {}, removeAll()});
}

TEST(StepperDeathTest, AMountLosesNothingAtAnyInstruction) {
  for (const bool dense : {false, true}) {
    Stepping stepping(kInstrumented ? 64 : 16);
    const auto scenarios = dense ? denseScenarios(124) : hashedScenarios(124);
    for (const Scenario& scenario : scenarios) stepping.run(scenario);
    stepping.leftovers.push_back({std::make_unique<TempDir>(), {}});
    Stepping mounts;
    for (const auto& [directory, either] : stepping.leftovers) {
      const std::string& path = directory->path();
      const Geometry& geometry = scenarios[0].geometry;
      const Totals one = mounts.through(path, geometry, either, [&](auto mark) {
        mark();
        const Store store(path, geometry);
        mark();
      });
      EXPECT_TRUE(one.olds == 0 || one.news == 0) << "the mount has changed what is there";
    }
    EXPECT_GT(mounts.states(), stepping.leftovers.size() * 3);
  }
}

}  // namespace
}  // namespace DriftTest
