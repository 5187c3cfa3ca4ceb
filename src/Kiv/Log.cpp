#include "Kiv/Log.h"

#include <fmt/format.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <mutex>
#include <string>
#include <utility>

#include "Fenrik/ForkGuard.h"
#include "Kiv/LineSink.h"

namespace Kiv {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::array<std::string_view, 8> kSeverityNames{
    "emergency", "alert", "critical", "error", "warning", "notice", "info", "debug"};

std::string_view severityName(std::uintptr_t severity) {
  return severity < kSeverityNames.size() ? kSeverityNames[severity] : "?";
}

/// The format with "%s" replaced by `text` and "%%" by "%"; other percent signs are unchanged.
std::string messageOf(std::string_view format, std::string_view text) {
  std::string message;
  for (std::size_t at = 0; at < format.size(); ++at) {
    const std::string_view two = format.substr(at, 2);
    if (two == "%s")
      message += text;
    else
      message += format[at];
    if (two == "%s" || two == "%%") ++at;
  }
  return message;
}

/// Held while a message is counted. Shared by all handles: messages are rare, and a fork locks it.
constinit std::mutex gateMutex;

/// Never destroyed, so that messages can be logged at exit.
LineSink<LogMessage>& sink() {
  static auto* const sink = new LineSink<LogMessage>;
  return *sink;
}

const Fenrik::ForkGuard forkGuard(
    Fenrik::ForkOrder::settings,
    [] {
      sink();
      gateMutex.lock();
    },
    [] { gateMutex.unlock(); }, [] { gateMutex.unlock(); });

void toSyslog(const LogMessage& message) {
  ::syslog(static_cast<int>(message.descriptor.severity & LOG_PRIMASK), "%s: %.*s",
           message.descriptor.mnemonic, static_cast<int>(message.text.size()), message.text.data());
}

}  // namespace

/// Counts the messages of one handle against its limit.
class LogHandle::Gate {
 public:
  Gate(Fenrik::Duration interval, double growth, unsigned burst, unsigned growthLimit)
      : firstLength_(interval),
        length_(interval),
        growth_(std::max(growth, 1.0)),
        burst_(std::max(burst, 1u)),
        growthLimit_(growthLimit) {}

  struct Verdict {
    bool passes;
    /// Messages suppressed before this one.
    unsigned long held;
  };

  Verdict messageInc(Clock::time_point now) {
    const std::lock_guard lock(gateMutex);
    if (now >= end_) intervalIs(now);
    if (passed_ == burst_) {
      ++held_;
      return {false, 0};
    }
    ++passed_;
    return {true, std::exchange(untold_, 0)};
  }

 private:
  void intervalIs(Clock::time_point now) {
    const bool calm = held_ == 0 || now >= end_ + length_;
    grown_ = calm ? 0 : std::min(grown_ + 1, growthLimit_);
    length_ = lengthAfter(grown_);
    end_ = now + length_;
    passed_ = 0;
    untold_ += std::exchange(held_, 0);
  }

  Fenrik::Duration lengthAfter(unsigned steps) const {
    // Thirty years: longer than any process runs, and added to the current time it still fits the
    // clock.
    constexpr double kLongest = 1e18;
    auto length = static_cast<double>(firstLength_.count());
    for (unsigned step = 0; step < steps && length < kLongest; ++step) length *= growth_;
    return Fenrik::Duration(static_cast<Fenrik::Duration::rep>(std::min(length, kLongest)));
  }

  const Fenrik::Duration firstLength_;
  Fenrik::Duration length_;
  const double growth_;
  const unsigned burst_;
  const unsigned growthLimit_;

  Clock::time_point end_;
  unsigned passed_ = 0;
  unsigned grown_ = 0;
  unsigned long held_ = 0;
  unsigned long untold_ = 0;
};

LogHandle::LogHandle(const LogDescriptor* descriptor, Fenrik::Duration interval, double growth,
                     unsigned burst, unsigned growthLimit)
    : descriptor_(descriptor),
      gate_(interval > Fenrik::Duration::zero() ? new Gate(interval, growth, burst, growthLimit)
                                                : nullptr) {}

LogHandle::~LogHandle() { delete gate_; }

void log(LogHandle& handle, const Fenrik::String& text) noexcept {
  const int errnoBefore = errno;
  const LogHandle::Gate::Verdict verdict = handle.gate_ != nullptr
                                               ? handle.gate_->messageInc(Clock::now())
                                               : LogHandle::Gate::Verdict{true, 0};
  if (!verdict.passes) return;
  const LogDescriptor& descriptor = handle.descriptor();
  std::string message = withoutControls(messageOf(descriptor.format, text.view()));
  if (verdict.held != 0) message += fmt::format(" ({} such messages were held back)", verdict.held);
  const std::string rendered =
      fmt::format("{} {} {}: {}\n", TimeText(std::chrono::system_clock::now()).view(),
                  severityName(descriptor.severity), descriptor.mnemonic, message);
  sink().deliver({descriptor, message, rendered});
  errno = errnoBefore;
}

void LogControl::sinkIsStderr() { sink().fdIs(STDERR_FILENO); }
void LogControl::sinkIsSyslog() { sink().callbackIs(toSyslog); }
void LogControl::sinkIs(int fd) { sink().fdIs(fd); }
void LogControl::sinkIs(Sink callback) { sink().callbackIs(std::move(callback)); }

}  // namespace Kiv
