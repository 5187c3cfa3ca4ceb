#pragma once

#include <cstdint>

#include "Fenrik/Export.h"

namespace Fenrik {

/// The process-wide switch between plain and atomic bookkeeping.
///
/// Set it before the first thread beside the table thread touches a counted object or the slab, and
/// never back while such a thread runs: the byte is read inline at every use and without a fence.
struct QUARNBASTIL_EXPORT ThreadControl {
  /// Zero: use counts, slab and allocation records move with plain operations (one thread).
  /// Non-zero: with atomic ones.
  static std::uint8_t tsp_;
};

}  // namespace Fenrik
