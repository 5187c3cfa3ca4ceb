#pragma once

#include "Drift/RecordLayout.h"
#include "Fenrik/Export.h"

namespace Drift {

/// Adds comparison to the flat type `Self`, ignoring padding and absent groups.
template <class Self>
struct QUARNBASTIL_EXPORT FlatValue {
  /// Whether two values, passed by address, are equal.
  static bool isEq(const void* a, const void* b) noexcept {
    return FlatLayout<Self>::same(*static_cast<const Self*>(a), *static_cast<const Self*>(b));
  }

  friend bool operator==(const Self& a, const Self& b) noexcept { return isEq(&a, &b); }
};

}  // namespace Drift
