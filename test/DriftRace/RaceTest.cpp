#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <deque>
#include <functional>
#include <iostream>
#include <random>
#include <thread>

#include "Support/Collections.h"
#include "Support/Process.h"
#include "Support/Shared.h"
#include "Support/Soak.h"

/// A writer at full speed and readers that notice whatever they must not see. The writer's rules
/// are what the readers hold it to: generations only rise; of a hashed collection the lasting keys
/// are never removed; of a dense one every fourth version is there until the low end passes it.
namespace Drift::Specimens {
namespace {

using std::chrono::milliseconds;
using Random = std::minstd_rand;

constexpr int kReaders = 4;
/// Few slots, so that readers meet the writer often, and as many as let the index grow.
constexpr Word kSlots = 64;
constexpr Word kManySlots = 1024;
constexpr Word kLasting = 40;
/// Of so many keys a few are there at a time: each comes to another place in the index.
constexpr Word kKeys = 1024;
constexpr Word kWindow = 40;
/// Changes between two moments at which readers are stopped: about half of the time.
constexpr int kSteps = 512;
constexpr bool lastsInLog(Word version) { return version % 4 == 0; }

/// Record size; keys that stay: none where everything is removed at once now and then; slots of the
/// table.
struct Course {
  std::uint32_t recordSize;
  Word lasting;
  Word slots;
};
/// The widest first: they are torn soonest.
constexpr Course kCourses[] = {
    {552, 0, kSlots}, {536, kLasting, kSlots}, {124, 0, kManySlots}, {24, kLasting, kManySlots}};

/// The writer of one collection.
class Load {
 public:
  Load(DriftFile& file, const Geometry& geometry, Word lasting)
      : writer_(file),
        record_(wordsOf(geometry.recordSize)),
        key_(keyOf(geometry, 0)),
        lasting_(lasting),
        slots_(writer_.dense ? kSlots : geometry.capacity) {
    for (Word number = 0; number < (writer_.dense ? kWindow : lasting); ++number) put(number);
  }

  void step(Random& random) { writer_.dense ? denseStep(random) : hashedStep(random); }

  /// So that `turn` meets all slots.
  void prepareTurn() {
    if (writer_.dense) return;
    for (const Word key : passing_) remove(key);
    passing_.clear();
    for (Word key = 0; key < slots_; ++key) put(key);
    for (Word key = lasting_; key < slots_; ++key) passing_.push_back(key);
  }
  /// Every slot gets another record, and nothing but its seal shows it to a reader that has begun
  /// to copy the last one: in the index, where each key has the slot and the number again that it
  /// had before all numbers were used, and in the log, where nothing is replaced.
  void turn() {
    if (writer_.dense) {
      for (Word i = 0; i < slots_; ++i) {
        const auto [first, next] = writer_.dense->view().window();
        remove(first), put(next);
      }
    } else {
      for (Word i = 0; i < Word{1} << Format::kSequenceBits; ++i) put(i % slots_);
    }
  }

 private:
  void hashedStep(Random& random) {
    const unsigned dice = random() % 1024;
    if (dice == 0 && lasting_ == 0) {
      writer_.removeAll(), passing_.clear();
    } else if (dice < 200 && lasting_ != 0) {
      put(random() % lasting_);
    } else if (dice < 600 && !passing_.empty()) {
      remove(passing_.front()), passing_.pop_front();
    } else if (lasting_ + passing_.size() < slots_) {
      passing_.push_back(lasting_ + random() % (kKeys - lasting_));
      put(passing_.back());
    } else {
      put(passing_[random() % passing_.size()]);
    }
  }
  void denseStep(Random& random) {
    const auto [first, next] = writer_.dense->view().window();
    const Word within = first + random() % (next - first + 1);
    const unsigned dice = random() % 64;
    if (next - first > kWindow || (dice < 30 && next - first > kWindow / 2)) {
      remove(first);
    } else if (dice < 36 && within < next) {
      put(within);
    } else if (dice < 40 && within < next && !lastsInLog(within)) {
      remove(within);
    } else if (dice == 40 && !lastsInLog(next)) {
      put(next + 1);
    } else {
      put(next);
    }
  }
  void put(Word number) {
    key_.back() = number;
    fill(record_, key_, ++generation_);
    writer_.set(record_);
  }
  void remove(Word number) {
    key_.back() = number;
    (void)writer_.remove(key_);
  }

