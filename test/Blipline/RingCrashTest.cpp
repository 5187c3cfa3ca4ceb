#include <gmock/gmock.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/ptrace.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <functional>
#include <random>
#include <thread>

#include "RingFixture.h"

namespace {

using Blipline::RingFile;
using Blipline::RingFileState;
using RingCrashTest = RingFixture;

std::string bytesOf(const std::string& path) {
  std::string bytes(std::filesystem::file_size(path), '\0');
  std::ifstream(path, std::ios::binary).read(bytes.data(), std::streamsize(bytes.size()));
  return bytes;
}

/// The last number that the child had ended when it died.
struct Progress {
  Progress()
      : ended(static_cast<std::atomic<std::uint64_t>*>(
            ::mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0))) {}
  ~Progress() { ::munmap(ended, 4096); }
  std::atomic<std::uint64_t>* ended;
};

TEST_F(RingCrashTest, AWriterThatIsKilledLeavesEveryRecordThatItEnded) {
  std::mt19937 random(7);
  for (int round = 0; round < 20; ++round) {
    const Progress progress;
    const pid_t child = ::fork();
    if (child == 0) {
      Blipline::TraceHandle handle(options(false));
      Blipline::defaultBliplineHandle = &handle;
      for (std::uint64_t number = 1;; ++number) {
        provedRecord(number);
        progress.ended->store(number);
      }
    }
    while (progress.ended->load() == 0) std::this_thread::yield();
    std::this_thread::sleep_for(std::chrono::microseconds(random() % 2000));
    ::kill(child, SIGKILL);
    ::waitpid(child, nullptr, 0);
    const auto numbers = provedNumbers(RingFile(path()));
    ASSERT_FALSE(numbers.empty());
    EXPECT_GE(numbers.back(), progress.ended->load());
    EXPECT_LE(numbers.back(), progress.ended->load() + 1);
  }
}

/// Takes the child through one instruction after another until it stops itself; false when it is
/// gone.
bool stepTo(pid_t child, int signal, const std::function<void()>& look) {
  for (int status = 0;;) {
    if (::ptrace(PTRACE_SINGLESTEP, child, 0, 0) != 0) return false;
    if (::waitpid(child, &status, 0) != child || !WIFSTOPPED(status)) return false;
    if (WSTOPSIG(status) == signal) return true;
    look();
  }
}

TEST_F(RingCrashTest, AtEveryInstructionOfARecordTheFileHoldsItWholeOrNotAtAll) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  GTEST_SKIP() << "nearly all instructions would be the sanitizer's";
#endif
  // Enough to step over the entry of a block, with the ring lapped.
  constexpr std::uint64_t kBefore = 1000;
  constexpr std::uint64_t kStepped = 8;
  const pid_t child = ::fork();
  if (child == 0) {
    Blipline::TraceHandle handle(options(false));
    Blipline::defaultBliplineHandle = &handle;
    std::uint64_t number = 1;
    while (number <= kBefore) provedRecord(number++);
    // On to where a block is nearly full, so that one of the records stepped over enters the next.
    const auto blockFill = [&] {
      std::uint64_t records = 0;
      for (const auto block = RingFile(path()).lastBlock().position;
           RingFile(path()).lastBlock().position == block; ++records)
        provedRecord(number++);
      return records;
    };
    blockFill();
    for (std::uint64_t left = blockFill(); left > kStepped / 2; --left) provedRecord(number++);
    if (::ptrace(PTRACE_TRACEME, 0, 0, 0) != 0) ::_exit(77);
    ::raise(SIGUSR1);
    for (std::uint64_t i = 0; i < kStepped; ++i) provedRecord(number++);
    ::raise(SIGUSR2);
    ::_exit(0);
  }
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  if (WIFEXITED(status)) GTEST_SKIP() << "this system lets nobody step through a process";
  const std::uint64_t first = provedNumbers(RingFile(path())).back();
  const std::uint64_t firstBlock = RingFile(path()).lastBlock().position;
  std::uint64_t last = first;
  std::uint64_t steps = 0;
  std::uint64_t states = 0;
  bool laps = false;
  std::string before;
  ASSERT_TRUE(stepTo(child, SIGUSR2, [&] {
    ++steps;
    std::string now = bytesOf(path());
    if (now == before) return;
    before.swap(now);
    ++states;
    const RingFile file(path());
    const auto numbers = provedNumbers(file);
    ASSERT_GE(numbers.size(), 200u);
    ASSERT_TRUE(numbers.back() == last || numbers.back() == last + 1);
    last = numbers.back();
    laps |= file.lastBlock().position != firstBlock;
  }));
  ::kill(child, SIGKILL);
  ::waitpid(child, nullptr, 0);
  EXPECT_EQ(last, first + kStepped);
  EXPECT_GT(steps, kStepped * 20);
  EXPECT_GT(states, kStepped * 3) << "no record was seen half written";
  EXPECT_TRUE(laps) << "no block was entered under the steps";
}

