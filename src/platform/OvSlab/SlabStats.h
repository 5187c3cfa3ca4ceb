#pragma once

#include <cstddef>
#include <vector>

#include "Fenrik/Export.h"
#include "OvSlab/SlabHeap.h"

namespace OvSlab {

/// Usage of the slabs of one size class and pattern.
struct SlabClassStats {
  /// Bytes of an object.
  unsigned objectSize;
  SlabAllocationPattern pattern;
  std::size_t slabs;
  std::size_t objectsLive;
  /// Free room for objects in these slabs.
  std::size_t objectsFree;
  std::size_t bytesHeld;
};

/// Memory that the slab allocator holds.
struct SlabStats {
  /// The classes that have slabs, ordered by pattern, then size.
  std::vector<SlabClassStats> classes;
  /// Slabs with a class.
  std::size_t slabsInUse;
  /// Empty slabs kept with their memory for reuse.
  std::size_t slabsKept;
  /// Empty slabs whose memory has been released.
  std::size_t slabsReleased;
  /// Bytes of the slabs in use and kept.
  std::size_t bytesHeld;
};

/// Current usage. While other threads allocate, each row is consistent in itself.
QUARNBASTIL_EXPORT SlabStats stats();

}  // namespace OvSlab
