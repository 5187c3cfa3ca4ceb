#include "Kiv/LineSink.h"

#include <fmt/format.h>
#include <poll.h>
#include <unistd.h>
#include <csignal>

#include <cerrno>
#include <ctime>

namespace Kiv {
namespace {

/// How long a line waits for a descriptor that is full before it is given up.
constexpr int kPatienceMs = 1000;

/// Keeps a write to a pipe without a reader from ending the process.
class PipeSignalHeld {
 public:
  PipeSignalHeld() noexcept {
    sigemptyset(&pipe_);
    sigaddset(&pipe_, SIGPIPE);
    sigset_t pending;
    sigpending(&pending);
    wasPending_ = sigismember(&pending, SIGPIPE) == 1;
    pthread_sigmask(SIG_BLOCK, &pipe_, &before_);
  }
  ~PipeSignalHeld() {
    const timespec atOnce{};
    if (raised_ && !wasPending_) sigtimedwait(&pipe_, nullptr, &atOnce);
    pthread_sigmask(SIG_SETMASK, &before_, nullptr);
  }
  PipeSignalHeld(const PipeSignalHeld&) = delete;
  PipeSignalHeld& operator=(const PipeSignalHeld&) = delete;

  void raised() noexcept { raised_ = true; }

 private:
  sigset_t pipe_;
  sigset_t before_;
  bool wasPending_ = false;
  bool raised_ = false;
};

bool writeAll(int fd, std::string_view line) noexcept {
  PipeSignalHeld pipeSignal;
  while (!line.empty()) {
    const ssize_t written = ::write(fd, line.data(), line.size());
    if (written >= 0) {
      line.remove_prefix(static_cast<std::size_t>(written));
    } else if (errno == EAGAIN || errno == EWOULDBLOCK) {
      pollfd room{fd, POLLOUT, 0};
      if (::poll(&room, 1, kPatienceMs) == 0) return false;
    } else if (errno != EINTR) {
      if (errno == EPIPE) pipeSignal.raised();
      return false;
    }
  }
  return true;
}

}  // namespace

bool lineWrite(int fd, std::string_view line) noexcept {
  const int before = errno;
  const bool whole = writeAll(fd, line);
  errno = before;
  return whole;
}

TimeText::TimeText(std::chrono::system_clock::time_point time) noexcept {
  using std::chrono::microseconds;
  const auto sinceEpoch = std::chrono::floor<microseconds>(time.time_since_epoch()).count();
  constexpr long long kMicrosPerSecond = 1'000'000;
  const std::time_t second = sinceEpoch / kMicrosPerSecond;
  std::tm utc{};
  ::gmtime_r(&second, &utc);
  fmt::format_to_n(text_, sizeof text_, "{:04}-{:02}-{:02}T{:02}:{:02}:{:02}.{:06}Z",
                   utc.tm_year + 1900, utc.tm_mon + 1, utc.tm_mday, utc.tm_hour, utc.tm_min,
                   utc.tm_sec, sinceEpoch % kMicrosPerSecond);
}

}  // namespace Kiv
