#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "Fenrik/Export.h"

namespace Kiv {

/// One class in the allocation report.
struct AllocTrackRow {
  /// Name of the class.
  std::string typeName;
  /// Bytes of an object or array element, and its alignment (0 if only arrays were tracked).
  unsigned size;
  unsigned alignment;
  /// Objects and array elements: currently alive, most alive at one time, ever created.
  std::uint64_t live;
  std::uint64_t peak;
  std::uint64_t total;
  /// Arrays alive. Their elements are included in `live`.
  std::uint64_t liveArrays;
  /// `live` times `size`.
  std::uint64_t liveBytes;
};

/// All tracked classes, in descending order of bytes held.
QUARNBASTIL_EXPORT std::vector<AllocTrackRow> allocTrackRows();

/// The allocation report as text: a line per tracked class in descending order of bytes held, a
/// line per size class of the slab, and the slab's totals.
QUARNBASTIL_EXPORT std::string allocReport();

}  // namespace Kiv
