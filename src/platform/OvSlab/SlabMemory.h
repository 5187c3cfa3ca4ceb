#pragma once

#include <cstddef>
#include <mutex>

#include "Fenrik/ThreadControl.h"
#include "OvSlab/SlabHeap.h"

namespace OvSlab::Impl {

/// Locks a mutex while threads are on; does nothing while they are off.
class ModeLock {
 public:
  explicit ModeLock(std::mutex& mutex) noexcept
      : mutex_(Fenrik::ThreadControl::tsp_ ? &mutex : nullptr) {
    if (mutex_ != nullptr) mutex_->lock();
  }
  ModeLock(const ModeLock&) = delete;
  ModeLock& operator=(const ModeLock&) = delete;
  ~ModeLock() {
    if (mutex_ != nullptr) mutex_->unlock();
  }

 private:
  /// The locked mutex, or null.
  std::mutex* mutex_;
};

/// A list of slabs, linked through their descriptors. A slab is in at most one list.
class SlabList {
 public:
  Slab* front() const noexcept { return first_; }
  std::size_t count() const noexcept { return count_; }

  void pushFront(Slab& slab) noexcept;
  void remove(Slab& slab) noexcept;
  Slab* popFront() noexcept;
  Slab* popBack() noexcept;

 private:
  Slab* first_ = nullptr;
  Slab* last_ = nullptr;
  std::size_t count_ = 0;
};

/// Supplies slabs and takes empty ones back.
///
/// Threads: any with `tsp_` set. The caller may hold the lock of one head.
///
/// I1. At most `keepLimit()` empty slabs keep their memory. When the limit is exceeded, the half
///     that has been empty longest is released. A load that oscillates by less than that half
///     therefore causes no system calls.
class SlabMemory {
 public:
  /// Empty slabs kept at least: half a MiB. The limit is an eighth of the slabs in use if that is
  /// more.
  static constexpr std::size_t kKeepAtLeast = 8;

  /// An empty slab without a class. Null if the system has no memory.
  Slab* slabTake() noexcept;
  /// Takes back a slab without live objects.
  void slabGive(Slab& slab) noexcept;

  struct Counts {
    std::size_t inUse;
    std::size_t kept;
    std::size_t released;
  };
  Counts counts() noexcept;

  static void* startOf(const Slab& slab) noexcept;

  /// Called around a fork.
  void lock() { mutex_.lock(); }
  void unlock() { mutex_.unlock(); }

 private:
  bool reserve() noexcept;
  bool grow() noexcept;
  Slab* anySlab() noexcept;
  std::size_t keepLimit() const noexcept;

  std::mutex mutex_;
  /// Empty slabs with memory, most recently emptied first.
  SlabList kept_;
  /// Empty slabs whose memory has been released.
  SlabList released_;
  /// Slabs with a class.
  std::size_t inUse_ = 0;
  /// Numbers of slabs ever handed out, made accessible, and reserved.
  std::size_t begun_ = 0;
  std::size_t usable_ = 0;
  std::size_t reserved_ = 0;
  /// The only attempt to reserve addresses has been made.
  bool reserveTried_ = false;
};

}  // namespace OvSlab::Impl
