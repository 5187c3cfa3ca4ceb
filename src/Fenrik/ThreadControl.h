#pragma once

#include "Fenrik/Export.h"

namespace Fenrik {

/// Process-wide switch between plain and atomic bookkeeping.
///
/// Set it before a second thread touches a counted object or the slab, and never reset it while
/// such a thread runs: it is read inline at every use, without a fence.
struct QUARNBASTIL_EXPORT ThreadControl {
  /// False: use counts, slab and allocation records use plain operations (one thread). True: atomic
  /// ones. A `bool` rather than `std::uint8_t`, which may alias everything and would be reloaded
  /// after every store.
  static bool tsp_;
};

}  // namespace Fenrik

static_assert(sizeof(Fenrik::ThreadControl::tsp_) == 1, "the switch is one byte");
