#include <gtest/gtest.h>

#include <array>
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

class HashedLoad {
 public:
  HashedLoad(DriftFile& file, const Course& course)
      : writer_(file),
        record_(wordsOf(course.recordSize)),
        key_(keyOf(course.hashed(), 0)),
        lasting_(course.lasting) {
    for (Word key = 0; key < lasting_; ++key) put(key);
  }
  void step(Random& random) {
    const unsigned dice = random() % 1024;
    if (dice == 0 && lasting_ == 0) {
      writer_.removeAll();
      passing_.clear();
    } else if (dice < 200 && lasting_ != 0) {
      put(random() % lasting_);
    } else if (dice < 600 && !passing_.empty()) {
      std::swap(passing_[random() % passing_.size()], passing_.back());
      key_.back() = passing_.back();
      (void)writer_.remove(key_);
      passing_.pop_back();
    } else if (lasting_ + passing_.size() < kLive) {
      passing_.push_back(lasting_ + random() % (kKeys - lasting_));
      put(passing_.back());
    } else {
      put(passing_[random() % passing_.size()]);
    }
  }

 private:
  void put(Word key) {
    key_.back() = key;
    fill(record_, key_, ++generation_);
    writer_.set(record_);
  }

  HashedWriter writer_;
  Record record_, key_;
  const Word lasting_;
  std::vector<Word> passing_;  ///< keys that come and go
  Word generation_ = 0;
};

class DenseLoad {
 public:
  DenseLoad(DriftFile& file, const Course& course)
      : writer_(file), record_(wordsOf(course.recordSize)) {
    for (Word version = 1; version <= kWindow / 2; ++version) put(version);
  }
  void step(Random& random) {
    const auto [first, next] = writer_.view().window();
    const Word within = first + random() % (next - first + 1);
    const unsigned dice = random() % 64;
    if (next - first > kWindow || (dice < 30 && next - first > kWindow / 2)) {
      (void)writer_.remove(first);
    } else if (dice < 36 && within < next) {
      put(within);
    } else if (dice < 40 && within < next && !lastsInLog(within)) {
      (void)writer_.remove(within);
    } else if (dice == 40 && !lastsInLog(next)) {
      put(next + 1);
    } else {
      put(next);
    }
  }

 private:
  void put(Word version) {
    fill(record_, {version}, ++generation_);
    writer_.set(record_);
  }

  DenseWriter writer_;
  Record record_;
  Word generation_ = 0;
};

/// What the readers of either kind count.
struct Findings {
  Word reads = 0;
  Word changes = 0;  ///< records that had changed since this reader's last look
};

class HashedChecker {
 public:
  HashedChecker(const DriftFile& file, const Course& course)
      : view_(file), key_(keyOf(course.hashed(), 0)), lasting_(course.lasting) {}

  void find(Word key) {
    ++findings.reads;
    key_.back() = key;
    if (view_.find(key_)) return note(key);
    if (key < lasting_) fault("key {} was always there and is not found", key);
    // Who comes after an absence is newer.
    if (latest_[key] != 0 && !absent_[key]) ++latest_[key];
    absent_[key] = true;
  }

  void walk() {
    bool seen[kKeys] = {};
    view_.walkFromTheBeginning();
    while (view_.next()) {
      ++findings.reads;
      const Word key = view_.after.back();
      if (key >= kKeys) fault("the walk gives a key that never was: {}", key);
      if (std::exchange(seen[key], true)) fault("the walk visits key {} twice", key);
      note(key);
    }
    for (Word key = 0; key < lasting_; ++key) {
      if (!seen[key]) fault("key {} was always there and the walk passes over it", key);
    }
    if (view_.size() > kLive) fault("size {}", view_.size());
  }

  void step(Random& random) {
    for (int i = 0; i < 32; ++i) find(random() % kKeys);
    for (int i = 0; i < 64; ++i) find(random() % kLasting);
    walk();
  }

  Findings findings;

 private:
  void note(Word key) {
    key_.back() = key;
    if (!std::ranges::equal(key_, std::span(view_.bytes).first(key_.size()))) {
      fault("key {} gave another", key);
    }
    const Word generation = generationOf(view_.bytes, view_.keyWords());
    if (generation < latest_[key]) {
      fault("key {} went back from generation {} to {}", key, latest_[key], generation);
    }
    if (generation != latest_[key]) ++findings.changes;
    latest_[key] = generation;
    absent_[key] = false;
  }

  AnyView view_;
  Record key_;
  const Word lasting_;
  Word latest_[kKeys] = {};
  bool absent_[kKeys] = {};
};

class DenseChecker {
 public:
  explicit DenseChecker(const DriftFile& file) : view_(file), record_(view_.recordWords()) {}

