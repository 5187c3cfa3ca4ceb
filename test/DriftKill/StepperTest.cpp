#include "DriftKill/Stepper.h"

#include <gtest/gtest.h>
#include <sys/mman.h>

#include <iostream>

#include "Support/Soak.h"

namespace DriftTest {
namespace {

using Format::Layout;

/// Tells whether a collection's file has changed, its appearance included.
class Watch {
 public:
  explicit Watch(const std::string& directory) : path_(pathIn(directory)) { (void)changed(); }
  ~Watch() {
    if (bytes_ != nullptr) ::munmap(bytes_, last_.size());
  }
  Watch(const Watch&) = delete;
  Watch& operator=(const Watch&) = delete;

  bool changed() {
    if (bytes_ == nullptr) return appeared();
    if (std::memcmp(bytes_, last_.data(), last_.size()) == 0) return false;
    std::memcpy(last_.data(), bytes_, last_.size());
    return true;
  }

 private:
  bool appeared() {
    const Drift::Descriptor fd(::open(path_.c_str(), O_RDONLY | O_CLOEXEC));
    struct stat facts {};
    if (!fd.valid() || ::fstat(fd.get(), &facts) != 0) return false;
    last_.resize(static_cast<std::size_t>(facts.st_size));
    bytes_ = ::mmap(nullptr, last_.size(), PROT_READ, MAP_SHARED, fd.get(), 0);
    if (bytes_ == MAP_FAILED) fault("cannot map {}", path_);
    std::memcpy(last_.data(), bytes_, last_.size());
    return true;
  }

  std::string path_;
  void* bytes_ = nullptr;
  std::vector<char> last_;
};

struct Totals {
  std::size_t instructions = 0;
  std::size_t states = 0;
  std::size_t olds = 0;
  std::size_t news = 0;

