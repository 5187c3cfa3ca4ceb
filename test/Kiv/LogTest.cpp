#include "Kiv/Log.h"

#include <gmock/gmock.h>
#include <syslog.h>
#include <unistd.h>

#include <array>
#include <cstdarg>
#include <string>
#include <thread>
#include <vector>

namespace {

std::vector<std::pair<int, std::string>> syslogCalls;

KIV_LOG_DESCRIPTOR(kLoad, "LOG_TEST_LOAD", "100%% of %s and %s, not %d or %n, in %", "Test",
                   Kiv::kLogNoAction, Kiv::kLogSeverityError);
KIV_LOG_DESCRIPTOR(kPlain, "LOG_TEST_PLAIN", "%s", "Test", "Wait", 6);

}  // namespace

// Stands before the system's own, so that a message can be looked at.
extern "C" __attribute__((visibility("default"))) void syslog(int priority, const char* format,
                                                              ...) {
  char text[512];
  va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(text, sizeof text, format, arguments);
  va_end(arguments);
  syslogCalls.emplace_back(priority, text);
}

namespace {

using testing::ElementsAre;
using testing::EndsWith;

struct LogTest : testing::Test {
  LogTest() {
    Kiv::LogControl::sinkIs(
        [this](const Kiv::LogMessage& message) { texts.emplace_back(message.text); });
  }
  ~LogTest() override { Kiv::LogControl::sinkIsStderr(); }
  std::vector<std::string> texts;
};

TEST_F(LogTest, FormatAndTextAreNeverTakenForPrintfFormats) {
  Kiv::LogHandle load(&kLoad, Fenrik::Duration::zero(), 1.0, 0, 0);
  Kiv::log(load, "%s%n\n\x1b[0m");
  EXPECT_THAT(texts,
              ElementsAre("100% of %s%n\\n\\x1b[0m and %s%n\\n\\x1b[0m, not %d or %n, in %"));
}

TEST_F(LogTest, EverySinkGetsTheMessageOnceAndTheLastOneSetGetsIt) {
  Kiv::LogHandle handle(&kPlain, Fenrik::Duration::zero(), 1.0, 0, 0);
  Kiv::log(handle, "to the callback");
  Kiv::LogControl::sinkIsSyslog();
  Kiv::log(handle, "to the system's log");
  std::array<int, 2> ends{};
  ASSERT_EQ(::pipe(ends.data()), 0);
  Kiv::LogControl::sinkIs(ends[1]);
  Kiv::log(handle, "to a descriptor");
  testing::internal::CaptureStderr();
  Kiv::LogControl::sinkIsStderr();
  Kiv::log(handle, "to standard error");
  const std::string errors = testing::internal::GetCapturedStderr();
  ::close(ends[1]);
  std::string piped(1000, '\0');
  piped.resize(static_cast<std::size_t>(::read(ends[0], piped.data(), piped.size())));
  ::close(ends[0]);

  EXPECT_THAT(texts, ElementsAre("to the callback"));
  EXPECT_THAT(syslogCalls, ElementsAre(std::pair(LOG_INFO, "LOG_TEST_PLAIN: to the system's log")));
  EXPECT_THAT(piped, testing::MatchesRegex("20[^ ]+Z info LOG_TEST_PLAIN: to a descriptor\n"));
  EXPECT_THAT(errors, EndsWith("Z info LOG_TEST_PLAIN: to standard error\n"));
}

TEST_F(LogTest, TooManyMessagesAreHeldBackAndToldOf) {
  using std::chrono::milliseconds;
  Kiv::LogHandle handle(&kPlain, milliseconds(40), 3.0, 2, 1);
  const auto burst = [&](int count) {
    texts.clear();
    for (int i = 0; i < count; ++i) Kiv::log(handle, "x");
  };
  burst(5);
  EXPECT_THAT(texts, ElementsAre("x", "x"));
  std::this_thread::sleep_for(milliseconds(50));
  burst(3);
  EXPECT_THAT(texts, ElementsAre("x (3 such messages were held back)", "x"));
  // The second interval is three times as long.
  std::this_thread::sleep_for(milliseconds(50));
  burst(1);
  EXPECT_TRUE(texts.empty());
  std::this_thread::sleep_for(milliseconds(300));
  burst(1);
  EXPECT_THAT(texts, ElementsAre("x (2 such messages were held back)"));
}

}  // namespace
