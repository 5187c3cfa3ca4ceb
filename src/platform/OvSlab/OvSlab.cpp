#include "OvSlab/OvSlab.h"

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <utility>

#include "Fenrik/ForkGuard.h"
#include "OvSlab/SlabMemory.h"
#include "OvSlab/SlabStats.h"
#include "OvSlab/TypeName.h"

namespace OvSlab {
namespace Impl {
namespace {

constexpr unsigned kListCount = static_cast<unsigned>(SlabState::current);
constexpr std::uint64_t kNever = ~std::uint64_t{0};

/// Stands in for a head's missing current slab: no free object, nothing left to carve.
constinit Slab noSlab{.free = nullptr,
                      .given = 0,
                      .givenLimit = kNever,
                      .taken = 0,
                      .next = nullptr,
                      .prev = nullptr,
                      .inverse = 0,
                      .objectSize = 0,
                      .carved = 0,
                      .capacity = 0,
                      .headIndex = 0,
                      .state = SlabState::current};

/// The slabs of a head other than its current one.
struct HeadLists {
  std::mutex mutex;
  SlabList lists[kListCount];

  SlabList& of(SlabState state) { return lists[static_cast<unsigned>(state)]; }
};

constinit HeadLists headLists[kHeadCount];
constinit SlabMemory memory;

void locksTake() {
  for (HeadLists& lists : headLists) lists.mutex.lock();
  memory.lock();
}

void locksGive() {
  memory.unlock();
  for (HeadLists& lists : headLists) lists.mutex.unlock();
}

const Fenrik::ForkGuard forkGuard(Fenrik::ForkOrder::slab, locksTake, locksGive, locksGive);

constexpr Heads emptyHeads() {
  Heads heads{};
  for (Head& head : heads.all) head.current = &noSlab;
  return heads;
}

std::uint64_t liveIn(const Slab& slab) noexcept { return slab.taken - slab.given; }

/// Turns the next page of a slab into free objects. False if the slab is completely carved.
bool carve(Slab& slab) noexcept {
  if (slab.carved == slab.capacity) return false;
  const unsigned batch = std::max(1u, 4096u / slab.objectSize);
  const unsigned end = std::min(slab.carved + batch, unsigned{slab.capacity});
  char* const start = static_cast<char*>(SlabMemory::startOf(slab));
  for (unsigned index = end; index-- != slab.carved;) {
    auto* const object = reinterpret_cast<FreeObject*>(start + index * slab.objectSize);
    unpoison(object, sizeof(FreeObject));
    *object = {slab.free, kFreeMark};
    poison(object, sizeof(FreeObject));
    slab.free = object;
  }
  slab.carved = static_cast<std::uint16_t>(end);
  return true;
}

void enterClass(Slab& slab, unsigned headIndex) noexcept {
  const unsigned size = objectSizeOf(headIndex % kSizeClassCount);
  slab.free = nullptr;
  slab.given = slab.taken = 0;
  slab.inverse = static_cast<std::uint32_t>(((std::uint64_t{1} << 32) + size - 1) / size);
  slab.objectSize = static_cast<std::uint16_t>(size);
  slab.carved = 0;
  slab.capacity = static_cast<std::uint16_t>(kSlabBytes / size);
  slab.headIndex = static_cast<std::uint8_t>(headIndex);
}

/// Adds a slab, other than a current one, to the list for its fill level, and sets the limit at
/// which it moves to the next list. A full slab stays in its list until an eighth of it is free, so
/// that taking objects from it pays off.
void enlist(Slab& slab) noexcept {
  const std::uint64_t live = liveIn(slab);
  const unsigned capacity = slab.capacity;
  const unsigned fullFloor = capacity - std::max(1u, capacity / 8);
  std::uint64_t floor = 0;
  if (live > fullFloor) {
    slab.state = SlabState::full, floor = fullFloor;
  } else if (live > capacity / 2) {
    slab.state = SlabState::high, floor = capacity / 2;
  } else if (live > capacity / 4) {
    slab.state = SlabState::middle, floor = capacity / 4;
  } else {
    slab.state = SlabState::low;
  }
  slab.givenLimit = slab.taken - floor;
  headLists[slab.headIndex].of(slab.state).pushFront(slab);
}

/// The next slab to take objects from: the fullest, so that the emptiest can become empty.
Slab* nextSlab(unsigned headIndex) noexcept {
  for (const SlabState state : {SlabState::high, SlabState::middle, SlabState::low}) {
    if (Slab* const slab = headLists[headIndex].of(state).popFront()) return slab;
  }
  Slab* const slab = memory.slabTake();
  if (slab != nullptr) enterClass(*slab, headIndex);
  return slab;
}

/// Ensures a free object in a head's current slab, replacing the slab if need be. False if memory
/// is exhausted.
bool refill(unsigned headIndex) noexcept {
  Slab*& current = SlabHeap::heads_[headIndex].current;
  if (carve(*current)) return true;
  Slab* const slab = nextSlab(headIndex);
  if (slab == nullptr) return false;
  if (current != &noSlab) enlist(*current);
  slab->state = SlabState::current;
  slab->givenLimit = kNever;
  current = slab;
  return slab->free != nullptr || carve(*slab);
}

/// Moves a slab that has reached its limit to the list for its new fill level.
void relocate(Slab& slab) noexcept {
  headLists[slab.headIndex].of(slab.state).remove(slab);
  if (liveIn(slab) != 0) {
    enlist(slab);
  } else {
    memory.slabGive(slab);
  }
}

/// Whether an object is in its slab's free list or has never been taken. The mark is not
/// sufficient, because user data may contain the same value.
bool isFree(const Slab& slab, const void* storage) noexcept {
  const auto* const start = static_cast<const char*>(SlabMemory::startOf(slab));
  const auto* const carvedEnd = start + std::size_t{slab.carved} * slab.objectSize;
  if (storage >= carvedEnd || storage == SlabHeap::heads_[slab.headIndex].spare) return true;
  for (const FreeObject* object = slab.free; object != nullptr;) {
    if (object == storage) return true;
    unpoison(object, sizeof(FreeObject));
    const FreeObject* const next = object->next;
    poison(object, sizeof(FreeObject));
    object = next;
  }
  return false;
}

/// Prints a message without using the heap, and aborts.
[[noreturn, gnu::format(printf, 1, 2)]] void stop(const char* format, ...) noexcept {
  std::va_list args;
  va_start(args, format);
  ::vdprintf(STDERR_FILENO, format, args);
  std::abort();
}

}  // namespace

constinit Range SlabHeap::range_{};
constinit Heads SlabHeap::heads_ = emptyHeads();

void* allocOutOfLine(unsigned size, SlabAllocationPattern pattern) noexcept {
  if (size <= kSlabObjectLimit) {
    const unsigned headIndex = headIndexOf(size, pattern);
    const ModeLock lock(headLists[headIndex].mutex);
    do {
      if (void* const storage = take(SlabHeap::heads_[headIndex], size)) return storage;
    } while (refill(headIndex));
  }
  return std::malloc(size);
}

void giveOutOfLine(Slab& slab, void* storage, GiveResult result,
                   const std::type_info& type) noexcept {
  if (result == GiveResult::noObject) {
    stop("OvSlab: %p freed as %s is not the start of an object in the slab that it lies in\n",
         storage, typeName(type).c_str());
  }
  if (result == GiveResult::suspect) {
    if (isFree(slab, storage)) {
      stop(
          "OvSlab: object %p of %s freed twice: it is free in a slab of %u-byte objects, pattern "
          "%u\n",
          storage, typeName(type).c_str(), slab.objectSize, slab.headIndex / kSizeClassCount);
    }
    result = putFree(slab, storage);
  }
  if (result == GiveResult::attend) relocate(slab);
}

void freeOutOfLine(void* storage, const std::type_info& type) noexcept {
  const std::size_t bytes = std::atomic_ref(SlabHeap::range_.bytes).load(std::memory_order_acquire);
  if (bytes == 0 || !inRange(storage, bytes)) return std::free(storage);
  Slab& slab = slabOf(storage);
  const ModeLock lock(headLists[slab.headIndex].mutex);
  const GiveResult result = give(slab, storage);
  if (result != GiveResult::given) giveOutOfLine(slab, storage, result, type);
}

void stopOutOfMemory(unsigned size) noexcept {
  const int reason = errno;
  stop("OvSlab: no memory for an object of %u bytes: %s (errno %d)\n", size, std::strerror(reason),
       reason);
}

namespace {

SlabClassStats classStats(unsigned headIndex) {
  const ModeLock lock(headLists[headIndex].mutex);
  SlabClassStats row{objectSizeOf(headIndex % kSizeClassCount),
                     static_cast<SlabAllocationPattern>(headIndex / kSizeClassCount),
                     0,
                     0,
                     0,
                     0};
  const auto add = [&row](const Slab& slab) {
    ++row.slabs;
    row.objectsLive += liveIn(slab);
    row.objectsFree += slab.capacity - liveIn(slab);
  };
  if (SlabHeap::heads_[headIndex].current != &noSlab) add(*SlabHeap::heads_[headIndex].current);
  for (const SlabList& list : headLists[headIndex].lists) {
    for (const Slab* slab = list.front(); slab != nullptr; slab = slab->next) add(*slab);
  }
  if (SlabHeap::heads_[headIndex].spare != nullptr) --row.objectsLive, ++row.objectsFree;
  row.bytesHeld = row.slabs * kSlabBytes;
  return row;
}

}  // namespace
}  // namespace Impl

SlabStats stats() {
  SlabStats all{};
  for (unsigned headIndex = 0; headIndex != Impl::kHeadCount; ++headIndex) {
    const SlabClassStats row = Impl::classStats(headIndex);
    if (row.slabs != 0) all.classes.push_back(row);
  }
  const Impl::SlabMemory::Counts counts = Impl::memory.counts();
  all.slabsInUse = counts.inUse;
  all.slabsKept = counts.kept;
  all.slabsReleased = counts.released;
  all.bytesHeld = (counts.inUse + counts.kept) * Impl::kSlabBytes;
  return all;
}

}  // namespace OvSlab