  void find(Word version) {
    ++findings.reads;
    if (view_.find(version, record_) == DenseRead::found) {
      note(version);
    } else if (lastsInLog(version)) {
      mustBeOutside(version);
    }
  }

  /// Goes on to the next record behind the last one that was followed.
  bool follow() {
    Word version = followed_;
    ++findings.reads;
    if (!view_.findFrom(version, record_)) return false;
    if (version < followed_) fault("asked from {} on, got {}", followed_, version);
    note(version);
    for (Word passed = followed_; passed < version; ++passed) {
      if (lastsInLog(passed) && view_.window().first <= passed) {
        fault("from {} on to {}: version {} is passed over", followed_, version, passed);
      }
    }
    followed_ = version + 1;
    return true;
  }

  void step(Random& random) {
    for (int i = 0; i < 32; ++i) {
      const auto window = view_.window();
      find(window.first + random() % (window.next - window.first + 1));
    }
    for (int i = 0; i < 64 && follow(); ++i) {
    }
    if (view_.size() > kWindow + 2) fault("size {}", view_.size());
  }

  Findings findings;

 private:
  void mustBeOutside(Word version) {
    const auto window = view_.window();
    if (version >= window.first && version < window.next && seenNext_ > version) {
      fault("version {} was always there and is not found", version);
    }
  }

  void note(Word version) {
    if (record_[0] != version) fault("version {} gave {}", version, record_[0]);
    const Word generation = generationOf(record_, 1);
    Latest& latest = latest_[version % std::size(latest_)];
    if (latest.version == version && generation < latest.generation) {
      fault("version {} went back from generation {} to {}", version, latest.generation,
            generation);
    }
    if (latest.version != version || latest.generation != generation) ++findings.changes;
    latest = {version, generation};
    seenNext_ = std::max(seenNext_, version + 1);
  }

  struct Latest {
    Word version;
    Word generation;
  };

  DenseView view_;
  std::vector<Word> record_;
  Word followed_ = 0;
  Word seenNext_ = 0;
  Latest latest_[256] = {};
};

/// A record of 552 bytes without any protection, written and read beside the others: it shows that
/// writer and readers meet in the middle of records in this run.
class Unprotected {
 public:
  void write(Word generation) {
    for (std::size_t i = 2; i < kWords; ++i) {
      words_[i].store(contentOf(1, generation, i), std::memory_order_relaxed);
    }
    words_[1].store(generation, std::memory_order_relaxed);
  }
  bool readsTorn() const {
    const Word generation = words_[1].load(std::memory_order_relaxed);
    bool torn = false;
    for (std::size_t i = 2; i < kWords; ++i) {
      torn |= words_[i].load(std::memory_order_relaxed) != contentOf(1, generation, i);
    }
    return generation != 0 && torn;
  }

 private:
  static constexpr std::size_t kWords = 552 / sizeof(Word);
  std::atomic<Word> words_[kWords];
};

/// What the writer and the readers of a race share beside the files; zero at first.
struct Race {
  std::atomic<bool> stop;
  std::atomic<Word> reads, changes, operations, torn;
  std::atomic<bool> faulty;
  char fault[500];
  Unprotected unprotected;
};

template <class Body>
void guarded(Race& race, Body body) {
  try {
    body();
  } catch (const std::exception& wrong) {
    if (!race.faulty.exchange(true)) {
      std::string(wrong.what()).copy(race.fault, sizeof race.fault - 1);
    }
    race.stop = true;
  }
}

void write(Race& race, DriftFile& hashed, DriftFile& dense, const Course& course, unsigned seed) {
  guarded(race, [&] {
    Random random(seed);
    HashedLoad hashedLoad(hashed, course);
    DenseLoad denseLoad(dense, course);
    Word generation = 0;
    while (!race.stop.load(std::memory_order_relaxed)) {
      for (int i = 0; i < 16; ++i) {
        hashedLoad.step(random);
        denseLoad.step(random);
        race.unprotected.write(++generation);
      }
      race.operations += 32;
    }
  });
}

void read(Race& race, const DriftFile& hashed, const DriftFile& dense, const Course& course,
          unsigned seed) {
  guarded(race, [&] {
    Random random(seed);
    HashedChecker hashedChecker(hashed, course);
    DenseChecker denseChecker(dense);
    while (!race.stop.load(std::memory_order_relaxed)) {
      hashedChecker.step(random);
      denseChecker.step(random);
      for (int i = 0; i < 64; ++i) race.torn += race.unprotected.readsTorn() ? 1 : 0;
      race.reads += std::exchange(hashedChecker.findings.reads, 0);
      race.reads += std::exchange(denseChecker.findings.reads, 0);
    }
    race.changes += hashedChecker.findings.changes + denseChecker.findings.changes;
  });
}

