#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <utility>

#include "Fenrik/Assert.h"

namespace Kiv {

/// Writes all of `line` to the descriptor, by one write(2) unless the system accepts less. Waits
/// for a full descriptor for at most `patience`, from which it subtracts the time waited. Does not
/// raise SIGPIPE and does not change errno. Returns false if the line was not written completely;
/// `line` is then the rest.
bool lineWrite(int fd, std::string_view& line, std::chrono::nanoseconds& patience) noexcept;

/// As above for a last message before termination, with a patience of one second.
void lastLineWrite(int fd, std::string_view line) noexcept;

/// Whether the UTF-8 text contains a control character, which could move a terminal's cursor,
/// change its state or end a line.
bool hasControls(std::string_view text) noexcept;
/// The text with control characters escaped as "\n" and "\x1b".
std::string withoutControls(std::string_view text);

/// A time as "2026-11-22T21:15:09.123456Z", in a buffer of the object.
class TimeText {
 public:
  explicit TimeText(std::chrono::system_clock::time_point time) noexcept;
  std::string_view view() const noexcept { return {text_, sizeof text_ - 1}; }

 private:
  char text_[28] = "YYYY-MM-DDThh:mm:ss.uuuuuuZ";
};

/// Writes lines to a descriptor, which may be a pipe without a reader: all threads together wait
/// for it at most `kPatience` per second. Lines that cannot be written meanwhile are lost; the next
/// line written is preceded by one that gives their number.
class LineOutput {
 public:
  static constexpr std::chrono::milliseconds kPatience{4};
  /// Interval between attempts to write to a blocked descriptor, since each attempt is a system
  /// call.
  static constexpr std::chrono::milliseconds kTryAfter{1};

  void fdIs(int fd) noexcept;
  /// False if the line was lost.
  bool write(std::string_view line) noexcept;

 private:
  using Clock = std::chrono::steady_clock;

  bool put(std::string_view line) noexcept;
  bool putBehindLoss(std::string_view line) noexcept;

  /// The caller's descriptor.
  int fd_ = 2;
  /// Whether the last line was written incompletely.
  bool torn_ = false;
  /// Lines lost since the last one that was written.
  std::uint64_t untold_ = 0;
  /// The remaining patience, and the time at which it is renewed.
  std::chrono::nanoseconds patience_ = kPatience;
  Clock::time_point patienceAgain_{};
  /// Time before which no write is attempted, after one has failed.
  Clock::time_point tryAgain_{};
};

/// Held, for all channels together, while a line is delivered or a sink is replaced. Recursive,
/// because a callback may use another channel. A fork waits for it.
class DeliveryLock {
 public:
  DeliveryLock() noexcept;
  DeliveryLock(const DeliveryLock&) = delete;
  DeliveryLock& operator=(const DeliveryLock&) = delete;
  ~DeliveryLock();
};

/// Destination of the lines of one channel: a callback or a file descriptor.
///
/// Threads: any.
/// I1. Lines are delivered one at a time, so they do not mix.
/// I2. A sink is not called after it has been replaced.
/// I3. A delivery within a delivery of the same channel is dropped; its callback would recurse.
template <class Line>
class LineSink {
 public:
  using Callback = std::function<void(const Line&)>;

  void fdIs(int fd) { targetIs(fd, nullptr); }
  void callbackIs(Callback callback) { targetIs(-1, std::move(callback)); }

  /// Passes `line.rendered` to the descriptor or `line` to the callback.
  void deliver(const Line& line) {
    if (delivering_) {
      lost_.fetch_add(1, std::memory_order_relaxed);
      return;
    }
    const DeliveryLock lock;
    delivering_ = true;
    if (callback_)
      callback_(line);
    else if (!output_.write(line.rendered))
      lost_.fetch_add(1, std::memory_order_relaxed);
    delivering_ = false;
  }

  std::uint64_t lost() const noexcept { return lost_.load(std::memory_order_relaxed); }

 private:
  void targetIs(int fd, Callback callback) {
    FENRIK_ASSERT(!delivering_);
    {
      const DeliveryLock lock;
      output_.fdIs(fd);
      callback_.swap(callback);
    }
    // The previous callback is destroyed outside the lock: its destructor may trace.
  }

  /// Whether this thread is delivering a line of this channel.
  inline static thread_local bool delivering_ = false;

  LineOutput output_;
  /// If set, used instead of `output_`.
  Callback callback_;
  /// Lines not delivered.
  std::atomic<std::uint64_t> lost_{0};
};

}  // namespace Kiv