  AnyWriter writer_;
  Record record_, key_;
  const Word lasting_;
  const Word slots_;
  std::deque<Word> passing_;  ///< keys that come and go
  Word generation_ = 0;
};

/// A reader of one collection.
class Checker {
 public:
  Checker(const DriftFile& file, const Geometry& geometry, Word lasting)
      : view_(file), key_(keyOf(geometry, 0)), lasting_(lasting) {}

  void step(Random& random) {
    if (view_.dense) {
      for (int i = 0; i < 64; ++i) {
        const auto window = view_.dense->window();
        find(window.first + random() % (window.next - window.first + 1));
      }
      for (int i = 0; i < 256 && follow(); ++i) {
      }
    } else {
      for (int i = 0; i < 32; ++i) find(random() % kKeys);
      for (int i = 0; i < 64; ++i) find(random() % kLasting);
      walk();
    }
    if (view_.size() > kManySlots) fault("size {}", view_.size());
  }

  Word reads = 0;
  Word changes = 0;  ///< records that had changed since this reader's last look

 private:
  void find(Word number) {
    ++reads;
    key_.back() = number;
    if (view_.find(key_)) return note(number);
    if (mustBeThere(number)) fault("key {} was always there and is not found", number);
    // Who comes after an absence is newer.
    Latest& latest = latest_[number % kKeys];
    if (latest.number == number && latest.generation != 0 && !latest.absent) ++latest.generation;
    latest.absent = true;
  }

  bool mustBeThere(Word number) const {
    if (!view_.dense) return number < lasting_;
    const auto window = view_.dense->window();
    return lastsInLog(number) && number >= window.first && number < seenNext_;
  }

  void walk() {
    bool seen[kKeys] = {};
    view_.walkFromTheBeginning();
    while (view_.next()) {
      ++reads;
      const Word key = view_.after.back();
      if (key >= kKeys) fault("the walk gives a key that never was: {}", key);
      if (std::exchange(seen[key], true)) fault("the walk visits key {} twice", key);
      note(key);
    }
    for (Word key = 0; key < lasting_; ++key) {
      if (!seen[key]) fault("key {} was always there and the walk passes over it", key);
    }
  }

  /// Goes on to the next record behind the last one that was followed.
  bool follow() {
    const Word from = view_.version;
    ++reads;
    if (!view_.next()) return false;
    const Word version = view_.after[0];
    if (version < from) fault("asked from {} on, got {}", from, version);
    note(version);
    for (Word passed = from; passed < version; ++passed) {
      if (mustBeThere(passed)) fault("from {} on: version {} is passed over", from, passed);
    }
    return true;
  }

  void note(Word number) {
    key_.back() = number;
    if (!std::ranges::equal(key_, std::span(view_.bytes).first(key_.size()))) {
      fault("key {} gave another", number);
    }
    const Word generation = generationOf(view_.bytes, key_.size());
    Latest& latest = latest_[number % kKeys];
    const bool known = latest.number == number;
    if (known && generation < latest.generation) {
      fault("key {} went back from generation {} to {}", number, latest.generation, generation);
    }
    if (!known || generation != latest.generation) ++changes;
    latest = {number, generation, false};
    seenNext_ = std::max(seenNext_, number + 1);
  }

  struct Latest {
    Word number;
    Word generation;
    bool absent;
  };

  AnyView view_;
  Record key_;
  const Word lasting_;
  Word seenNext_ = 0;
  Latest latest_[kKeys] = {};
};

/// What the writer and the readers of a race share beside the files; zero at first.
struct Race {
  std::atomic<bool> stop;
  std::atomic<Word> reads, changes;
  std::atomic<bool> faulty;
  char fault[500];

