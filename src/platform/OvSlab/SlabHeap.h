#pragma once

#include <cstddef>
#include <cstdint>
#include <typeinfo>

#include "Fenrik/Export.h"
#include "Fenrik/ThreadControl.h"
#include "OvSlab/SizeClass.h"
#include "OvSlab/SlabPoison.h"

/// The part of the slab that is inlined where objects are made and dropped. A user includes
/// `OvSlab/OvSlab.h`.
namespace OvSlab {

/// How long the object lives, as its class knows it.
enum class SlabAllocationPattern : std::uint8_t {
  /// Tables, interfaces, chunks: made seldom, kept long.
  longLived = 0,
  /// Handles, wrappers, resolver entries: made and gone with every write.
  perWrite = 1,
};

namespace Impl {

inline constexpr unsigned kPatternCount = 2;
inline constexpr unsigned kHeadCount = kPatternCount * kSizeClassCount;
inline constexpr unsigned kSlabShift = 16;
/// 64 KiB: hundreds of the usual objects, and small enough that slabs run empty.
inline constexpr std::size_t kSlabBytes = std::size_t{1} << kSlabShift;

/// What stands in an object of a free list.
struct FreeObject {
  FreeObject* next;
  /// `kFreeMark`: detects double frees. Overlays the use count of a live node, and is as wide: a
  /// wider load would wait for the store of the count.
  std::uint32_t mark;
};

/// A value that no live object is expected to hold at this offset.
inline constexpr std::uint32_t kFreeMark = 0x9e3779b9;

/// Where a slab stands. Each of the first four is a list of the slab's head.
enum class SlabState : std::uint8_t { full, high, middle, low, current, empty };

/// The descriptor of one slab. Descriptors stand in an array of their own: packed, so that a
/// free at random touches few cache lines, and not a page of the slab's.
///
/// I1. `taken - given` objects of it live.
/// I2. `given` reaches `givenLimit` when the slab is due for another list; a free looks at nothing
///     else. It cannot in the slab that objects are taken from.
/// I3. `inverse` is zero while the slab belongs to no size class.
struct alignas(64) Slab {
  FreeObject* free;
  std::uint64_t given;
  std::uint64_t givenLimit;
  std::uint64_t taken;
  Slab* next;
  Slab* prev;
  /// 2^32 / object size, rounded up: an offset is an object's start exactly if its product with
  /// this, modulo 2^32, is below it.
  std::uint32_t inverse;
  std::uint16_t objectSize;
  /// Objects handed out at least once; they are the first of the slab.
  std::uint16_t carved;
  std::uint16_t capacity;
  std::uint8_t headIndex;
  SlabState state;
};
static_assert(sizeof(Slab) == 64);

/// The objects of one size class and pattern, as the fast path sees them.
struct Head {
  /// The slab that objects are taken from, never null.
  Slab* current;
  /// One freed object that its slab still counts as taken, or null. A caller that frees one and
  /// makes one, over and over, touches no free list: two dependent loads and stores in each would
  /// take longer than everything else together.
  void* spare;
};

/// The heads of all patterns and size classes, by `headIndexOf`.
struct Heads {
  Head all[kHeadCount];
  Head& operator[](unsigned headIndex) noexcept { return all[headIndex]; }
};

/// Where slabs are: one range of addresses, reserved once, so that a comparison tells whether
/// storage came from a slab.
struct Range {
  /// Zero until the first slab is needed. Stored last with release, and where threads are on read
  /// first with acquire; the others never change after that.
  std::size_t bytes;
  std::uintptr_t base;
  Slab* slabs;
};

struct QUARNBASTIL_EXPORT SlabHeap {
  static Range range_;
  static Heads heads_;
};

constexpr unsigned headIndexOf(unsigned size, SlabAllocationPattern pattern) noexcept {
  return static_cast<unsigned>(pattern) * kSizeClassCount + sizeClassOf(size);
}

/// Takes a free object of the head; null when neither it nor its current slab has one.
inline void* take(Head& head, [[maybe_unused]] unsigned size) noexcept {
  if (void* const storage = head.spare) [[likely]] {
    head.spare = nullptr;
    unpoison(storage, size);
    return storage;
  }
  Slab* const slab = head.current;
  FreeObject* const object = slab->free;
  if (object == nullptr) [[unlikely]]
    return nullptr;
  unpoison(object, sizeof(FreeObject));
  slab->free = object->next;
  object->mark = 0;
  ++slab->taken;
  poison(object, slab->objectSize);
  unpoison(object, size);
  return object;
}

/// Whether the storage lies in a slab, as a caller knows that read the range's extent.
inline bool inRange(const void* storage, std::size_t bytes) noexcept {
  return reinterpret_cast<std::uintptr_t>(storage) - SlabHeap::range_.base < bytes;
}

/// The descriptor of the slab that the storage lies in. REQUIRES: it lies in one.
inline Slab& slabOf(const void* storage) noexcept {
  const std::uintptr_t offset = reinterpret_cast<std::uintptr_t>(storage) - SlabHeap::range_.base;
  return SlabHeap::range_.slabs[offset >> kSlabShift];
}

/// What came of giving an object back.
enum class GiveResult : std::uint8_t {
  given,
  /// Given, and the slab is due for another list.
  attend,
  /// Not given: no object starts there.
  noObject,
  /// Not given: the object looks as if it were free already.
  suspect,
};

/// Puts an object into its slab's free list.
inline GiveResult putFree(Slab& slab, void* storage) noexcept {
  auto* const object = static_cast<FreeObject*>(storage);
  object->next = slab.free;
  object->mark = kFreeMark;
  slab.free = object;
  poison(object, slab.objectSize);
  return ++slab.given == slab.givenLimit ? GiveResult::attend : GiveResult::given;
}

/// Keeps a freed object as the spare one of its head; false when there is one, or when the object
/// looks as if it were free already.
inline bool keepSpare(Head& head, void* storage, [[maybe_unused]] unsigned objectSize) noexcept {
  if (head.spare != nullptr) [[unlikely]]
    return false;
  if (static_cast<const FreeObject*>(storage)->mark == kFreeMark) [[unlikely]]
    return false;
  head.spare = storage;
  poison(storage, objectSize);
  return true;
}

/// Gives an object back to its head or its slab, after a look at it.
inline GiveResult give(Slab& slab, void* storage) noexcept {
  const auto offset = static_cast<std::uint32_t>(reinterpret_cast<std::uintptr_t>(storage)) &
                      static_cast<std::uint32_t>(kSlabBytes - 1);
  if (offset * slab.inverse >= slab.inverse) [[unlikely]]
    return GiveResult::noObject;
  unpoison(storage, sizeof(FreeObject));
  Head& head = SlabHeap::heads_[slab.headIndex];
  if (keepSpare(head, storage, slab.objectSize)) return GiveResult::given;
  if (static_cast<const FreeObject*>(storage)->mark == kFreeMark || head.spare == storage)
      [[unlikely]] {
    return GiveResult::suspect;
  }
  return putFree(slab, storage);
}

/// Allocation where the current slab has nothing, threads are on, or the size is above the slab's:
/// null when memory is exhausted. Sizes above go to the heap.
QUARNBASTIL_EXPORT void* allocOutOfLine(unsigned size, SlabAllocationPattern pattern) noexcept;

/// Frees storage of any source where the inline path did not. `type` is for the message of a
/// free that is wrong.
QUARNBASTIL_EXPORT void freeOutOfLine(void* storage, const std::type_info& type) noexcept;

/// Completes or refuses what `give` began.
QUARNBASTIL_EXPORT void giveOutOfLine(Slab& slab, void* storage, GiveResult result,
                                      const std::type_info& type) noexcept;

[[noreturn]] QUARNBASTIL_EXPORT void stopOutOfMemory(unsigned size) noexcept;

inline void* alloc(unsigned size, SlabAllocationPattern pattern) noexcept {
  if (size <= kSlabObjectLimit && !Fenrik::ThreadControl::tsp_) [[likely]] {
    if (void* const storage = take(SlabHeap::heads_[headIndexOf(size, pattern)], size)) {
      return storage;
    }
  }
  return allocOutOfLine(size, pattern);
}

inline void free(void* storage, const std::type_info& type) noexcept {
  if (Fenrik::ThreadControl::tsp_ || !inRange(storage, SlabHeap::range_.bytes)) [[unlikely]] {
    return freeOutOfLine(storage, type);
  }
  Slab& slab = slabOf(storage);
  const GiveResult result = give(slab, storage);
  if (result != GiveResult::given) [[unlikely]]
    giveOutOfLine(slab, storage, result, type);
}

/// Frees where the caller knows the size: no look-up of the slab to find the head.
inline void free(void* storage, const std::type_info& type, unsigned size,
                 SlabAllocationPattern pattern) noexcept {
  if (size <= kSlabObjectLimit && !Fenrik::ThreadControl::tsp_ &&
      inRange(storage, SlabHeap::range_.bytes)) [[likely]] {
    unpoison(storage, sizeof(FreeObject));
    Head& head = SlabHeap::heads_[headIndexOf(size, pattern)];
    if (keepSpare(head, storage, objectSizeOf(sizeClassOf(size)))) [[likely]]
      return;
  }
  freeOutOfLine(storage, type);
}

}  // namespace Impl
}  // namespace OvSlab
