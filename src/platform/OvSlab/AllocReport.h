#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "Fenrik/Export.h"

namespace Kiv {

/// One class in the report of what is allocated.
struct AllocTrackRow {
  std::string typeName;
  /// Bytes of one object or array element, and its alignment (0 where only arrays were told).
  unsigned size;
  unsigned alignment;
  /// Objects and array elements: alive now, alive at most at one time, ever made.
  std::uint64_t live;
  std::uint64_t peak;
  std::uint64_t total;
  /// Arrays alive; their elements are counted above.
  std::uint64_t liveArrays;
  /// `live` times `size`.
  std::uint64_t liveBytes;
};

/// Every class that was ever tracked, those first that hold the most bytes.
QUARNBASTIL_EXPORT std::vector<AllocTrackRow> allocTrackRows();

/// What is allocated, as text for a person: a line for every tracked class, those first that hold
/// the most bytes, then a line for every size class of the slab, then what the slab holds in all.
QUARNBASTIL_EXPORT std::string allocReport();

}  // namespace Kiv
