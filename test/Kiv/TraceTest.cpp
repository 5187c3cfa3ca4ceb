#include <fcntl.h>
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
#include "Kiv/StrepFormatter.h"
#include "Kiv/Trace.h"
#include "Kiv/TraceControl.h"

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
struct Plain {
  using KivModule = TraceTestModule;
};
class Lamp final : public Fenrik::NodeClass<Lamp> {};
struct TraceTestModule : Kiv::Module<"TraceTest", UnitId, Plain> {};

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
  const Fenrik::Ptr<const Lamp> none;
  TraceControl::settingIs("TraceTest/2");
  KIV_TRACE(handle, 2, "", "{}|{:>4}|{}|{}|{}|{}", UnitId{7}, UnitId{12}, Plain{},
            Fenrik::String("a{}b"), lamp, none);
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_THAT(lines[0], testing::EndsWith(fmt::format(": 7|  12|Plain|a{{}}b|{}|0x0\n",
                                                      static_cast<const void*>(lamp.get()))));
  EXPECT_EQ(KivFenrik::Impl::valueToStrep({}, nullptr), "?");
  const std::string family = "TcamEntry";
  EXPECT_EQ(OvFmt::Detail::formatFenrikString("{}::{}", fmt::make_format_args("entryLog", family)),
            "entryLog::TcamEntry");
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
  TraceControl::settingIs("TraceTestRaced/3");
  TraceControl::sinkIs(writes.ends[1]);
  std::vector<std::thread> threads;
  for (int thread = 0; thread < kThreads; ++thread)
    threads.emplace_back([thread] {
      for (int i = 0; i < kEach; ++i)
        KIV_TRACE(racedHandle(), 3, "", "thread {}\nline {}\n{}", thread, i,
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
    int thread = -1;
    int i = -1;
    const std::string_view text = std::string_view(line).substr(line.find("thread "));
    ASSERT_EQ(std::sscanf(text.data(), "thread %d\nline %d\n", &thread, &i), 2) << line;
    EXPECT_TRUE(text.ends_with("\n" + std::string(static_cast<std::size_t>(i), 'x') + "\n"));
    EXPECT_GE(i, nextOf[thread]) << "out of order";
    nextOf[thread] = i + 1;
  }
  changer.join();
  EXPECT_EQ(written + called, kThreads * kEach);
}

TEST_F(TraceTest, ADescriptorThatIsGoneOrFullHarmsNobody) {
  TraceControl::settingIs("TraceTest/1");
  std::array<int, 2> ends{};
  ASSERT_EQ(::pipe2(ends.data(), O_NONBLOCK), 0);
  TraceControl::sinkIs(ends[1]);
  const std::string big(300'000, 'y');
  std::size_t got = 0;
  std::thread reader([&] {
    char part[4096];
    while (got < big.size()) {
      const ssize_t bytes = ::read(ends[0], part, sizeof part);
      got += bytes > 0 ? static_cast<std::size_t>(bytes) : 0;
      if (bytes <= 0) std::this_thread::yield();
    }
  });
  const auto lost = TraceControl::lostLines();
  errno = EBUSY;
  KIV_TRACE(handle, 1, "", "{}", big);
  EXPECT_EQ(errno, EBUSY);
  reader.join();
  EXPECT_EQ(TraceControl::lostLines(), lost);
  ::close(ends[0]);
  KIV_TRACE(handle, 1, "", "nobody reads");
  ::close(ends[1]);
  KIV_TRACE(handle, 1, "", "nobody writes");
  EXPECT_EQ(TraceControl::lostLines(), lost + 2);
  EXPECT_EQ(errno, EBUSY);
}

TEST(TraceDeathTest, AFormatterThatThrowsEndsTheProcess) {
  testing::FLAGS_gtest_death_test_style = "threadsafe";
  const Kiv::TraceHandle handle("TraceDeath", true);
  EXPECT_DEATH(KIV_TRACE(handle, 1, "", "{}", UnitId{0xffff}), "terminate");
}

}  // namespace