  /// A part in it, which ends it if something is wrong.
  void run(const std::function<void()>& part) {
    try {
      part();
    } catch (const std::exception& wrong) {
      if (!faulty.exchange(true)) std::string(wrong.what()).copy(fault, sizeof fault - 1);
      stop = true;
    }
  }
};

/// One writer and four readers, in processes that are stopped wherever they are or all over the
/// writer's mappings, for a while and for so many reads.
void runRace(const Course& course, bool processes, milliseconds time, Word reads, unsigned seed) {
  const TempDir temporary;
  const Directory directory(temporary.path(), Directory::Access::write);
  const Geometry geometries[] = {hashedOf(course.recordSize, course.slots),
                                 denseOf(course.recordSize, kSlots - 2)};
  const auto hashed = DriftFile::openForWriting(directory, "table", geometries[0], {});
  const auto dense = DriftFile::openForWriting(directory, "log", geometries[1], {});
  Load table(*hashed, geometries[0], course.lasting);
  Load log(*dense, geometries[1], 0);

  const Support::Shared<Race> race;
  const auto read = [&](unsigned who, const DriftFile& tableFile, const DriftFile& logFile) {
    Checker checkers[] = {{tableFile, geometries[0], course.lasting}, {logFile, geometries[1], 0}};
    for (Random random(seed + who); !race->stop.load(std::memory_order_relaxed);) {
      for (Checker& checker : checkers) {
        checker.step(random);
        race->reads += std::exchange(checker.reads, 0);
        race->changes += std::exchange(checker.changes, 0);
      }
    }
  };
  const auto readOwn = [&](unsigned who) {
    read(who, *DriftFile::openForReading(directory, "table", nullptr),
         *DriftFile::openForReading(directory, "log", nullptr));
  };
  std::vector<Support::Process> children;
  std::vector<std::thread> threads;
  for (unsigned who = 1; who <= kReaders; ++who) {
    if (processes) {
      children.emplace_back([&] { race->run([&] { readOwn(who); }), ::_exit(0); });
    } else {
      threads.emplace_back([&, who] { race->run([&] { read(who, *hashed, *dense); }); });
    }
  }
  race->run([&] {
    Random random(seed);
    const auto end = std::chrono::steady_clock::now() + time;
    while (!race->stop && (std::chrono::steady_clock::now() < end || race->reads < reads)) {
      for (int step = 0; step < kSteps; ++step) table.step(random), log.step(random);
      table.prepareTurn();
      for (const Support::Process& child : children) child.stop();
      table.turn(), log.turn();
      for (const Support::Process& child : children) child.signal(SIGCONT);
    }
  });
  race->stop = true;
  for (Support::Process& child : children) EXPECT_EQ(child.wait(), 0);
  for (std::thread& thread : threads) thread.join();

  EXPECT_STREQ(race->fault, "");
  // How often the writer has changed to the other index table.
  const Word active = CheckedWord(hashed->data(), Format::Line::active).load().value();
  const auto [which, bits, switches] = Format::ActiveIndex::from(active);
  std::cout << course.recordSize << " bytes: " << race->reads << " reads, " << race->changes
            << " of changed records, " << switches << " index tables\n";
  EXPECT_GT(race->changes, 100U);
  EXPECT_EQ(bits, course.slots == kSlots ? 7U : 11U);
  // A sanitizer leaves time for fewer.
  EXPECT_GT(switches, BASTIL_SANITIZED ? 0U : 10U);
}

void runCourses(bool processes, milliseconds each, Word reads) {
  const Support::Seed seed;
  for (const Course& course : kCourses) {
    if (!testing::Test::HasFailure()) runRace(course, processes, each, reads, seed);
  }
}

TEST(RaceSoak, FourReaderProcessesNeverMeetATornRecord) {
  // A minute in all; but a sanitizer sees nothing between processes.
  runCourses(true, milliseconds(BASTIL_SANITIZED ? 2'000 : 15'000),
             Support::soakFactor() == 1 ? 0 : 250'000'000);
}

TEST(RaceThread, FourReadersOverTheWritersMappingNeverMeetATornRecord) {
  runCourses(false, milliseconds(2'000), 0);
}

}  // namespace
}  // namespace Drift::Specimens