  void operator+=(const Totals& other) {
    instructions += other.instructions;
    states += other.states;
    olds += other.olds;
    news += other.news;
  }
};

std::ostream& operator<<(std::ostream& out, const Totals& totals) {
  return out << totals.instructions << " instructions, " << totals.states << " states of the file, "
             << totals.olds << " old and " << totals.news << " new";
}

/// One operation that is stepped.
struct Scenario {
  std::string name;
  Shape shape;
  Steps before;  ///< by an earlier writer
  Steps prefix;  ///< by the writer that is stepped
  Step step;
};

/// Above all keys of the scenarios of this shape.
Word keysOf(const Shape& shape) { return shape.dense() ? 0 : 2 * shape.capacity; }

/// A state that a writer may leave: a directory with a copy of its file, and what is in it.
struct Leftover {
  std::unique_ptr<TempDir> directory;
  Either either;
};

/// Steps the child through `body`; at each distinct state of the file a new reader and one that had
/// it open all the time read everything, and a successor takes over a copy and goes on. Every
/// `keepEach`-th state is kept.
Totals stepThrough(const std::string& directory, const Shape& shape, const Either& either,
                   const std::function<void(Stepper::Mark)>& body, std::size_t keepEach = 0,
                   std::vector<Leftover>* leftovers = nullptr) {
  Totals totals;
  const TempDir copy;
  const Word keys = keysOf(shape);
  Stepper stepper(body);
  Watch watch(directory);
  std::optional<Reader> resident;
  for (bool going = true; going;) {
    going = stepper.step();
    ++totals.instructions;
    if (!watch.changed() && totals.instructions > 1) continue;
    ++totals.states;
    bool isNew = false;
    if (exists(directory)) {
      isNew = either.isNew(Reader(directory).read(keys));
      if (!resident) resident.emplace(directory);
      if (either.isNew(resident->read(keys)) != isNew) fault("two readers differ");
    }
    if (totals.news != 0 && !isNew) fault("what was committed is gone again");
    ++(isNew ? totals.news : totals.olds);
    copyCollection(directory, copy.path());
    if (keepEach != 0 && totals.states % keepEach == keepEach / 2) {
      leftovers->push_back({std::make_unique<TempDir>(), either});
      copyCollection(directory, leftovers->back().directory->path());
    }
    Store successor(copy.path(), shape);
    const Contents& expected = isNew ? either.after : either.before;
    expectExactly(successor.read(keys), expected);
    goOn(successor, expected, keys);
  }
  return totals;
}

Totals stepThrough(const Scenario& scenario, std::size_t keepEach = 0,
                   std::vector<Leftover>* leftovers = nullptr) {
  const TempDir directory;
  Store(directory.path(), scenario.shape).apply(scenario.before);
  Either either;
  either.before = after(after({}, scenario.before), scenario.prefix);
  either.after = after(either.before, scenario.step);
  const auto body = [&](Stepper::Mark mark) {
    Store store(directory.path(), scenario.shape);
    store.apply(scenario.prefix);
    store.prepare(scenario.step);
    mark();
    store.perform(scenario.step);
    mark();
  };
  return stepThrough(directory.path(), scenario.shape, either, body, keepEach, leftovers);
}

Steps setAll(Word from, Word to) {
  Steps steps;
  for (Word key = from; key <= to; ++key) steps.push_back(set(key));
  return steps;
}

Steps operator+(Steps steps, const Steps& more) {
  steps.insert(steps.end(), more.begin(), more.end());
  return steps;
}

/// 8 records in 16 buckets.
std::vector<Scenario> hashedScenarios(std::uint32_t recordSize) {
  const Shape shape{Layout::hashed, recordSize, 8};
  const Steps some = setAll(1, 6);
  return {
      {"insert into an empty table", shape, {}, {}, set(1)},
      {"insert", shape, some, {}, set(7)},
      {"insert in the place of a removed record", shape, some, {remove(4)}, set(4, 2)},
      {"replace", shape, some, {}, set(3, 2)},
      {"replace again", shape, some, {set(3, 2)}, set(3, 3)},
      {"delete", shape, some, {}, remove(3)},
      {"delete the last one", shape, {set(1)}, {}, remove(1)},
      {"remove all", shape, some, {}, removeAll()},
      {"insert after remove all", shape, some, {removeAll()}, set(2, 2)},
  };
}

/// 20 records in a ring of 32.
std::vector<Scenario> denseScenarios(std::uint32_t recordSize) {
  const Shape shape{Layout::dense, recordSize, 20};
  const Steps some = setAll(1, 12);
  Steps lap = setAll(1, 20);
  for (Word version = 1; version <= 20; ++version) {
    lap = lap + Steps{set(version + 20), remove(version)};
  }
  return {
      {"append the first", shape, {}, {}, set(1)},
      {"append", shape, some, {}, set(13)},
      {"append over an older lap", shape, lap, {}, set(41)},
      {"append behind a gap", shape, some, {}, set(16)},
      {"append to a log that has become empty", shape, {set(1), set(2), removeAll()}, {}, set(3)},
      {"append above an empty window", shape, {set(1), set(2), removeAll()}, {}, set(20)},
      {"trim", shape, some, {}, remove(1)},
      {"trim over absent versions", shape, some, {remove(2), remove(3)}, remove(1)},
      {"trim the last one", shape, {set(1)}, {}, remove(1)},
      {"replace", shape, some, {}, set(7, 2)},
      {"replace again", shape, some, {set(6, 2)}, set(7, 2)},
      {"remove in the middle", shape, some, {}, remove(7)},
      {"insert in the middle", shape, some, {remove(7)}, set(7, 2)},
      {"prepend", shape, some, {remove(1), remove(2), remove(3)}, set(3, 2)},
      {"prepend before a gap", shape, some, {remove(1), remove(2), remove(3)}, set(1, 2)},
      {"remove all", shape, some, {remove(5)}, removeAll()},
  };
}

/// A step that makes the writer change to its other index table: found by a rehearsal on a copy,
/// because a file's hash seed is its own.
Totals stepThroughSwitch(const Shape& shape, Word records) {
  const TempDir directory;
  const TempDir rehearsal;
  const Steps some = setAll(1, records);
  Store(directory.path(), shape).apply(some);
  copyCollection(directory.path(), rehearsal.path());

  Steps prefix;
  Contents contents = after({}, some);
  std::optional<Step> step;
  {
    Store store(rehearsal.path(), shape);
    const Drift::CheckedWord active(store.file().data(), Format::Line::active);
    std::mt19937 random(Support::seed());
    for (Word generation = 2; !step && generation < 100'000; ++generation) {
      const Word before = active.load().value();
      const Word key = random() % keysOf(shape);
      const Step next = contents.contains(key)       ? remove(key)
                        : contents.size() <= records ? set(key, generation)
                                                     : remove(contents.begin()->first);
      store.apply(next);
      if (active.load().value() != before) {
        step = next;
      } else {
        prefix.push_back(next);
        contents = after(std::move(contents), next);
      }
    }
  }
  if (!step) fault("no insert has changed the table in {}", shape.name());
  const auto body = [&](Stepper::Mark mark) {
    Store store(directory.path(), shape);
    store.apply(prefix);
    store.prepare(*step);
    mark();
    store.perform(*step);
    mark();
  };
  return stepThrough(directory.path(), shape, {contents, after(contents, *step)}, body);
}

/// Steps scenarios; each must have shown the old state and the new one.
class Stepped {
 public:
  void run(const Scenario& scenario, std::size_t keepEach = 0) {
    SCOPED_TRACE(scenario.shape.name() + ": " + scenario.name);
    try {
      add(stepThrough(scenario, keepEach, &leftovers_));
    } catch (const std::exception& wrong) {
      ADD_FAILURE() << wrong.what();
    }
  }
  void add(const Totals& totals) {
    EXPECT_GT(totals.olds, 0U);
    EXPECT_GT(totals.news, 0U);
    all_ += totals;
  }
  std::vector<Leftover>& leftovers() { return leftovers_; }
  ~Stepped() { std::cout << "stepped " << all_ << '\n'; }

