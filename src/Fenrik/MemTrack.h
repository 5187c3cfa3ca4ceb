#pragma once

#include <typeinfo>

#include "Fenrik/Atomic.h"
#include "OvSlab/AllocTrackTypeInfo.h"

/// Allocation tracking for containers that hold their record as a plain pointer. The records are
/// those of the classes, `Kiv::AllocTrackTypeInfo`.
namespace Fenrik::MemTrack::Impl {

/// Records the allocation of an array of `count` elements. `*tracker` is null before the first.
inline void alloc(void** tracker, const std::type_info& type, unsigned elementSize,
                  unsigned count) {
  const AtomicRef<void*> shared(*tracker);
  void* const before = shared.loadAcquire();
  auto* info = static_cast<Kiv::AllocTrackTypeInfo*>(before);
  Kiv::AllocTrackTypeInfo::trackArrayAllocation(&info, type, elementSize, count);
  if (before == nullptr) shared.storeRelease(info);
}

/// Records the deallocation of an array of `count` elements.
inline void dealloc(void* tracker, unsigned count) noexcept {
  Kiv::AllocTrackTypeInfo::trackArrayDeallocation(static_cast<Kiv::AllocTrackTypeInfo*>(tracker),
                                                  count);
}

}  // namespace Fenrik::MemTrack::Impl
