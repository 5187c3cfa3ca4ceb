#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string_view>
#include <utility>

#include "Fenrik/Assert.h"

namespace Kiv {

/// Writes all of `line` to the descriptor, in one write(2) unless the system takes less. Waits a
/// second at most for a descriptor that is full, survives a reader that is gone, leaves errno
/// alone. False when not all of it was taken.
bool lineWrite(int fd, std::string_view line) noexcept;

/// "2026-11-22T21:15:09.123456Z" in a buffer of the caller.
class TimeText {
 public:
  explicit TimeText(std::chrono::system_clock::time_point time) noexcept;
  std::string_view view() const noexcept { return {text_, sizeof text_}; }

 private:
  char text_[27];
};

/// Where the lines of one channel go: a callback, or a file descriptor.
///
/// Any thread.
/// I1. One line is delivered at a time, so lines do not mix.
/// I2. After a sink was replaced the former one is no longer called.
/// I3. A delivery within a delivery is refused: it would wait for itself.
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
    const std::lock_guard lock(mutex_);
    delivering_ = true;
    if (callback_)
      callback_(line);
    else if (!lineWrite(fd_, line.rendered))
      lost_.fetch_add(1, std::memory_order_relaxed);
    delivering_ = false;
  }

  std::uint64_t lost() const noexcept { return lost_.load(std::memory_order_relaxed); }

 private:
  void targetIs(int fd, Callback callback) {
    FENRIK_ASSERT(!delivering_);
    {
      const std::lock_guard lock(mutex_);
      fd_ = fd;
      callback_.swap(callback);
    }
    // The former callback goes here, outside the lock: its destructor may trace.
  }

  inline static thread_local bool delivering_ = false;

  std::mutex mutex_;
  int fd_ = 2;
  Callback callback_;
  std::atomic<std::uint64_t> lost_{0};
};

}  // namespace Kiv