 private:
  Totals all_;
  std::vector<Leftover> leftovers_;
};

constexpr std::uint32_t kSizes[] = {24, 124, 536};

TEST(StepperDeathTest, ARecordOfAHashedCollectionIsOldOrNewAtEveryInstruction) {
  Stepped stepped;
  for (const std::uint32_t size : kSizes) {
    for (const Scenario& scenario : hashedScenarios(size)) stepped.run(scenario);
  }
}

TEST(StepperDeathTest, ARecordOfADenseCollectionIsOldOrNewAtEveryInstruction) {
  Stepped stepped;
  for (const std::uint32_t size : {24U, 124U, 536U, 548U}) {
    for (const Scenario& scenario : denseScenarios(size)) stepped.run(scenario);
  }
}

TEST(StepperDeathTest, TheChangeToTheOtherIndexTableLosesNothingAtAnyInstruction) {
  Stepped stepped;
  for (const std::uint32_t size : kSizes) {
    stepped.add(stepThroughSwitch({Layout::hashed, size, 8}, 6));
  }
  // Tables of a page and more, which are given back to the system instead of being cleared.
  const Shape large{Layout::hashed, 24, 256};
  stepped.add(stepThroughSwitch(large, 250));
  stepped.run({"remove all", large, setAll(1, 250), {}, removeAll()});
}

TEST(StepperDeathTest, AMountLosesNothingAtAnyInstruction) {
  Stepped stepped;
  for (const Shape& shape : {Shape{Layout::hashed, 124, 8}, Shape{Layout::dense, 124, 20}}) {
    for (const Scenario& scenario :
         shape.dense() ? denseScenarios(shape.recordSize) : hashedScenarios(shape.recordSize)) {
      stepped.run(scenario, kInstrumented ? 64 : 16);
    }
    stepped.leftovers().push_back({std::make_unique<TempDir>(), {}});
    Totals totals;
    for (const Leftover& leftover : stepped.leftovers()) {
      const auto body = [&](Stepper::Mark mark) {
        mark();
        const Store store(leftover.directory->path(), shape);
        mark();
      };
      try {
        const Totals one = stepThrough(leftover.directory->path(), shape, leftover.either, body);
        EXPECT_TRUE(one.olds == 0 || one.news == 0) << "the mount has changed what is there";
        totals += one;
      } catch (const std::exception& wrong) {
        ADD_FAILURE() << wrong.what();
      }
    }
    std::cout << stepped.leftovers().size() << " mounts: " << totals << '\n';
    EXPECT_GT(totals.states, stepped.leftovers().size() * 3);
    stepped.leftovers().clear();
  }
}

}  // namespace
}  // namespace DriftTest