/// Two collections with what the writer's loads begin with.
struct Arena {
  explicit Arena(const Course& made)
      : course(made), directory(temporary.path(), Directory::Access::write) {
    HashedLoad(*writable(course.hashed()), course);
    DenseLoad(*writable(course.dense()), course);
  }
  std::unique_ptr<DriftFile> writable(const Geometry& geometry) const {
    return DriftFile::openForWriting(directory, isDense(geometry) ? "log" : "table", geometry, {});
  }
  std::unique_ptr<DriftFile> readable(const char* name) const {
    return DriftFile::openForReading(directory, name, nullptr);
  }

  const Course course;
  TempDir temporary;
  Directory directory;
};

/// Lets a race run for a while, if asked up to a number of reads, and until writer and readers have
/// met, which on a busy machine may take longer.
void let(Race& race, milliseconds time, Word reads) {
  const auto end = std::chrono::steady_clock::now() + time;
  const auto late = end + std::chrono::seconds(30);
  for (;;) {
    std::this_thread::sleep_for(milliseconds(10));
    const auto now = std::chrono::steady_clock::now();
    const bool missed = race.torn == 0 && now < late;
    if (race.stop || (now >= end && race.reads >= reads && !missed)) break;
  }
  race.stop = true;
}

void judge(const Race& race, const Arena& arena) {
  EXPECT_STREQ(race.fault, "");
  // How often the writer has changed to the other index table.
  const auto file = arena.readable("table");
  const Word switches = CheckedWord(file->data(), Format::Line::active).load().value() >> 1;
  std::cout << arena.course.recordSize << " bytes: " << race.reads << " reads, " << race.changes
            << " of changed records, beside " << race.operations << " operations; " << race.torn
            << " torn reads of the unprotected record, " << switches << " index tables\n";
  EXPECT_GT(race.reads, 1000U);
  EXPECT_GT(race.changes, 100U);
  EXPECT_GT(race.torn, 0U);
  EXPECT_GT(switches, 10U);
}

void raceProcesses(const Course& course, milliseconds time, Word reads, unsigned seed) {
  const Arena arena(course);
  const Support::Shared<Race> race;
  std::vector<Support::Process> children;
  children.emplace_back([&] {
    const auto hashed = arena.writable(course.hashed());
    const auto dense = arena.writable(course.dense());
    write(*race, *hashed, *dense, course, seed);
    ::_exit(0);
  });
  for (unsigned i = 1; i <= kReaders; ++i) {
    children.emplace_back([&] {
      const auto hashed = arena.readable("table");
      const auto dense = arena.readable("log");
      read(*race, *hashed, *dense, course, seed + i);
      ::_exit(0);
    });
  }
  let(*race, time, reads);
  for (Support::Process& child : children) EXPECT_EQ(child.wait(), 0);
  judge(*race, arena);
}

void raceThreads(const Course& course, milliseconds time, unsigned seed) {
  const Arena arena(course);
  const auto hashed = arena.writable(course.hashed());
  const auto dense = arena.writable(course.dense());
  const auto race = std::make_unique<Race>();
  std::vector<std::thread> threads;
  threads.emplace_back([&] { write(*race, *hashed, *dense, course, seed); });
  for (unsigned i = 1; i <= kReaders; ++i) {
    threads.emplace_back([&, i] { read(*race, *hashed, *dense, course, seed + i); });
  }
  let(*race, time, 0);
  for (std::thread& thread : threads) thread.join();
  judge(*race, arena);
}

/// How long all courses together take; BASTIL_RACE_SECONDS gives another time.
milliseconds timeOf(int seconds) {
  const char* const given = std::getenv("BASTIL_RACE_SECONDS");
  return milliseconds(1000 * (given != nullptr ? std::atoi(given) : seconds) /
                      static_cast<int>(std::size(kCourses)));
}

/// A sanitizer sees nothing between processes.
constexpr int kMinute = BASTIL_SANITIZED ? 8 : 60;

TEST(RaceSoak, FourReaderProcessesNeverMeetATornRecord) {
  const unsigned seed = Support::seed();
  SCOPED_TRACE(fmt::format("BASTIL_SEED={}", seed));
  const Word reads = Support::soakFactor() == 1 ? 0 : 1'000'000'000 / std::size(kCourses);
  for (const Course& course : kCourses) {
    raceProcesses(course, timeOf(kMinute), reads, seed);
  }
}

TEST(RaceThread, FourReadersOverTheWritersMappingNeverMeetATornRecord) {
  const unsigned seed = Support::seed();
  SCOPED_TRACE(fmt::format("BASTIL_SEED={}", seed));
  for (const Course& course : kCourses) {
    raceThreads(course, timeOf(8), seed);
  }
}

}  // namespace
}  // namespace Drift::Specimens
