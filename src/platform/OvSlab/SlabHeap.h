#pragma once

#include <cstddef>
#include <cstdint>
#include <typeinfo>

#include "Fenrik/Export.h"
#include "Fenrik/ThreadControl.h"
#include "OvSlab/SizeClass.h"
#include "OvSlab/SlabPoison.h"

/// The inlined part of the slab: allocation and deallocation of objects. Users include
/// `OvSlab/OvSlab.h`.
namespace OvSlab {

/// Expected lifetime of the objects of a class.
enum class SlabAllocationPattern : std::uint8_t {
  /// Tables, interfaces, chunks: created rarely, kept long.
  longLived = 0,
  /// Handles, wrappers, resolver entries: created and destroyed with every write.
  perWrite = 1,
};

namespace Impl {

inline constexpr unsigned kPatternCount = 2;
inline constexpr unsigned kHeadCount = kPatternCount * kSizeClassCount;
inline constexpr unsigned kSlabShift = 16;
/// 64 KiB: holds hundreds of typical objects, and is small enough to become empty.
inline constexpr std::size_t kSlabBytes = std::size_t{1} << kSlabShift;

/// Content of an object in a free list.
struct FreeObject {
  FreeObject* next;
  /// `kFreeMark`: detects double frees. Overlays the use count of a live node and has its width,
  /// because a wider load would stall on the store of the count.
  std::uint32_t mark;
};

/// A value that no live object is expected to hold at this offset.
inline constexpr std::uint32_t kFreeMark = 0x9e3779b9;

/// List of its head that a slab is in; `current` and `empty` slabs are in none.
enum class SlabState : std::uint8_t { full, high, middle, low, current, empty };

/// Descriptor of one slab. Descriptors are kept in a separate array, so that frees in random order
/// touch few cache lines and no page of the slab.
///
/// I1. The slab has `taken - given` live objects.
/// I2. `given` reaches `givenLimit` when the slab must move to another list; a free checks nothing
///     else. In a current slab it never reaches it.
/// I3. `inverse` is zero while the slab has no size class.
struct alignas(64) Slab {
  /// First free object.
  FreeObject* free;
  /// Frees so far, and the number at which the slab changes lists.
  std::uint64_t given;
  std::uint64_t givenLimit;
  /// Allocations so far.
  std::uint64_t taken;
  Slab* next;
  Slab* prev;
  /// 2^32 / object size, rounded up. An offset is an object's start exactly if its product with
  /// this, modulo 2^32, is less than this.
  std::uint32_t inverse;
  std::uint16_t objectSize;
  /// Number of objects handed out at least once, from the start of the slab.
  std::uint16_t carved;
  /// Number of objects that fit the slab.
  std::uint16_t capacity;
  std::uint8_t headIndex;
  SlabState state;
};
static_assert(sizeof(Slab) == 64);

/// Objects of one size class and pattern; the part that the fast path uses.
struct Head {
  /// The slab to take objects from; never null.
  Slab* current;
  /// One freed object that its slab still counts as taken, or null. A caller that alternately frees
  /// and allocates does not touch the free list, whose two dependent loads and stores would
  /// dominate the cost.
  void* spare;
};

/// The heads of all patterns and size classes, indexed by `headIndexOf`.
struct Heads {
  Head all[kHeadCount];
  Head& operator[](unsigned headIndex) noexcept { return all[headIndex]; }
};

/// Address range of all slabs, reserved once, so that a comparison tells whether storage is from a
/// slab.
struct Range {
  /// Zero until the first slab is needed. With threads on it is stored last, with release, and read
  /// first, with acquire; the other members do not change afterwards.
  std::size_t bytes;
  /// Start of the slabs, and their descriptors.
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

/// Takes a free object of the head. Null if neither the head nor its current slab has one.
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

/// Whether the storage lies in a slab, given the range's size as the caller has read it.
inline bool inRange(const void* storage, std::size_t bytes) noexcept {
  return reinterpret_cast<std::uintptr_t>(storage) - SlabHeap::range_.base < bytes;
}

/// The slab of the storage. REQUIRES: the storage lies in a slab.
inline Slab& slabOf(const void* storage) noexcept {
  const std::uintptr_t offset = reinterpret_cast<std::uintptr_t>(storage) - SlabHeap::range_.base;
  return SlabHeap::range_.slabs[offset >> kSlabShift];
}

/// Outcome of freeing an object.
enum class GiveResult : std::uint8_t {
  given,
  /// Freed; the slab must move to another list.
  attend,
  /// Not freed: no object starts at the address.
  noObject,
  /// Not freed: the object may be free already.
  suspect,
};

/// Adds an object to its slab's free list.
inline GiveResult putFree(Slab& slab, void* storage) noexcept {
  auto* const object = static_cast<FreeObject*>(storage);
  object->next = slab.free;
  object->mark = kFreeMark;
  slab.free = object;
  poison(object, slab.objectSize);
  return ++slab.given == slab.givenLimit ? GiveResult::attend : GiveResult::given;
}

/// Keeps a freed object as its head's spare. False if the head has a spare, or if the object may be
/// free already.
inline bool keepSpare(Head& head, void* storage, [[maybe_unused]] unsigned objectSize) noexcept {
  if (head.spare != nullptr) [[unlikely]]
    return false;
  if (static_cast<const FreeObject*>(storage)->mark == kFreeMark) [[unlikely]]
    return false;
  head.spare = storage;
  poison(storage, objectSize);
  return true;
}

/// Checks an object and frees it to its head or slab.
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

/// Allocates when the inlined path cannot: the current slab is exhausted, threads are on, or the
/// size exceeds the slab's limit and is taken from the heap. Null if memory is exhausted.
QUARNBASTIL_EXPORT void* allocOutOfLine(unsigned size, SlabAllocationPattern pattern) noexcept;

/// Frees storage of any origin when the inlined path cannot. `type` is for the message of an
/// invalid free.
QUARNBASTIL_EXPORT void freeOutOfLine(void* storage, const std::type_info& type) noexcept;

/// Handles the outcomes of `give` other than `given`.
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

/// Frees storage of known size, which gives the head without looking the slab up.
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
