#include <gmock/gmock.h>

#include <fstream>
#include <random>
#include <thread>

#include "RingFixture.h"
#include "Support/Shared.h"
#include "Support/Soak.h"

namespace {

using Blipline::RingFile;
using Blipline::RingFileState;
using Support::textOf;
using RingCrashTest = RingFixture;

/// A writer does nothing but record, so that it dies within a record, now and then where the ring
/// enters its next block.
TEST_F(RingCrashTest, AWriterThatIsKilledLeavesEachRecordWholeOrNotAtAll) {
  const Support::Seed seed;
  std::mt19937 random(seed);
  for (int round = 0; round < 300 * Support::soakFactor(); ++round) {
    const Support::Shared<std::atomic<std::uint64_t>> ended;
    Support::Process child([&] {
      Blipline::TraceHandle handle(options(false));
      Blipline::defaultBliplineHandle = &handle;
      for (std::uint64_t number = 1;; ++number) {
        provedRecord(number);
        ended->store(number);
      }
    });
    while (ended->load() == 0) std::this_thread::yield();
    std::this_thread::sleep_for(std::chrono::microseconds(random() % 2000));
    child.kill();
    const auto numbers = provedNumbers(RingFile(path()));
    ASSERT_FALSE(numbers.empty());
    ASSERT_GE(numbers.back(), ended->load());
    ASSERT_LE(numbers.back(), ended->load() + 1);
  }
}

struct RingDamageTest : RingFixture {
  RingDamageTest() {
    {
      Blipline::TraceHandle handle(options(false));
      Blipline::defaultBliplineHandle = &handle;
      for (std::uint64_t number = 0; number < 1000; ++number) provedRecord(number);
      Blipline::defaultBliplineHandle = nullptr;
    }
    whole = textOf(path());
  }

  std::string with(const std::string& bytes) {
    std::ofstream(path(1), std::ios::binary | std::ios::trunc) << bytes;
    return path(1);
  }
  RingFileState stateOf(const std::string& bytes) {
    try {
      RingFile file(with(bytes));
    } catch (const Blipline::RingFileException& exception) {
      EXPECT_THAT(exception.what(), testing::HasSubstr(path(1)));
      EXPECT_THAT(exception.what(),
                  testing::HasSubstr(Blipline::ringFileStateName(exception.state())));
      return exception.state();
    }
    ADD_FAILURE() << "was read";
    return RingFileState::absent;
  }

  std::string whole;
  const Support::TempDir printed;
};

TEST_F(RingDamageTest, AFileThatIsNoneOrNotWholeIsNamedSo) {
  EXPECT_EQ(stateOf(""), RingFileState::foreign);
  EXPECT_EQ(stateOf(std::string(100'000, 'x')), RingFileState::foreign);
  EXPECT_EQ(stateOf(whole.substr(0, 64)), RingFileState::foreign);
  EXPECT_EQ(stateOf(whole.substr(0, 4096 + 5000)), RingFileState::damaged);
  EXPECT_EQ(stateOf(std::string(whole).replace(8, 1, "\2")), RingFileState::otherVersion);
  EXPECT_EQ(stateOf(std::string(whole).replace(40, 1, "?")), RingFileState::damaged);
  EXPECT_THROW(RingFile("/dev/null"), Blipline::RingFileException);
  EXPECT_THROW(RingFile file(directory), Blipline::RingFileException);
  EXPECT_THROW(RingFile(path(9)), Blipline::RingFileException);
}

TEST_F(RingDamageTest, AnyBytesAreReadOrRefusedAndNeverCrash) {
  std::mt19937 random(11);
  int read = 0;
  int refused = 0;
  for (int round = 0; round < 800; ++round) {
    std::string bytes = whole;
    const auto any = [&](std::size_t below) { return std::size_t{random()} % below; };
    for (std::size_t changes = any(40) + 1; changes > 0; --changes) {
      // Mostly behind the header's checksum, and often into the words that are trusted most.
      const std::size_t places[] = {96 + any(110), 4096 + any(bytes.size() - 4096),
                                    4096 + any(4) * 4096 + any(64), bytes.size() - 1 - any(200),
                                    any(bytes.size())};
      bytes[places[any(round % 10 == 0 ? 5 : 4)]] = static_cast<char>(random() % 3 * random());
    }
    if (any(4) == 0) bytes.resize(any(bytes.size()));
    try {
      std::vector<RingFile> files;
      files.emplace_back(with(bytes));
      for (const auto& message : Blipline::ringMessages(files)) Blipline::ringLine(message);
      ++read;
    } catch (const Blipline::RingFileException&) {
      ++refused;
    }
  }
  EXPECT_GT(read, 80);
  EXPECT_GT(refused, 80);
}

TEST_F(RingDamageTest, TheProgramPrintsWhatItCanAndTellsTheRestByItsStatus) {
  const auto run = [&](std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), BASTIL_BLIPTRACE);
    return Support::run(arguments, printed.path());
  };
  const Support::Outcome good = run({directory});
  EXPECT_EQ(good.status, 0);
  EXPECT_THAT(good.out, testing::EndsWith("Proved::provedRecord: 999 18446744073709550616 999\n"));
  const Support::Outcome bad = run({path(), with("foreign")});
  EXPECT_EQ(bad.status, 1);
  EXPECT_THAT(bad.err, testing::HasSubstr("foreign"));
  EXPECT_EQ(bad.out, good.out);
  EXPECT_EQ(run({}).status, 2);
}

}  // namespace
