#pragma once

#include <cstddef>
#include <mutex>

#include "Fenrik/ThreadControl.h"
#include "OvSlab/SlabHeap.h"

namespace OvSlab::Impl {

/// Holds a lock while threads are on, and nothing while they are off.
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
  /// Held by every operation while threads are on.
  std::mutex* mutex_;
};

/// Slabs linked through their descriptors; a slab stands in one list at most.
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

/// Where slabs come from and empty ones go to.
///
/// Threads: any when `tsp_` is set; a caller may hold the lock of one head.
///
/// I1. At most `keepLimit()` empty slabs keep their memory; when one more comes, the half that has
///     been empty longest gives it back. So a load that moves by less than that half, up and down
///     for ever, asks the system for nothing.
class SlabMemory {
 public:
  /// Kept however little is in use: half a mebibyte. Above that, an eighth of what is in use.
  static constexpr std::size_t kKeepAtLeast = 8;

  /// An empty slab that belongs to no class; null when the system gives no more.
  Slab* slabTake() noexcept;
  /// Takes back a slab in which nothing lives.
  void slabGive(Slab& slab) noexcept;

  struct Counts {
    std::size_t inUse;
    std::size_t kept;
    std::size_t released;
  };
  Counts counts() noexcept;

  static void* startOf(const Slab& slab) noexcept;

  /// Around a fork.
  void lock() { mutex_.lock(); }
  void unlock() { mutex_.unlock(); }

 private:
  bool reserve() noexcept;
  bool grow() noexcept;
  Slab* anySlab() noexcept;
  std::size_t keepLimit() const noexcept;

  std::mutex mutex_;
  /// Empty slabs with memory, newest first.
  SlabList kept_;
  /// Empty slabs whose memory was given back.
  SlabList released_;
  /// Slabs that belong to a class.
  std::size_t inUse_ = 0;
  /// Slabs ever handed out, slabs whose addresses may be used, slabs reserved.
  std::size_t begun_ = 0;
  std::size_t usable_ = 0;
  std::size_t reserved_ = 0;
  /// The one reservation was made, or refused.
  bool reserveTried_ = false;
};

}  // namespace OvSlab::Impl
