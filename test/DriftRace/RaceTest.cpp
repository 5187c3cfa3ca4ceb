#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
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
constexpr Word kLasting = 40;
/// Of so many keys a few are there at a time: each comes to another place in the index.
constexpr Word kKeys = 1024;
constexpr std::size_t kLive = 62;
/// Few slots, so that readers meet the writer often: 64 in the ring of this capacity.
constexpr Word kCapacity = 62;
constexpr Word kWindow = 40;
constexpr bool lastsInLog(Word version) { return version % 4 == 0; }

/// Record size, and keys that stay: none where everything is removed at once now and then.
struct Course {
  std::uint32_t recordSize;
  Word lasting;

  Geometry hashed() const { return hashedOf(recordSize, kCapacity + 2); }
  Geometry dense() const { return denseOf(recordSize, kCapacity); }
};
constexpr Course kCourses[] = {{24, kLasting}, {124, 0}, {536, kLasting}, {552, 0}};

/// The writer of one collection.
class Load {
 public:
  Load(DriftFile& file, const Geometry& geometry, Word lasting)
      : writer_(file),
        record_(wordsOf(geometry.recordSize)),
        key_(keyOf(geometry, 0)),
        lasting_(lasting) {
    const Word first = isDense(geometry) ? 1 : 0;
    const Word count = isDense(geometry) ? kWindow / 2 : lasting;
    for (Word number = first; number < first + count; ++number) put(number);
  }
  void step(Random& random) { writer_.dense ? denseStep(random) : hashedStep(random); }

 private:
  void hashedStep(Random& random) {
    const unsigned dice = random() % 1024;
    if (dice == 0 && lasting_ == 0) {
      writer_.removeAll();
      passing_.clear();
    } else if (dice < 200 && lasting_ != 0) {
      put(random() % lasting_);
    } else if (dice < 600 && !passing_.empty()) {
      std::swap(passing_[random() % passing_.size()], passing_.back());
      remove(passing_.back());
      passing_.pop_back();
    } else if (lasting_ + passing_.size() < kLive) {
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
  std::vector<Word> passing_;  ///< keys that come and go
  Word generation_ = 0;
};

/// A reader of one collection.
class Checker {
 public:
  Checker(const DriftFile& file, const Geometry& geometry, Word lasting)
      : view_(file), key_(keyOf(geometry, 0)), lasting_(lasting) {}

  void step(Random& random) {
    if (view_.dense) {
      for (int i = 0; i < 32; ++i) {
        const auto window = view_.dense->window();
        find(window.first + random() % (window.next - window.first + 1));
      }
      for (int i = 0; i < 64 && follow(); ++i) {
      }
    } else {
      for (int i = 0; i < 32; ++i) find(random() % kKeys);
      for (int i = 0; i < 64; ++i) find(random() % kLasting);
      walk();
    }
    if (view_.size() > kLive) fault("size {}", view_.size());
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
};

struct Files {
  std::unique_ptr<DriftFile> hashed, dense;
};

/// A part in the race, until it stops or something is wrong.
template <class Actor>
void run(Race& race, Actor hashed, Actor dense, unsigned seed) {
  try {
    for (Random random(seed); !race.stop.load(std::memory_order_relaxed);) {
      hashed.step(random);
      dense.step(random);
      if constexpr (requires { hashed.reads; }) {
        race.reads += std::exchange(hashed.reads, 0) + std::exchange(dense.reads, 0);
        race.changes += std::exchange(hashed.changes, 0) + std::exchange(dense.changes, 0);
      }
    }
  } catch (const std::exception& wrong) {
    if (!race.faulty.exchange(true)) {
      std::string(wrong.what()).copy(race.fault, sizeof race.fault - 1);
    }
    race.stop = true;
  }
}

/// One writer and four readers, each with mappings of its own or all over the writer's, for a while
/// and for so many reads.
void runRace(const Course& course, bool processes, milliseconds time, Word reads, unsigned seed) {
  const TempDir temporary;
  const Directory directory(temporary.path(), Directory::Access::write);
  const auto writable = [&]() -> Files {
    return {DriftFile::openForWriting(directory, "table", course.hashed(), {}),
            DriftFile::openForWriting(directory, "log", course.dense(), {})};
  };
  const auto readable = [&]() -> Files {
    return {DriftFile::openForReading(directory, "table", nullptr),
            DriftFile::openForReading(directory, "log", nullptr)};
  };
  const auto loadOf = [&](const Files& files) {
    return std::pair(Load(*files.hashed, course.hashed(), course.lasting),
                     Load(*files.dense, course.dense(), 0));
  };
  Files shared = writable();
  // What readers may begin with.
  loadOf(shared);
  if (processes) shared = {};

  const Support::Shared<Race> race;
  const auto part = [&](unsigned who) {
    const Files own = !processes ? Files() : who == 0 ? writable() : readable();
    const Files& files = processes ? own : shared;
    if (who == 0) {
      auto [hashed, dense] = loadOf(files);
      run(*race, std::move(hashed), std::move(dense), seed);
    } else {
      run(*race, Checker(*files.hashed, course.hashed(), course.lasting),
          Checker(*files.dense, course.dense(), 0), seed + who);
    }
  };
  std::vector<Support::Process> children;
  std::vector<std::thread> threads;
  for (unsigned who = 0; who <= kReaders; ++who) {
    if (processes) {
      children.emplace_back([&] { part(who), ::_exit(0); });
    } else {
      threads.emplace_back(part, who);
    }
  }
  const auto end = std::chrono::steady_clock::now() + time;
  while (!race->stop && (std::chrono::steady_clock::now() < end || race->reads < reads)) {
    std::this_thread::sleep_for(milliseconds(10));
  }
  race->stop = true;
  for (Support::Process& child : children) EXPECT_EQ(child.wait(), 0);
  for (std::thread& thread : threads) thread.join();

  EXPECT_STREQ(race->fault, "");
  // How often the writer has changed to the other index table.
  const auto file = readable().hashed;
  const Word switches = CheckedWord(file->data(), Format::Line::active).load().value() >> 1;
  std::cout << course.recordSize << " bytes: " << race->reads << " reads, " << race->changes
            << " of changed records, " << switches << " index tables\n";
  EXPECT_GT(race->changes, 100U);
  EXPECT_GT(switches, 10U);
}

/// A sanitizer sees nothing between processes.
constexpr int kMinute = BASTIL_SANITIZED ? 8 : 60;

void runCourses(bool processes, int seconds, Word reads) {
  const unsigned seed = Support::seed();
  SCOPED_TRACE(fmt::format("BASTIL_SEED={}", seed));
  for (const Course& course : kCourses) {
    runRace(course, processes, milliseconds(1000 * seconds / static_cast<int>(std::size(kCourses))),
            reads / std::size(kCourses), seed);
  }
}

TEST(RaceSoak, FourReaderProcessesNeverMeetATornRecord) {
  runCourses(true, kMinute, Support::soakFactor() == 1 ? 0 : 1'000'000'000);
}

TEST(RaceThread, FourReadersOverTheWritersMappingNeverMeetATornRecord) { runCourses(false, 8, 0); }

}  // namespace
}  // namespace Drift::Specimens
