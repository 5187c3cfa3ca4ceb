#include "OvSlab/SlabMemory.h"

#include <sys/mman.h>

#include <algorithm>
#include <atomic>
#include <utility>

namespace OvSlab::Impl {
namespace {

/// Addresses cost nothing until used: 64 GiB is more than the nine tables hold at their declared
/// size. If a limit on address space forbids it, half as much is tried, and so on.
constexpr std::size_t kReserveMost = std::size_t{1} << 36;
constexpr std::size_t kReserveLeast = std::size_t{1} << 28;

/// Slabs are made accessible in steps whose descriptors fill one page: 4 MiB of slabs.
constexpr std::size_t kPageBytes = 4096;
constexpr std::size_t kGrowth = kPageBytes / sizeof(Slab);

char* reserveAddresses(std::size_t bytes) noexcept {
  void* const start =
      ::mmap(nullptr, bytes, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  return start == MAP_FAILED ? nullptr : static_cast<char*>(start);
}

bool makeUsable(void* start, std::size_t bytes) noexcept {
  return ::mprotect(start, bytes, PROT_READ | PROT_WRITE) == 0;
}

}  // namespace

void SlabList::pushFront(Slab& slab) noexcept {
  slab.prev = nullptr;
  slab.next = first_;
  (first_ != nullptr ? first_->prev : last_) = &slab;
  first_ = &slab;
  ++count_;
}

void SlabList::remove(Slab& slab) noexcept {
  (slab.prev != nullptr ? slab.prev->next : first_) = slab.next;
  (slab.next != nullptr ? slab.next->prev : last_) = slab.prev;
  --count_;
}

Slab* SlabList::popFront() noexcept {
  Slab* const slab = first_;
  if (slab != nullptr) remove(*slab);
  return slab;
}

Slab* SlabList::popBack() noexcept {
  Slab* const slab = last_;
  if (slab != nullptr) remove(*slab);
  return slab;
}

void* SlabMemory::startOf(const Slab& slab) noexcept {
  const auto index = static_cast<std::size_t>(&slab - SlabHeap::range_.slabs);
  const std::uintptr_t base = SlabHeap::range_.base;
  return reinterpret_cast<void*>(base + (index << kSlabShift));
}

bool SlabMemory::reserve() noexcept {
  if (std::exchange(reserveTried_, true)) return false;
  for (std::size_t bytes = kReserveMost; bytes >= kReserveLeast; bytes /= 2) {
    const std::size_t count = bytes >> kSlabShift;
    char* const start = reserveAddresses(bytes + kSlabBytes);
    if (start == nullptr) continue;
    char* const descriptors = reserveAddresses(count * sizeof(Slab));
    if (descriptors == nullptr) {
      ::munmap(start, bytes + kSlabBytes);
      continue;
    }
    Range& range = SlabHeap::range_;
    range.slabs = reinterpret_cast<Slab*>(descriptors);
    range.base = (reinterpret_cast<std::uintptr_t>(start) + kSlabBytes - 1) & -kSlabBytes;
    std::atomic_ref(range.bytes).store(bytes, std::memory_order_release);
    reserved_ = count;
    return true;
  }
  return false;
}

bool SlabMemory::grow() noexcept {
  if (usable_ == reserved_ && !reserve()) return false;
  Slab* const first = SlabHeap::range_.slabs + usable_;
  if (!makeUsable(first, kGrowth * sizeof(Slab))) return false;
  if (!makeUsable(startOf(*first), kGrowth << kSlabShift)) return false;
  usable_ += kGrowth;
  return true;
}

Slab* SlabMemory::anySlab() noexcept {
  if (Slab* const slab = kept_.popFront()) return slab;
  if (Slab* const slab = released_.popFront()) return slab;
  if (begun_ == usable_ && !grow()) return nullptr;
  return SlabHeap::range_.slabs + begun_++;
}

Slab* SlabMemory::slabTake() noexcept {
  const ModeLock lock(mutex_);
  Slab* const slab = anySlab();
  if (slab == nullptr) return nullptr;
  ++inUse_;
  poison(startOf(*slab), kSlabBytes);
  leakRootAdd(startOf(*slab), kSlabBytes);
  return slab;
}

void SlabMemory::slabGive(Slab& slab) noexcept {
  const ModeLock lock(mutex_);
  leakRootRemove(startOf(slab), kSlabBytes);
  slab.state = SlabState::empty;
  slab.inverse = 0;
  --inUse_;
  kept_.pushFront(slab);
  if (kept_.count() <= keepLimit()) return;
  for (const std::size_t goal = keepLimit() / 2; kept_.count() > goal;) {
    Slab& oldest = *kept_.popBack();
    ::madvise(startOf(oldest), kSlabBytes, MADV_DONTNEED);
    released_.pushFront(oldest);
  }
}

std::size_t SlabMemory::keepLimit() const noexcept { return std::max(kKeepAtLeast, inUse_ / 8); }

SlabMemory::Counts SlabMemory::counts() noexcept {
  const ModeLock lock(mutex_);
  return {inUse_, kept_.count(), released_.count()};
}

}  // namespace OvSlab::Impl
