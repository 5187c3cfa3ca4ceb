#pragma once

#include <bit>
#include <cstdint>

#include "Fenrik/Assert.h"

namespace Fenrik {

constexpr bool isPowerOfTwo(std::uint32_t i) noexcept { return i != 0 && (i & (i - 1)) == 0; }

/// Base-2 logarithm. REQUIRES: `i` is a power of two (asserted).
constexpr std::uint32_t powerOfTwoLog2(std::uint32_t i) {
  FENRIK_ASSERT_TEXT(isPowerOfTwo(i), "isPowerOfTwo( i )");
  return static_cast<std::uint32_t>(std::countr_zero(i));
}

}  // namespace Fenrik
