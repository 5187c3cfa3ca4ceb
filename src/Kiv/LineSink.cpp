#include "Kiv/LineSink.h"

#include <fmt/format.h>
#include <poll.h>
#include <pthread.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <csignal>
#include <ctime>

#include "Fenrik/ForkGuard.h"

namespace Kiv {
namespace {

/// Prevents a write to a pipe without a reader from raising SIGPIPE.
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

/// Writes the last `count` decimal digits of `number`.
void digitsPut(char* text, int count, long long number) noexcept {
  for (char* at = text + count; at != text; number /= 10) {
    *--at = static_cast<char>('0' + number % 10);
  }
}

/// A pipe with any room accepts this many bytes at once.
constexpr std::size_t kPieceBytes = PIPE_BUF;

/// Writes without blocking, even if the descriptor is in blocking mode: its flags are shared with
/// other users and must not be changed. If the kernel does not support that for the file, polls for
/// room first.
ssize_t writeAtOnce(int fd, std::string_view piece) noexcept {
  iovec part{const_cast<char*>(piece.data()), piece.size()};
  const ssize_t written = ::pwritev2(fd, &part, 1, -1, RWF_NOWAIT);
  if (written >= 0 || (errno != EOPNOTSUPP && errno != ENOSYS && errno != EINVAL)) return written;
  pollfd room{fd, POLLOUT, 0};
  if (::poll(&room, 1, 0) == 0) {
    errno = EAGAIN;
    return -1;
  }
  return ::write(fd, piece.data(), piece.size());
}

/// False if there is no room within the patience.
bool waitForRoom(int fd, std::chrono::nanoseconds& patience) noexcept {
  using Clock = std::chrono::steady_clock;
  if (patience <= patience.zero()) return false;
  const Clock::time_point before = Clock::now();
  const auto seconds = std::chrono::floor<std::chrono::seconds>(patience);
  const timespec most{seconds.count(), (patience - seconds).count()};
  pollfd room{fd, POLLOUT, 0};
  const int ready = ::ppoll(&room, 1, &most, nullptr);
  patience -= Clock::now() - before;
  return ready != 0;
}

bool writeAll(int fd, std::string_view& line, std::chrono::nanoseconds& patience) noexcept {
  PipeSignalHeld pipeSignal;
  while (!line.empty()) {
    const ssize_t written = writeAtOnce(fd, line.substr(0, kPieceBytes));
    if (written >= 0) {
      line.remove_prefix(static_cast<std::size_t>(written));
    } else if (errno == EAGAIN || errno == EWOULDBLOCK) {
      if (!waitForRoom(fd, patience)) return false;
    } else if (errno != EINTR) {
      if (errno == EPIPE) pipeSignal.raised();
      return false;
    }
  }
  return true;
}

/// Length of the control character at the start of `text`, or 0 if there is none.
std::size_t controlAt(std::string_view text) noexcept {
  const auto byte = [&](std::size_t at) { return static_cast<unsigned char>(text[at]); };
  if (byte(0) < ' ' || byte(0) == 0x7f) return 1;
  // U+0080 to U+009F, which some terminals interpret.
  return byte(0) == 0xc2 && text.size() > 1 && byte(1) >= 0x80 && byte(1) <= 0x9f ? 2 : 0;
}

/// Recursive, because a callback of one channel may use another.
constinit pthread_mutex_t deliveryMutex = PTHREAD_RECURSIVE_MUTEX_INITIALIZER_NP;

void deliveryForgotten() {
  // The mutex records its owner by thread id, which differs in the child, so the child cannot
  // unlock it.
  deliveryMutex = PTHREAD_RECURSIVE_MUTEX_INITIALIZER_NP;
}

const Fenrik::ForkGuard deliveryGuard(
    Fenrik::ForkOrder::lines, [] { ::pthread_mutex_lock(&deliveryMutex); },
    [] { ::pthread_mutex_unlock(&deliveryMutex); }, deliveryForgotten);

}  // namespace

DeliveryLock::DeliveryLock() noexcept { ::pthread_mutex_lock(&deliveryMutex); }
DeliveryLock::~DeliveryLock() { ::pthread_mutex_unlock(&deliveryMutex); }

bool lineWrite(int fd, std::string_view& line, std::chrono::nanoseconds& patience) noexcept {
  const int before = errno;
  const bool whole = writeAll(fd, line, patience);
  errno = before;
  return whole;
}

void lastLineWrite(int fd, std::string_view line) noexcept {
  std::chrono::nanoseconds patience = std::chrono::seconds(1);
  lineWrite(fd, line, patience);
}

bool hasControls(std::string_view text) noexcept {
  for (std::size_t at = 0; at != text.size(); ++at)
    if (controlAt(text.substr(at)) != 0) return true;
  return false;
}

std::string withoutControls(std::string_view text) {
  std::string clean;
  while (!text.empty()) {
    const std::size_t control = controlAt(text);
    if (control == 0)
      clean += text[0];
    else if (text[0] == '\n')
      clean += "\\n";
    else
      for (const char c : text.substr(0, control))
        clean += fmt::format("\\x{:02x}", static_cast<unsigned char>(c));
    text.remove_prefix(control == 0 ? 1 : control);
  }
  return clean;
}

void LineOutput::fdIs(int fd) noexcept {
  fd_ = fd;
  torn_ = false;
  untold_ = 0;
  patience_ = kPatience;
}

bool LineOutput::write(std::string_view line) noexcept {
  if (untold_ == 0 ? put(line) : Clock::now() >= tryAgain_ && putBehindLoss(line)) {
    untold_ = 0;
    return true;
  }
  ++untold_;
  return false;
}

/// One piece: otherwise a pipe might accept the short line repeatedly and never the following one.
bool LineOutput::putBehindLoss(std::string_view line) noexcept {
  return put(fmt::format("{}{} {} lines were lost here: nobody took them\n{}", torn_ ? "\n" : "",
                         TimeText(std::chrono::system_clock::now()).view(), untold_, line));
}

bool LineOutput::put(std::string_view line) noexcept {
  if (patience_ != kPatience && Clock::now() >= patienceAgain_) patience_ = kPatience;
  const bool unspent = patience_ == kPatience;
  const std::size_t size = line.size();
  const bool whole = lineWrite(fd_, line, patience_);
  if (unspent && patience_ != kPatience) patienceAgain_ = Clock::now() + std::chrono::seconds(1);
  if (whole || line.size() != size) torn_ = !whole;
  if (!whole) tryAgain_ = Clock::now() + kTryAfter;
  return whole;
}

TimeText::TimeText(std::chrono::system_clock::time_point time) noexcept {
  using std::chrono::microseconds;
  const auto sinceEpoch = std::chrono::floor<microseconds>(time.time_since_epoch()).count();
  constexpr long long kMicrosPerSecond = 1'000'000;
  const std::time_t second = sinceEpoch / kMicrosPerSecond;
  std::tm utc{};
  ::gmtime_r(&second, &utc);
  digitsPut(text_, 4, utc.tm_year + 1900);
  digitsPut(text_ + 5, 2, utc.tm_mon + 1);
  digitsPut(text_ + 8, 2, utc.tm_mday);
  digitsPut(text_ + 11, 2, utc.tm_hour);
  digitsPut(text_ + 14, 2, utc.tm_min);
  digitsPut(text_ + 17, 2, utc.tm_sec);
  digitsPut(text_ + 20, 6, sinceEpoch % kMicrosPerSecond);
}

}  // namespace Kiv
