#include <gmock/gmock.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "Fenrik/Format.h"
#include "Fenrik/NodeClass.h"
#include "Fenrik/TypeData.h"
#include "Kiv/Trace.h"
#include "Kiv/TraceControl.h"
#include "Support/Process.h"

namespace {

struct TraceTestModule;
struct UnitId {
  using KivModule = TraceTestModule;
  std::uint16_t number;
  void textAppend(std::string& text) const {
    if (number == 0xffff) throw std::runtime_error("no unit");
    text += std::to_string(number);
  }
};
class Lamp final : public Fenrik::NodeClass<Lamp> {};
struct TraceTestModule : Kiv::Module<"TraceTest", UnitId> {};

using Kiv::TraceControl;

struct TraceTest : testing::Test {
  TraceTest() {
    TraceControl::sinkIs([this](const Kiv::TraceLine& line) { lines.emplace_back(line.rendered); });
  }
  ~TraceTest() override {
    TraceControl::sinkDel();
    TraceControl::settingDelAll();
  }
  std::vector<std::string> lines;
  const Kiv::TraceHandle handle{"TraceTest", false};
};

TEST_F(TraceTest, ASiteThatIsOffEvaluatesNothingAndOneThatIsOnTellsEverything) {
  int evaluated = 0;
  int prefixed = 0;
  const auto count = [&] { return ++evaluated; };
  const auto prefix = [&] { return ++prefixed, "TcamEntrySwTable"; };
  TraceControl::settingIs("TraceTest/0-7,9-15");
  KIV_TRACE(handle, 8, prefix(), " key: {}, again: {}", count(), true);
  TraceControl::settingIs("TraceTest/8");
  KIV_TRACE(handle, 9, prefix(), " key: {}, again: {}", count(), true);
  EXPECT_EQ(evaluated + prefixed, 0);
  KIV_TRACE(handle, 8, prefix(), " key: {}, again: {}", count(), true);
  const int line = __LINE__ - 1;
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_THAT(lines[0],
              testing::MatchesRegex(fmt::format(
                  "20[0-9][0-9]-[01][0-9]-[0-3][0-9]T[0-9:]+\\.[0-9]+Z TraceTest 8 "
                  "test/Kiv/TraceTest.cpp:{} TestBody: TcamEntrySwTable key: 1, again: true\n",
                  line)));
}

TEST_F(TraceTest, ValuesAreShownInTheirTextForm) {
  const Fenrik::Ptr<Lamp> lamp = Fenrik::ptrIsImpl<Lamp>();
  TraceControl::settingIs("TraceTest/2");
  KIV_TRACE(handle, 2, "", "{}|{:>4}|{}|{}|{}", UnitId{7}, UnitId{12}, Fenrik::String("a{}b"), lamp,
            Fenrik::Ptr<const Lamp>());
  EXPECT_THAT(lines, testing::ElementsAre(testing::EndsWith(fmt::format(
                         ": 7|  12|a{{}}b|{}|0x0\n", static_cast<const void*>(lamp.get())))));
}

TEST_F(TraceTest, ATraceInsideASinkIsLostAndCountedNotWaitedFor) {
  TraceControl::settingIs("TraceTest/1");
  int called = 0;
  TraceControl::sinkIs([&](const Kiv::TraceLine& line) {
    ++called;
    EXPECT_EQ(line.text, "outer");
    KIV_TRACE(handle, 1, "", "inner");
  });
  const auto lost = TraceControl::lostLines();
  KIV_TRACE(handle, 1, "out", "er");
  EXPECT_EQ(called, 1);
  EXPECT_EQ(TraceControl::lostLines(), lost + 1);
}

/// Gives every write of the other end as one message.
struct WriteCounter {
  WriteCounter() { EXPECT_EQ(::socketpair(AF_UNIX, SOCK_SEQPACKET, 0, ends.data()), 0); }
  ~WriteCounter() {
    ::close(ends[0]);
    ::close(ends[1]);
  }
  std::string next() {
    std::string message(1 << 16, '\0');
    message.resize(static_cast<std::size_t>(::read(ends[0], message.data(), message.size())));
    return message;
  }
  std::array<int, 2> ends{};
};

KIV_TRACE_ACCESSOR const Kiv::TraceHandle& racedHandle() {
  static constinit const Kiv::TraceHandle handle(Kiv::kConstantHandle, "TraceTestRaced");
  return handle;
}

TEST_F(TraceTest, LinesOfManyThreadsAreOneWriteEachWhileSinksAndMasksChange) {
  constexpr int kThreads = 4;
  constexpr int kEach = 400;
  WriteCounter writes;
  std::atomic<int> called{0};
  const auto lost = TraceControl::lostLines();
  TraceControl::settingIs("TraceTestRaced/3");
  TraceControl::sinkIs(writes.ends[1]);
  std::vector<std::thread> threads;
  for (int thread = 0; thread < kThreads; ++thread)
    threads.emplace_back([thread] {
      for (int i = 0; i < kEach; ++i)
        KIV_TRACE(racedHandle(), 3, "", "thread {} line {} {}", thread, i,
                  std::string(static_cast<std::size_t>(i), 'x'));
    });
  std::thread changer([&] {
    for (int i = 0; i < 50; ++i) {
      TraceControl::sinkIs([&](const Kiv::TraceLine&) { ++called; });
      TraceControl::settingIs("TraceTestRaced/3,4");
      TraceControl::sinkIs(writes.ends[1]);
    }
    for (std::thread& thread : threads) thread.join();
    TraceControl::sinkDel();
    ::shutdown(writes.ends[1], SHUT_WR);
  });
  std::map<int, int> nextOf;
  int written = 0;
  for (std::string line = writes.next(); !line.empty(); line = writes.next(), ++written) {
    // A line is lost, and told, when this reader is slow.
    if (line.find("were lost") != std::string::npos) line.erase(0, line.find('\n') + 1);
    int thread = -1;
    int i = -1;
    const std::string_view text = std::string_view(line).substr(line.find("thread "));
    ASSERT_EQ(std::sscanf(text.data(), "thread %d line %d", &thread, &i), 2) << line;
    EXPECT_TRUE(text.ends_with(" " + std::string(static_cast<std::size_t>(i), 'x') + "\n"));
    EXPECT_GE(i, nextOf[thread]) << "out of order";
    nextOf[thread] = i + 1;
  }
  changer.join();
  EXPECT_EQ(static_cast<std::uint64_t>(written + called) + TraceControl::lostLines() - lost,
            kThreads * kEach);
}

TEST_F(TraceTest, ADescriptorThatIsGoneOrTakesNothingCostsMillisecondsAndTellsWhatWasLost) {
  TraceControl::settingIs("TraceTest/1");
  std::array<int, 2> ends{};
  ASSERT_EQ(::pipe(ends.data()), 0);
  TraceControl::sinkIs(ends[1]);
  const auto lostBefore = TraceControl::lostLines();
  const auto begin = std::chrono::steady_clock::now();
  for (int i = 0; i < 500; ++i) KIV_TRACE(handle, 1, "", "{:1000}", i);
  KIV_TRACE(handle, 1, "", "{:100000}", "long");
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(500));
  const auto lost = TraceControl::lostLines() - lostBefore;
  EXPECT_GT(lost, 400u);
  std::string piped(1 << 17, '\0');
  piped.resize(static_cast<std::size_t>(::read(ends[0], piped.data(), piped.size())));
  std::this_thread::sleep_for(std::chrono::milliseconds(5));
  errno = EBUSY;
  KIV_TRACE(handle, 1, "", "taken again");
  piped.resize(1000);
  piped.resize(static_cast<std::size_t>(::read(ends[0], piped.data(), piped.size())));
  EXPECT_THAT(piped, testing::MatchesRegex(fmt::format(
                         "\n?20[^ ]+Z {} lines were lost here: nobody took them\n20[^ ]+Z "
                         "TraceTest 1 [^ ]+ TestBody: taken again\n",
                         lost)));
  ::close(ends[0]);
  KIV_TRACE(handle, 1, "", "nobody reads");
  ::close(ends[1]);
  KIV_TRACE(handle, 1, "", "nobody writes");
  EXPECT_EQ(TraceControl::lostLines() - lostBefore, lost + 2);
  EXPECT_EQ(errno, EBUSY);
}

