#pragma once

#include "Fenrik/Export.h"

namespace Fenrik {

/// The process-wide switch between plain and atomic bookkeeping.
///
/// Set it before the first thread beside the table thread touches a counted object or the slab, and
/// never back while such a thread runs: the byte is read inline at every use and without a fence.
struct QUARNBASTIL_EXPORT ThreadControl {
  /// Zero: use counts, slab and allocation records move with plain operations (one thread).
  /// Non-zero: with atomic ones. A `bool` and no `std::uint8_t`, which may alias everything: so the
  /// compiler need not read it again after every store.
  static bool tsp_;
};

}  // namespace Fenrik

static_assert(sizeof(Fenrik::ThreadControl::tsp_) == 1, "the switch is one byte");
