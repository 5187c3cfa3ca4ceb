#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <vector>

#include "Drift/DriftFile.h"

namespace Drift {

namespace {

std::uint32_t* bellOf(const std::byte* data) {
  return reinterpret_cast<std::uint32_t*>(const_cast<std::byte*>(data) + Format::kDoorbellOffset);
}

}  // namespace

void DriftFile::ring() noexcept {
  std::uint32_t* const bell = bellOf(data_);
  __atomic_store_n(bell, __atomic_load_n(bell, __ATOMIC_RELAXED) + 1, __ATOMIC_RELEASE);
  ::syscall(SYS_futex, bell, FUTEX_WAKE, INT_MAX, nullptr, nullptr, 0);
}

std::uint32_t DriftFile::doorbell() const noexcept {
  return __atomic_load_n(bellOf(data_), __ATOMIC_ACQUIRE);
}

bool DriftFile::waitForRing(std::uint32_t seen, std::chrono::nanoseconds timeout) const {
  const BellSeen bell{this, seen};
  return waitForAnyRing({&bell, 1}, timeout);
}

namespace {

timespec timespecOf(std::chrono::nanoseconds duration) {
  timespec result{};
  result.tv_sec = duration.count() / 1'000'000'000;
  result.tv_nsec = duration.count() % 1'000'000'000;
  return result;
}

/// Sleeps on all bells at once; false if this kernel cannot (it came with Linux 5.16).
bool sleepOnAll(std::span<const BellSeen> bells, std::chrono::steady_clock::time_point end) {
  std::vector<futex_waitv> waiters;
  for (const BellSeen& bell : bells) {
    waiters.push_back({.val = bell.seen,
                       .uaddr = reinterpret_cast<std::uintptr_t>(bellOf(bell.file->data())),
                       // Not the private form: the ringer is another process.
                       .flags = FUTEX_32,
                       .__reserved = 0});
  }
  // The steady clock is CLOCK_MONOTONIC.
  const timespec until = timespecOf(end.time_since_epoch());
  const long result =
      ::syscall(SYS_futex_waitv, waiters.data(), waiters.size(), 0, &until, CLOCK_MONOTONIC);
  return result >= 0 || (errno != ENOSYS && errno != EINVAL && errno != EPERM);
}

}  // namespace

bool waitForAnyRing(std::span<const BellSeen> bells, std::chrono::nanoseconds timeout) {
  // Where a thread can sleep on one bell only, it looks at the others this often.
  constexpr std::chrono::nanoseconds kSlice = std::chrono::milliseconds(5);
  // A year stands for ever, and does not overflow.
  const auto end = std::chrono::steady_clock::now() +
                   std::min<std::chrono::nanoseconds>(timeout, std::chrono::hours(24 * 365));
  const auto moved = [](const BellSeen& bell) { return bell.file->doorbell() != bell.seen; };
  bool slices = false;
  while (std::ranges::none_of(bells, moved)) {
    const auto left = std::chrono::duration_cast<std::chrono::nanoseconds>(
        end - std::chrono::steady_clock::now());
    if (left.count() <= 0) return false;
    if (bells.size() > 1 && !slices) {
      slices = !sleepOnAll(bells, end);
      continue;
    }
    const timespec wait = timespecOf(slices ? std::min(left, kSlice) : left);
    if (bells.empty()) {
      ::nanosleep(&wait, nullptr);
    } else {
      ::syscall(SYS_futex, bellOf(bells[0].file->data()), FUTEX_WAIT, bells[0].seen, &wait, nullptr,
                0);
    }
  }
  return true;
}

}  // namespace Drift