/// Run by the next one in a process of its own.
TEST(TraceEnvironment, DISABLED_Child) {
  const Kiv::TraceHandle lamp("Lamp", false);
  KIV_TRACE(lamp, 3, "", "a\x1b[2J\nb\u009bc");
  KIV_TRACE(lamp, 4, "", "off");
}

TEST(TraceEnvironment, SetsLevelsOfAProcessWhoseTextCannotSteerATerminal) {
  const struct {
    const char* setting;
    const char* told;
  } cases[] = {
      {"Nobody/*:Lamp/1-3",
       "20[^ ]+Z Lamp 3 test/Kiv/TraceTest.cpp:[0-9]+ TestBody: "
       "a\\\\x1b\\[2J\\\\nb\\\\xc2\\\\x9bc\n"},
      {"Lamp", "BASTIL_TRACE: trace setting \"Lamp\", column 5: expected '/' and levels .*\n"},
  };
  for (const auto& run : cases) {
    const Support::TempDir dir;
    ::setenv("BASTIL_TRACE", run.setting, 1);
    const Support::Outcome outcome =
        Support::run({"/proc/self/exe", "--gtest_also_run_disabled_tests",
                      "--gtest_filter=TraceEnvironment.DISABLED_Child"},
                     dir.path());
    ::unsetenv("BASTIL_TRACE");
    EXPECT_EQ(outcome.status, 0);
    EXPECT_THAT(outcome.err, testing::MatchesRegex(run.told));
  }
}

TEST(TraceDeathTest, AFormatterThatThrowsEndsTheProcess) {
  testing::FLAGS_gtest_death_test_style = "threadsafe";
  const Kiv::TraceHandle handle("TraceDeath", true);
  EXPECT_DEATH(KIV_TRACE(handle, 1, "", "{}", UnitId{0xffff}), "terminate");
}

}  // namespace

KIV_LOCAL_MODULE(TraceTestModule);
