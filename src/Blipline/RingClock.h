#pragma once

#include <cstdint>
#include <ctime>

#include "Blipline/RingFormat.h"
#include "Fenrik/Export.h"

namespace Blipline {

/// Clock of the records: the processor's time stamp counter if its rate is constant, which costs
/// less than half of a system clock; otherwise CLOCK_MONOTONIC.
class QUARNBASTIL_EXPORT RingClock {
 public:
  /// One instant on the ring's clock and on CLOCK_MONOTONIC, in nanoseconds.
  struct Instant {
    std::uint64_t tick;
    std::uint64_t monotonic;
  };
  /// Converts ticks to time of day; the same for the whole process.
  struct Base {
    RingClockKind kind;
    std::uint64_t ticksPerSecond;
    Instant instant;
    std::uint64_t realtime;
  };

  /// Measured by the first call, which sleeps for two milliseconds.
  static const Base& base();

  /// REQUIRES: `base` has been called.
  static std::uint64_t tick() noexcept {
#if defined(__x86_64__)
    if (hasCounter_) [[likely]]
      return __builtin_ia32_rdtsc();
#endif
    return nanoseconds(CLOCK_MONOTONIC);
  }

  static Instant instant() noexcept;

 private:
  static std::uint64_t nanoseconds(clockid_t clock) noexcept;
  static Base measure();

  /// Whether the time stamp counter has a constant rate. Set by `measure`.
  static bool hasCounter_;
};

}  // namespace Blipline