struct RingDamageTest : RingFixture {
  RingDamageTest() {
    {
      Blipline::TraceHandle handle(options(false));
      Blipline::defaultBliplineHandle = &handle;
      for (std::uint64_t number = 0; number < 1000; ++number) provedRecord(number);
      Blipline::defaultBliplineHandle = nullptr;
    }
    whole = bytesOf(path());
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
};

TEST_F(RingDamageTest, AFileThatIsNoneOrNotWholeIsNamedSo) {
  EXPECT_EQ(stateOf(""), RingFileState::foreign);
  EXPECT_EQ(stateOf(std::string(100'000, 'x')), RingFileState::foreign);
  EXPECT_EQ(stateOf(whole.substr(0, 64)), RingFileState::foreign);
  EXPECT_EQ(stateOf(whole.substr(0, 4096 + 5000)), RingFileState::damaged);
  std::string changed = whole;
  changed[8] = 2;
  EXPECT_EQ(stateOf(changed), RingFileState::otherVersion);
  changed = whole;
  changed[40] ^= 1;
  EXPECT_EQ(stateOf(changed), RingFileState::damaged);
  EXPECT_THROW(RingFile("/dev/null"), Blipline::RingFileException);
  EXPECT_THROW(RingFile file(directory), Blipline::RingFileException);
  EXPECT_THROW(RingFile(path(9)), Blipline::RingFileException);
}

TEST_F(RingDamageTest, DamageOfABlockOrADescriptionCostsThatOneAndIsTold) {
  const RingFile sound(with(whole));
  std::string changed = whole;
  changed[4096 + 4096 + 32 + 6] ^= 1;  // The mark of the first record of the second block.
  const RingFile oneBlock(with(changed));
  EXPECT_EQ(oneBlock.problems().size(), 1u);
  EXPECT_GT(oneBlock.records().size(), sound.records().size() / 2);
  EXPECT_LT(oneBlock.records().size(), sound.records().size());
  const RingFile noText(with(whole.substr(0, whole.size() - 1)));
  EXPECT_FALSE(noText.problems().empty());
  EXPECT_EQ(noText.records().size(), sound.records().size());
  EXPECT_THAT(noText.text(noText.records()[0]) + noText.text(noText.records()[1]) +
                  noText.text(noText.records()[2]),
              testing::HasSubstr("is not described"));
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
  const auto run = [](const std::string& arguments) {
    std::string output;
    FILE* const pipe = ::popen(("'" BASTIL_BLIPTRACE "' " + arguments + " 2>&1").c_str(), "r");
    for (int c = 0; (c = std::fgetc(pipe)) != EOF;) output += static_cast<char>(c);
    return std::pair(WEXITSTATUS(::pclose(pipe)), output);
  };
  const auto [status, output] = run(directory);
  EXPECT_EQ(status, 0);
  EXPECT_THAT(output, testing::EndsWith("Proved::provedRecord: 999 18446744073709550616 999\n"));
  const auto [bad, complaint] = run(path() + " " + with("foreign"));
  EXPECT_EQ(bad, 1);
  EXPECT_THAT(complaint, testing::HasSubstr("foreign"));
  EXPECT_THAT(complaint, testing::HasSubstr(output));
  EXPECT_EQ(run("").first, 2);
}

}  // namespace
