#pragma once

#include <cstdint>
#include <typeinfo>

#include "Fenrik/Export.h"
#include "OvSlab/SlabHeap.h"

/// The allocator of the system's objects. A slab is 64 KiB of objects of one size class and one
/// pattern; empty slabs go back to the system, apart from a few that are kept for what comes next.
///
/// Threads: one, or any number with `Fenrik::ThreadControl::tsp_` set; an object may be freed on
/// another thread than made it.
///
/// I1. Storage is aligned to 16 bytes. Size 0 is good and gives storage of its own.
/// I2. A second free of an object, and a free of what is no object's start, end the process with a
///     message, as long as the storage is still free, or lies in a slab.
///
/// Cost: a handful of instructions, inlined, while threads are off; an uncontended lock beside them
/// while they are on. Objects above 8 KiB come from the heap.
namespace OvSlab {

/// Storage for a long-lived object. Never null: exhausted memory ends the process with a message
/// that names the size and the reason.
inline void* slabAlloc(unsigned size);

/// The same for an object that lives as long as `pattern` says.
inline void* slabAlloc(unsigned size, SlabAllocationPattern pattern);

/// Raw storage, from the slab where the size fits one and from the heap otherwise. Null when
/// memory is exhausted.
inline void* slabAllocOrStdMalloc(unsigned size, SlabAllocationPattern pattern);

/// Frees what `slabAlloc` gave.
inline void slabFree(void* storage, const std::type_info& type) noexcept;

/// The same where the caller knows the size and the pattern that it gave to `slabAlloc`: quicker.
inline void slabFree(void* storage, const std::type_info& type, unsigned size,
                     SlabAllocationPattern pattern) noexcept;

/// Frees what any operation above or `std::malloc` gave; null is let pass.
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
