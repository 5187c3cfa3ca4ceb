#include <gmock/gmock.h>

#include <set>
#include <thread>

#include "RingFixture.h"

namespace {

using Blipline::RingFile;
using Blipline::TraceHandle;
using testing::ElementsAre;
using RingTraceTest = RingFixture;

enum class Color : std::uint8_t { red = 200 };

struct Site {
  static void makeSwTable(int count, unsigned short unitId) {
    BLIPLINE_TRACE("TcamEntryInterface", " Restored {} entries for table: TcamEntry, unitId: {}",
                   count, unitId);
  }
};

std::vector<std::string> texts(const std::vector<Blipline::RingMessage>& messages) {
  std::vector<std::string> all;
  for (const Blipline::RingMessage& message : messages) all.push_back(message.text);
  return all;
}

std::vector<Blipline::RingMessage> messagesOf(const std::vector<std::string>& paths) {
  std::vector<RingFile> files;
  for (const std::string& path : paths) files.emplace_back(path);
  return Blipline::ringMessages(files);
}

TEST_F(RingTraceTest, ADescriptionIsWrittenOncePerFileAndRecordsHoldNumbersOnly) {
  for (int run = 0; run < 2; ++run) {
    TraceHandle handle(options(false));
    Blipline::defaultBliplineHandle = &handle;
    for (int i = 0; i < 3; ++i) Site::makeSwTable(i - 1, 65535);
    const RingFile file(path());
    ASSERT_EQ(file.descriptions().size(), 1u);
    const RingFile::Description& site = file.descriptions().begin()->second;
    EXPECT_EQ(site.letters, "is");
    EXPECT_EQ(site.className + "::" + site.function, "TcamEntryInterface::makeSwTable");
    EXPECT_EQ(site.file, "test/Blipline/RingTraceTest.cpp");
    EXPECT_EQ(std::filesystem::file_size(path()) - Blipline::kHeaderBytes - Blipline::kRingBytesMin,
              (32 + 2 + 31 + 18 + 11 + 54 + 7) / 8 * 8);
    ASSERT_EQ(file.records().size(), 3u);
    EXPECT_EQ(file.records()[0].numbers.size(), 8u);
    EXPECT_THAT(texts(messagesOf({path()})),
                ElementsAre(" Restored -1 entries for table: TcamEntry, unitId: 65535",
                            " Restored 0 entries for table: TcamEntry, unitId: 65535",
                            " Restored 1 entries for table: TcamEntry, unitId: 65535"));
  }
  EXPECT_EQ(RingFile(path() + ".old").records().size(), 3u);
}

TEST_F(RingTraceTest, EveryKindOfNumberComesBack) {
  int evaluated = 0;
  BLIPLINE_TRACE("Test", "{}", ++evaluated);
  EXPECT_EQ(evaluated, 0) << "without a handle";
  TraceHandle handle(options(false));
  Blipline::defaultBliplineHandle = &handle;
  BLIPLINE_TRACE("T", "{} {} {} {} {} {} {} {} {}", true, Color::red, short{-2},
                 std::uint16_t{0xfffe}, -3, 4000000000u, std::int64_t{-1} << 62, ~std::uint64_t{0},
                 0.5);
  BLIPLINE_TRACE("T", "nothing");
  const auto messages = messagesOf({path()});
  EXPECT_THAT(texts(messages),
              ElementsAre("1 200 -2 65534 -3 4000000000 -4611686018427387904 18446744073709551615 "
                          "0.5",
                          "nothing"));
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  const auto age = std::chrono::nanoseconds(now) - std::chrono::nanoseconds(messages[1].time);
  EXPECT_LT(std::chrono::abs(age), std::chrono::seconds(2));
  EXPECT_THAT(Blipline::ringLine(messages[1]),
              testing::MatchesRegex("20[^ ]+\\.[0-9]+Z [0-9]+/0 test/Blipline/RingTraceTest.cpp:"
                                    "[0-9]+ T::TestBody: nothing"));
}

TEST_F(RingTraceTest, EachThreadHasItsFileAndTheReaderPutsThemInOneOrder) {
  TraceHandle handle(options(true, 1 << 18));
  Blipline::defaultBliplineHandle = &handle;
  constexpr int kThreads = 4;
  constexpr int kRounds = 200;
  std::atomic<int> turn{0};
  std::vector<std::thread> threads;
  for (int thread = 0; thread < kThreads; ++thread)
    threads.emplace_back([&, thread] {
      for (int i = 0; i < kRounds; ++i) {
        BLIPLINE_TRACE("Turn", "race {}", thread);
        while (turn.load() % kThreads != thread) std::this_thread::yield();
        // The clock may be read before the turn is seen: records of two threads have an order when
        // they are further apart than that.
        std::this_thread::sleep_for(std::chrono::microseconds(1));
        BLIPLINE_TRACE("Turn", "turn {}", turn.load());
        ++turn;
      }
    });
  for (std::thread& thread : threads) thread.join();
  std::vector<std::string> paths;
  for (unsigned index = 0; index <= kThreads; ++index) paths.push_back(path(index));
  std::set<std::uint32_t> ids;
  for (unsigned index = 1; index <= kThreads; ++index) {
    const RingFile file(path(index));
    EXPECT_EQ(file.records().size(), 2u * kRounds);
    for (const auto& [id, description] : file.descriptions()) ids.insert(id);
  }
  EXPECT_EQ(ids.size(), 2u) << "a site has one id in all files";
  int next = 0;
  for (const std::string& text : texts(messagesOf(paths)))
    if (text.starts_with("turn")) {
      EXPECT_EQ(text, "turn " + std::to_string(next++));
    }
  EXPECT_EQ(next, kThreads * kRounds);
  for (int i = 0; i < 10; ++i) std::thread([] { provedRecord(0); }).join();
  EXPECT_FALSE(std::filesystem::exists(path(kThreads + 1))) << "files of ended threads are used on";
}

TEST_F(RingTraceTest, ALiveFileIsReadWhileItsWriterLapsTheReader) {
  std::atomic<bool> stop{false};
  std::atomic<bool> started{false};
  std::thread writer([&] {
    TraceHandle handle(options(false, 1 << 18));
    Blipline::defaultBliplineHandle = &handle;
    started = true;
    for (std::uint64_t number = 0; !stop; ++number) provedRecord(number);
  });
  while (!started) std::this_thread::yield();
  std::size_t read = 0;
  for (int round = 0; round < 60; ++round) try {
      read += provedNumbers(RingFile(path())).size();
    } catch (const Blipline::RingFileException& exception) {
      EXPECT_EQ(exception.state(), Blipline::RingFileState::lapped);
    }
  stop = true;
  writer.join();
  EXPECT_GT(read, 0u);
}

TEST_F(RingTraceTest, AFileThatIsTruncatedDoesNotEndItsWriter) {
  TraceHandle handle(options(false));
  Blipline::defaultBliplineHandle = &handle;
  for (std::uint64_t number = 0; number < 100; ++number) provedRecord(number);
  ASSERT_EQ(::truncate(path().c_str(), 0), 0);
  for (std::uint64_t number = 100; number < 5000; ++number) provedRecord(number);
  Site::makeSwTable(1, 2);
  EXPECT_EQ(std::filesystem::file_size(path()), 0u);
  TraceHandle next({directory, "n", Blipline::kRingBytesMin, false});
  Blipline::defaultBliplineHandle = &next;
  provedRecord(1);
  EXPECT_THAT(provedNumbers(RingFile(directory + "/n-0.blip")), ElementsAre(1));
}

/// Run by the next one in a process of its own.
TEST(RingEnvironment, DISABLED_Child) { provedRecord(0); }

TEST_F(RingTraceTest, TheEnvironmentSwitchesTheRingOn) {
  const auto childWith = [&](const std::string& option) {
    ::setenv("BASTIL_RING", option.c_str(), 1);
    const Support::Outcome outcome =
        Support::run({"/proc/self/exe", "--gtest_also_run_disabled_tests",
                      "--gtest_filter=RingEnvironment.DISABLED_Child"},
                     directory);
    ::unsetenv("BASTIL_RING");
    EXPECT_EQ(outcome.status, 0);
    return outcome.err;
  };
  EXPECT_EQ(childWith(directory + ":64"), "");
  const RingFile file(directory + "/exe-0.blip");
  EXPECT_EQ(file.facts().ringBytes, 64u << 10);
  EXPECT_THAT(provedNumbers(file), ElementsAre(0));
  EXPECT_THAT(childWith(directory + ":x"), testing::StartsWith("BASTIL_RING: ring trace \""));
  EXPECT_THAT(childWith(directory + "/none"),
              testing::MatchesRegex(".*/none/exe-0.blip.*No such file.*\n"));
}

}  // namespace
