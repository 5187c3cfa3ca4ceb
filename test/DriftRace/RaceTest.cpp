#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/wait.h>

#include <array>
#include <chrono>
#include <csignal>
#include <iostream>
#include <thread>

#include "DriftRace/Checkers.h"
#include "Support/Soak.h"

namespace DriftTest {
namespace {

using Drift::Directory;
using Drift::DriftFile;
using Format::Layout;
using std::chrono::milliseconds;

constexpr int kReaders = 4;

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
    std::array<Word, kWords> record{1};
    for (std::size_t i = 1; i < kWords; ++i) record[i] = words_[i].load(std::memory_order_relaxed);
    try {
      return record[1] != 0 && generationOf(record, 1, 1) == 0;
    } catch (const Fault&) {
      return true;
    }
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

void write(Race& race, DriftFile& hashed, DriftFile& dense, Word lasting, unsigned seed) {
  guarded(race, [&] {
    Random random(seed);
    HashedLoad hashedLoad(hashed, lasting);
    DenseLoad denseLoad(dense);
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

void read(Race& race, const DriftFile& hashed, const DriftFile& dense, Word lasting,
          unsigned seed) {
  guarded(race, [&] {
    Random random(seed);
    HashedChecker hashedChecker(hashed, lasting);
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
  Arena(std::uint32_t recordSize, Word lasting)
      : directory(temporary.path(), Directory::Access::write) {
    HashedLoad(*writable(Layout::hashed, recordSize), lasting);
    DenseLoad(*writable(Layout::dense, recordSize));
  }
  /// How often the writer has changed to the other index table.
  Word switches() const {
    const auto file = readable(Layout::hashed);
    return Drift::CheckedWord(file->data(), Format::Line::active).load().value() >> 1;
  }
  std::unique_ptr<DriftFile> writable(Layout layout, std::uint32_t recordSize) const {
    const Shape shape{layout, recordSize, kCapacity + (layout == Layout::hashed ? 2 : 0)};
    return DriftFile::openForWriting(directory, nameOf(layout), shape.geometry(), {});
  }
  std::unique_ptr<DriftFile> readable(Layout layout) const {
    return DriftFile::openForReading(directory, nameOf(layout), nullptr);
  }
  static const char* nameOf(Layout layout) { return layout == Layout::dense ? "log" : "table"; }

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

void judge(const Race& race, const Arena& arena, std::uint32_t recordSize) {
  EXPECT_STREQ(race.fault, "");
  std::cout << recordSize << " bytes: " << race.reads << " reads, " << race.changes
            << " of changed records, beside " << race.operations << " operations; " << race.torn
            << " torn reads of the unprotected record, " << arena.switches() << " index tables\n";
  EXPECT_GT(race.reads, 1000U);
  EXPECT_GT(race.changes, 100U);
  EXPECT_GT(race.torn, 0U);
  EXPECT_GT(arena.switches(), 10U);
}

void raceProcesses(std::uint32_t recordSize, Word lasting, milliseconds time, Word reads,
                   unsigned seed) {
  const Arena arena(recordSize, lasting);
  void* const memory =
      ::mmap(nullptr, sizeof(Race), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  ASSERT_NE(memory, MAP_FAILED);
  auto& race = *new (memory) Race();
  const auto start = [](auto body) {
    const pid_t child = ::fork();
    if (child != 0) return child;
    body();
    ::_exit(0);
  };
  std::vector<pid_t> children;
  children.push_back(start([&] {
    const auto hashed = arena.writable(Layout::hashed, recordSize);
    const auto dense = arena.writable(Layout::dense, recordSize);
    write(race, *hashed, *dense, lasting, seed);
  }));
  for (unsigned i = 1; i <= kReaders; ++i) {
    children.push_back(start([&] {
      const auto hashed = arena.readable(Layout::hashed);
      const auto dense = arena.readable(Layout::dense);
      read(race, *hashed, *dense, lasting, seed + i);
    }));
  }
  let(race, time, reads);
  for (const pid_t child : children) {
    int status = 0;
    ::waitpid(child, &status, 0);
    EXPECT_EQ(status, 0);
  }
  judge(race, arena, recordSize);
  ::munmap(memory, sizeof(Race));
}

void raceThreads(std::uint32_t recordSize, Word lasting, milliseconds time, unsigned seed) {
  const Arena arena(recordSize, lasting);
  const auto hashed = arena.writable(Layout::hashed, recordSize);
  const auto dense = arena.writable(Layout::dense, recordSize);
  const auto race = std::make_unique<Race>();
  std::vector<std::thread> threads;
  threads.emplace_back([&] { write(*race, *hashed, *dense, lasting, seed); });
  for (unsigned i = 1; i <= kReaders; ++i) {
    threads.emplace_back([&, i] { read(*race, *hashed, *dense, lasting, seed + i); });
  }
  let(*race, time, 0);
  for (std::thread& thread : threads) thread.join();
  judge(*race, arena, recordSize);
}

/// Record size, and keys that stay: none where everything is removed at once now and then.
struct Course {
  std::uint32_t recordSize;
  Word lasting;
};
constexpr Course kCourses[] = {{24, kLasting}, {124, 0}, {536, kLasting}, {552, 0}};

/// How long all courses together take; BASTIL_RACE_SECONDS gives another time.
milliseconds timeOf(const Course&, int seconds) {
  const char* const given = std::getenv("BASTIL_RACE_SECONDS");
  return milliseconds(1000 * (given != nullptr ? std::atoi(given) : seconds) /
                      static_cast<int>(std::size(kCourses)));
}

/// A sanitizer sees nothing between processes.
constexpr int kMinute = kInstrumented ? 8 : 60;

TEST(RaceSoak, FourReaderProcessesNeverMeetATornRecord) {
  const unsigned seed = Support::seed();
  SCOPED_TRACE(fmt::format("BASTIL_SEED={}", seed));
  const Word reads = Support::soakFactor() == 1 ? 0 : 1'000'000'000 / std::size(kCourses);
  for (const Course& course : kCourses) {
    raceProcesses(course.recordSize, course.lasting, timeOf(course, kMinute), reads, seed);
  }
}

TEST(RaceThread, FourReadersOverTheWritersMappingNeverMeetATornRecord) {
  const unsigned seed = Support::seed();
  SCOPED_TRACE(fmt::format("BASTIL_SEED={}", seed));
  for (const Course& course : kCourses) {
    raceThreads(course.recordSize, course.lasting, timeOf(course, 8), seed);
  }
}

/// The checkers themselves, beside a writer that stands still between its steps.
class CheckerThread : public testing::TestWithParam<std::uint32_t> {
 protected:
  CheckerThread()
      : hashed_(arena_.writable(Layout::hashed, GetParam())),
        dense_(arena_.writable(Layout::dense, GetParam())) {}

  template <class Checker>
  static std::string faultOf(Checker& checker) {
    return faultIn([&, random = Random(1)]() mutable { checker.step(random); });
  }
  template <class Look>
  static std::string faultIn(Look look) {
    try {
      for (int i = 0; i < 10; ++i) look();
    } catch (const Fault& wrong) {
      return wrong.what();
    }
    return "";
  }

  Arena arena_{GetParam(), kLasting};
  std::unique_ptr<DriftFile> hashed_;
  std::unique_ptr<DriftFile> dense_;
};

TEST_P(CheckerThread, ARuleThatIsBrokenInAHashedCollectionIsNoticed) {
  HashedLoad load(*hashed_, kLasting);
  HashedChecker checker(*hashed_, kLasting);
  Random random(1);
  for (int i = 0; i < 1000; ++i) load.step(random);
  EXPECT_EQ(faultOf(checker), "");

  const std::size_t keyWords = load.writer().view().keyWords();
  std::vector<Word> record(load.writer().view().recordWords());
  fillRecord(record, keyWords, 5, 1);
  load.writer().set(record);
  EXPECT_THAT(faultOf(checker), testing::HasSubstr("went back"));
  fillRecord(record, keyWords, 5, 1'000'000);
  record.back() = contentOf(5, 1'000'001, record.size() - 1);
  load.writer().set(record);
  EXPECT_THAT(faultOf(checker), testing::HasSubstr("is of another record"));
  load.remove(5);
  EXPECT_THAT(faultOf(checker), testing::HasSubstr("always there"));
}

TEST_P(CheckerThread, ARuleThatIsBrokenInADenseCollectionIsNoticed) {
  DenseLoad load(*dense_);
  DenseChecker checker(*dense_);
  Random random(1);
  for (int i = 0; i < 1000; ++i) load.step(random);
  EXPECT_EQ(faultOf(checker), "");

  const Word next = load.writer().next();
  const Word version = next - next % 4 + 4;
  for (Word one = next; one <= version; ++one) load.put(one);
  EXPECT_EQ(faultOf(checker), "");
  std::vector<Word> record(load.writer().view().recordWords());
  fillRecord(record, 1, version, 1);
  load.writer().set(record);
  EXPECT_THAT(faultOf(checker), testing::HasSubstr("went back"));
  fillRecord(record, 1, version, 1'000'000);
  record.back() = contentOf(version, 1'000'001, record.size() - 1);
  load.writer().set(record);
  EXPECT_THAT(faultOf(checker), testing::HasSubstr("is of another record"));
  (void)load.writer().remove(version);
  EXPECT_THAT(faultOf(checker), testing::HasSubstr("always there"));
  load.put(version + 8);
  EXPECT_THAT(faultIn([&] { checker.follow(); }), testing::HasSubstr("passed over"));
}

INSTANTIATE_TEST_SUITE_P(Size, CheckerThread, testing::Values(24, 124, 536, 552));

}  // namespace
}  // namespace DriftTest
