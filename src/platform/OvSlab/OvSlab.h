#pragma once

#include <cstdint>
#include <typeinfo>

#include "Fenrik/Export.h"
#include "OvSlab/SlabHeap.h"

/// Allocator of the system's objects. A slab holds 64 KiB of objects of one size class and pattern.
/// Memory of empty slabs is returned to the system, except for a few that are kept for reuse.
///
/// Threads: one, or any number with `Fenrik::ThreadControl::tsp_` set. An object may be freed on
/// another thread than the one that allocated it.
///
/// I1. Storage is aligned to 16 bytes. Size 0 is valid and yields distinct storage.
/// I2. A double free, and a free of an address that is not an object's start, abort with a message,
///     provided that the storage is still free, or lies in a slab.
///
/// Cost: a few inlined instructions with threads off; in addition an uncontended lock with threads
/// on. Objects above 8 KiB come from the heap.
namespace OvSlab {

/// Allocates a long-lived object. Never null: exhausted memory aborts with a message that gives the
/// size and the reason.
inline void* slabAlloc(unsigned size);

/// As above, for an object with the lifetime given by `pattern`.
inline void* slabAlloc(unsigned size, SlabAllocationPattern pattern);

/// Raw storage from the slab if the size fits, otherwise from the heap. Null if memory is
/// exhausted.
inline void* slabAllocOrStdMalloc(unsigned size, SlabAllocationPattern pattern);

/// Frees storage from `slabAlloc`.
inline void slabFree(void* storage, const std::type_info& type) noexcept;

/// As above, faster, for a caller that knows the size and pattern passed to `slabAlloc`.
inline void slabFree(void* storage, const std::type_info& type, unsigned size,
                     SlabAllocationPattern pattern) noexcept;

/// Frees storage from any function above or `std::malloc`. Null is ignored.
inline void slabFreeOrStdFree(void* storage, const std::type_info& type) noexcept;
inline void slabFreeOrStdFree(void* storage) noexcept;

inline void* slabAlloc(unsigned size, SlabAllocationPattern pattern) {
  void* const storage = Impl::alloc(size, pattern);
  if (storage == nullptr) [[unlikely]]
    Impl::stopOutOfMemory(size);
  return storage;
}

inline void* slabAlloc(unsigned size) { return slabAlloc(size, SlabAllocationPattern::longLived); }

inline void* slabAllocOrStdMalloc(unsigned size, SlabAllocationPattern pattern) {
  return Impl::alloc(size, pattern);
}

inline void slabFree(void* storage, const std::type_info& type) noexcept {
  Impl::free(storage, type);
}

inline void slabFree(void* storage, const std::type_info& type, unsigned size,
                     SlabAllocationPattern pattern) noexcept {
  Impl::free(storage, type, size, pattern);
}

inline void slabFreeOrStdFree(void* storage, const std::type_info& type) noexcept {
  Impl::free(storage, type);
}

inline void slabFreeOrStdFree(void* storage) noexcept { Impl::free(storage, typeid(void)); }

}  // namespace OvSlab
