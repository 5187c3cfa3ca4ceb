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
std::uint32_t* sleepingOf(const std::byte* data) {
  return reinterpret_cast<std::uint32_t*>(const_cast<std::byte*>(data) + Format::kSleepingOffset);
}

void moveBell(std::byte* data) noexcept {
  std::uint32_t* const bell = bellOf(data);
  __atomic_store_n(bell, __atomic_load_n(bell, __ATOMIC_RELAXED) + 1, __ATOMIC_SEQ_CST);
}

void wake(const std::byte* data) noexcept {
  ::syscall(SYS_futex, bellOf(data), FUTEX_WAKE, INT_MAX, nullptr, nullptr, 0);
}

}  // namespace

void DriftFile::ring(const DriftFile* listener) noexcept {
  moveBell(data_);
  // The ringer changes the bell before it checks the sleeper's mark; the sleeper sets its mark
  // before its last check of the bell. So at least one of the two notices the other.
  __atomic_thread_fence(__ATOMIC_SEQ_CST);
  const bool awake =
      listener != nullptr && __atomic_load_n(sleepingOf(listener->data_), __ATOMIC_SEQ_CST) == 0;
  if (!awake) wake(data_);
}

const std::uint32_t* DriftFile::doorbellWord() const noexcept { return bellOf(data_); }

std::uint32_t DriftFile::doorbell() const noexcept {
  return __atomic_load_n(doorbellWord(), __ATOMIC_ACQUIRE);
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

/// Sleeps on all bells at once. False if the kernel does not support it (Linux before 5.16).
bool sleepOnAll(std::span<const BellSeen> bells, std::chrono::steady_clock::time_point end) {
  std::vector<futex_waitv> waiters;
  for (const BellSeen& bell : bells) {
    waiters.push_back({.val = bell.seen,
                       .uaddr = reinterpret_cast<std::uintptr_t>(bellOf(bell.file->data())),
                       // Not FUTEX_PRIVATE: the ringer is another process.
                       .flags = FUTEX_32,
                       .__reserved = 0});
  }
  // The steady clock is CLOCK_MONOTONIC.
  const timespec until = timespecOf(end.time_since_epoch());
  const long result =
      ::syscall(SYS_futex_waitv, waiters.data(), waiters.size(), 0, &until, CLOCK_MONOTONIC);
  return result >= 0 || (errno != ENOSYS && errno != EINVAL && errno != EPERM);
}

/// Marks this process asleep in its own files for the lifetime of the object.
class Sleeping {
 public:
  explicit Sleeping(std::span<const DriftFile* const> own) : own_(own) { say(1); }
  ~Sleeping() { say(0); }
  Sleeping(const Sleeping&) = delete;
  Sleeping& operator=(const Sleeping&) = delete;

 private:
  void say(std::uint32_t value) const noexcept {
    for (const DriftFile* file : own_) {
      __atomic_store_n(sleepingOf(file->data()), value, __ATOMIC_RELEASE);
    }
    __atomic_thread_fence(__ATOMIC_SEQ_CST);
  }

  std::span<const DriftFile* const> own_;
};

}  // namespace

bool waitForAnyRing(std::span<const BellSeen> bells, std::chrono::nanoseconds timeout,
                    std::span<const DriftFile* const> own) {
  using std::chrono::milliseconds;
  const auto moved = [](const BellSeen& bell) { return bell.file->doorbell() != bell.seen; };
  if (std::ranges::any_of(bells, moved)) return true;
  // Limits the timeout to a year, which avoids overflow.
  const auto end = std::chrono::steady_clock::now() +
                   std::min<std::chrono::nanoseconds>(timeout, std::chrono::hours(24 * 365));
  const Sleeping sleeping(own);
  // Upper limit of one sleep. A ringer makes no wake-up call if it checks the mark of another
  // listener or that of a deleted file; and if the kernel can wait on only one bell, the others
  // must be polled.
  std::chrono::nanoseconds slice = !own.empty() ? milliseconds(100) : milliseconds(20);
  bool together = bells.size() > 1;
  while (std::ranges::none_of(bells, moved)) {
    const auto left = std::chrono::duration_cast<std::chrono::nanoseconds>(
        end - std::chrono::steady_clock::now());
    if (left.count() <= 0) return false;
    const auto time = std::min(left, slice);
    if (together) {
      together = sleepOnAll(bells, std::chrono::steady_clock::now() + time);
      if (!together) slice = milliseconds(5);
      continue;
    }
    const timespec wait = timespecOf(time);
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
