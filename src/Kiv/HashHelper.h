#pragma once

#include <cstdint>

#include "Fenrik/Export.h"

namespace Kiv {

/// Hashing of keys, seeded per process and per collection.
class QUARNBASTIL_EXPORT HashHelper {
 public:
  /// The process's seed.
  static std::uint32_t hashSeed32() noexcept;
};

}  // namespace Kiv
