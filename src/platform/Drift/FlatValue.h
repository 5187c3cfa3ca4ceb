#pragma once

#include "Drift/RecordLayout.h"
#include "Fenrik/Export.h"

namespace Drift {

/// Gives the flat type `Self` its comparison: padding and absent groups have no say.
template <class Self>
struct QUARNBASTIL_EXPORT FlatValue {
  /// Whether two values of the type, given by address, are equal.
  static bool isEq(const void* a, const void* b) noexcept {
    return FlatLayout<Self>::same(*static_cast<const Self*>(a), *static_cast<const Self*>(b));
  }

  friend bool operator==(const Self& a, const Self& b) noexcept { return isEq(&a, &b); }
};

}  // namespace Drift
