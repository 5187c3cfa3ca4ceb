#include "Blipline/RingMapping.h"

#include <sys/mman.h>

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <mutex>

#include "Fenrik/ForkGuard.h"

namespace Blipline {

/// One mapping's entry for the signal handler. Reused but never freed, because the handler may
/// access it at any time.
struct RingMapping::Place {
  std::atomic<std::byte*> start{nullptr};
  std::atomic<std::size_t> bytes{0};
  std::atomic<bool> lost{false};
  std::atomic<Place*> next{nullptr};

  /// Async-signal-safe; preserves errno.
  void lose() noexcept {
    const int before = errno;
    lost = true;
    ::mmap(start, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED, -1, 0);
    errno = before;
  }
};

struct RingMapping::Places {
  static constinit inline std::mutex mutex;
  static constinit inline std::atomic<Place*> first{nullptr};
  static constinit inline struct sigaction former {};

  static const Fenrik::ForkGuard forkGuard;

  static void lock() { mutex.lock(); }
  static void unlock() { mutex.unlock(); }
  static void childKeepsOut() {
    for (Place* place = first; place != nullptr; place = place->next)
      if (place->start != nullptr) place->lose();
    mutex.unlock();
  }

  static Place& take() {
    for (Place* place = first; place != nullptr; place = place->next)
      if (place->start == nullptr) return *place;
    auto* const fresh = new Place;
    fresh->next = first.load();
    if (first == nullptr) handlerSet();
    first = fresh;
    return *fresh;
  }

  static void handlerSet() noexcept {
    struct sigaction ours {};
    ours.sa_sigaction = onBusError;
    ours.sa_flags = SA_SIGINFO | SA_ONSTACK;
    sigemptyset(&ours.sa_mask);
    ::sigaction(SIGBUS, &ours, &former);
  }

  static void onBusError(int signal, siginfo_t* info, void* context) noexcept {
    const auto address = reinterpret_cast<std::uintptr_t>(info->si_addr);
    for (Place* place = first; place != nullptr && info->si_code > 0; place = place->next) {
      const auto start = reinterpret_cast<std::uintptr_t>(place->start.load());
      if (start != 0 && address - start < place->bytes) return place->lose();
    }
    if ((former.sa_flags & SA_SIGINFO) != 0) return former.sa_sigaction(signal, info, context);
    if (former.sa_handler != SIG_DFL && former.sa_handler != SIG_IGN)
      return former.sa_handler(signal);
    // The faulting instruction is executed again and terminates the process, as it would without
    // this handler.
    ::signal(SIGBUS, SIG_DFL);
    if (info->si_code <= 0) ::raise(SIGBUS);
  }
};

const Fenrik::ForkGuard RingMapping::Places::forkGuard(Fenrik::ForkOrder::rings, lock, unlock,
                                                       childKeepsOut);

void* RingMapping::map(int fd, std::size_t bytes) {
  const std::lock_guard lock(Places::mutex);
  Place& place = Places::take();
  void* const start = ::mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  if (start == MAP_FAILED) return nullptr;
  place.lost = false;
  place.bytes = bytes;
  place.start = static_cast<std::byte*>(start);
  place_ = &place;
  return start;
}

RingMapping::~RingMapping() {
  if (place_ == nullptr) return;
  const std::lock_guard lock(Places::mutex);
  std::byte* const start = place_->start.exchange(nullptr);
  ::munmap(start, place_->bytes);
}

bool RingMapping::lost() const noexcept { return place_ != nullptr && place_->lost; }

}  // namespace Blipline
