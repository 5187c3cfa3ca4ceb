#pragma once

#include <algorithm>
#include <chrono>
#include <thread>

#include "hwwriter/Options.h"

namespace HwWriter {

/// Limits the speed of programming to that of a real chip.
class Pace {
 public:
  explicit Pace(const Options& options) : rate_(options.rate), delay_(options.delay) {}

  /// Call after programming a row.
  void row() {
    if (rate_ == 0) return;
    const auto now = Clock::now();
    // Idle time does not accumulate.
    due_ = std::max(due_, now) + std::chrono::nanoseconds(std::chrono::seconds(1)) / rate_;
    // Shorter sleeps overshoot.
    constexpr auto kWorthSleeping = std::chrono::milliseconds(1);
    if (due_ - now > kWorthSleeping) std::this_thread::sleep_until(due_);
  }
  /// Call while a batch is on its way to the chip.
  void batch() const {
    if (delay_.count() != 0) std::this_thread::sleep_for(delay_);
  }

 private:
  using Clock = std::chrono::steady_clock;

  std::uint64_t rate_;
  std::chrono::microseconds delay_;
  Clock::time_point due_{};
};

}  // namespace HwWriter
