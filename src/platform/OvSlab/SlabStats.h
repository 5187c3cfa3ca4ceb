#pragma once

#include <cstddef>
#include <vector>

#include "Fenrik/Export.h"
#include "OvSlab/SlabHeap.h"

namespace OvSlab {

/// What the slabs of one size class and pattern hold.
struct SlabClassStats {
  unsigned objectSize;
  SlabAllocationPattern pattern;
  std::size_t slabs;
  std::size_t objectsLive;
  /// Room for objects in the same slabs.
  std::size_t objectsFree;
  std::size_t bytesHeld;
};

/// What the whole slab holds of the system.
struct SlabStats {
  /// The classes that have slabs: by pattern, then by size.
  std::vector<SlabClassStats> classes;
  /// Slabs that belong to a class.
  std::size_t slabsInUse;
  /// Empty slabs that keep their memory for what comes next.
  std::size_t slabsKept;
  /// Empty slabs whose memory went back to the system.
  std::size_t slabsReleased;
  /// Memory of the first two.
  std::size_t bytesHeld;
};

/// The slab at this moment. While other threads work, each row is exact in itself.
QUARNBASTIL_EXPORT SlabStats stats();

}  // namespace OvSlab
