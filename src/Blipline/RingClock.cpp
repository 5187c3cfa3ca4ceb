#include "Blipline/RingClock.h"

#include <chrono>
#include <cmath>
#include <mutex>
#include <optional>
#include <thread>

#if defined(__x86_64__)
#include <cpuid.h>
#endif

#include "Fenrik/ForkGuard.h"

namespace Blipline {
namespace {

constexpr std::uint64_t kNanosPerSecond = 1'000'000'000;
/// Two readings that are off by 50 ns give the rate to 1 in 20,000. Readers refine it over the time
/// that a file covers.
constexpr std::chrono::milliseconds kRateSpan{2};

/// Whether the counter's rate is the same in all power states of the processor.
bool counterIsEven() noexcept {
#if defined(__x86_64__)
  unsigned a = 0;
  unsigned b = 0;
  unsigned c = 0;
  unsigned d = 0;
  constexpr unsigned kPowerLeaf = 0x80000007;
  constexpr unsigned kInvariantCounter = 1u << 8;
  return __get_cpuid(kPowerLeaf, &a, &b, &c, &d) != 0 && (d & kInvariantCounter) != 0;
#else
  return false;
#endif
}

constinit std::mutex measuring;

const Fenrik::ForkGuard forkGuard(
    Fenrik::ForkOrder::rings, [] { measuring.lock(); }, [] { measuring.unlock(); },
    [] { measuring.unlock(); });

}  // namespace

bool RingClock::hasCounter_ = false;

const RingClock::Base& RingClock::base() {
  static constinit std::optional<Base> base;
  const std::lock_guard lock(measuring);
  if (!base) base = measure();
  return *base;
}

std::uint64_t RingClock::nanoseconds(clockid_t clock) noexcept {
  std::timespec time{};
  ::clock_gettime(clock, &time);
  return static_cast<std::uint64_t>(time.tv_sec) * kNanosPerSecond +
         static_cast<std::uint64_t>(time.tv_nsec);
}

RingClock::Instant RingClock::instant() noexcept {
  const std::uint64_t before = tick();
  const std::uint64_t monotonic = nanoseconds(CLOCK_MONOTONIC);
  return {before + (tick() - before) / 2, monotonic};
}

RingClock::Base RingClock::measure() {
  hasCounter_ = counterIsEven();
  instant();  // Warms up: the first call of a clock is slow.
  const Instant first = instant();
  const std::uint64_t realtime = nanoseconds(CLOCK_REALTIME);
  if (!hasCounter_) return {RingClockKind::monotonic, kNanosPerSecond, first, realtime};
  std::this_thread::sleep_for(kRateSpan);
  const Instant second = instant();
  const auto ticks = static_cast<double>(second.tick - first.tick);
  const auto nanos = static_cast<double>(second.monotonic - first.monotonic);
  return {RingClockKind::timeStampCounter,
          static_cast<std::uint64_t>(std::llround(ticks / nanos * double{kNanosPerSecond})), first,
          realtime};
}

}  // namespace Blipline
