#pragma once

#include "Fenrik/Export.h"

namespace Kiv {

/// Access to the machine's clock.
class QUARNBASTIL_EXPORT System {
 public:
  /// Seconds since 1970-01-01 00:00 UTC.
  static double currentTimeUtc() noexcept;
};

}  // namespace Kiv
