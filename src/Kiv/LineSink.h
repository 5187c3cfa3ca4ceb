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

/// Writes all of `line` to the descriptor, in one write(2) unless the system takes less. Waits at
/// most as long as `patience` for a descriptor that is full, and takes what it waited off it.
/// Survives a reader that is gone, leaves errno alone. False when not all of it was taken; `line`
/// is what is left then.
bool lineWrite(int fd, std::string_view& line, std::chrono::nanoseconds& patience) noexcept;

/// The same for a message before the end, with a patience of one second.
void lastLineWrite(int fd, std::string_view line) noexcept;

/// Whether the text has a control character in it: one that moves a terminal's cursor, changes its
/// state or ends a line. Text is UTF-8.
bool hasControls(std::string_view text) noexcept;
/// The text with its control characters as "\n" and "\x1b".
std::string withoutControls(std::string_view text);

/// "2026-11-22T21:15:09.123456Z" in a buffer of the caller.
class TimeText {
 public:
  explicit TimeText(std::chrono::system_clock::time_point time) noexcept;
  std::string_view view() const noexcept { return {text_, sizeof text_ - 1}; }

 private:
  char text_[28] = "YYYY-MM-DDThh:mm:ss.uuuuuuZ";
};

/// A descriptor for lines. It may be a pipe that nobody reads: the threads that write to it wait
/// for it no longer than `kPatience` in any second, all together. What comes meanwhile is lost, and
/// the next line that is taken is preceded by one that tells how many were.
class LineOutput {
 public:
  static constexpr std::chrono::milliseconds kPatience{4};
  /// A descriptor that took nothing is tried this seldom: a try is a system call.
  static constexpr std::chrono::milliseconds kTryAfter{1};

  void fdIs(int fd) noexcept;
  /// False when the line was lost.
  bool write(std::string_view line) noexcept;

 private:
  using Clock = std::chrono::steady_clock;

  bool put(std::string_view line) noexcept;
  bool putBehindLoss(std::string_view line) noexcept;

  /// Where lines go; the caller's.
  int fd_ = 2;
  /// The last line was cut.
  bool torn_ = false;
  /// Lines lost since one was taken.
  std::uint64_t untold_ = 0;
  /// What is left of it, and when there is all of it again.
  std::chrono::nanoseconds patience_ = kPatience;
  Clock::time_point patienceAgain_{};
  /// No write is tried before, once one has failed.
  Clock::time_point tryAgain_{};
};

/// Held while a line is delivered and while a sink is replaced, over all channels: a callback may
/// use another channel. A fork waits for it.
class DeliveryLock {
 public:
  DeliveryLock() noexcept;
  DeliveryLock(const DeliveryLock&) = delete;
  DeliveryLock& operator=(const DeliveryLock&) = delete;
  ~DeliveryLock();
};

/// Where the lines of one channel go: a callback, or a file descriptor.
///
/// Any thread.
/// I1. One line is delivered at a time, so lines do not mix.
/// I2. After a sink was replaced the former one is no longer called.
/// I3. A delivery within a delivery of the same channel is refused: its callback would recurse.
template <class Line>
class LineSink {
 public:
  using Callback = std::function<void(const Line&)>;

  void fdIs(int fd) { targetIs(fd, nullptr); }
  void callbackIs(Callback callback) { targetIs(-1, std::move(callback)); }

  /// `line.rendered` goes to the descriptor, `line` to the callback.
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
    // The former callback goes here, outside the lock: its destructor may trace.
  }

  /// This thread is within a delivery of this channel.
  inline static thread_local bool delivering_ = false;

  LineOutput output_;
  /// Used instead of `output_` when it is set.
  Callback callback_;
  /// Lines that were not delivered.
  std::atomic<std::uint64_t> lost_{0};
};

}  // namespace Kiv
