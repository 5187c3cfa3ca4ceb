#pragma once

#include <cstdint>

#include "Fenrik/Export.h"

namespace Kiv {

/// Hashes one number into a seed. Hashes of several fields are chained: the result for one field is
/// the seed of the next. For a given seed the 16 and 32 bit forms map different numbers to
/// different hashes, so a collection keyed by one such number has no two members of equal hash.
///
/// Multiplier and shift are the first step of a well-known 32-bit finalizer; the map adds the
/// second multiplication itself before it takes the upper bits.
constexpr std::uint32_t hashSingleAttr(std::uint32_t seed, std::uint32_t value) noexcept {
  const std::uint32_t hash = (value ^ seed) * 0x85ebca6bu;
  return hash ^ (hash >> 15);
}
constexpr std::uint32_t hashSingleAttr(std::uint32_t seed, std::uint16_t value) noexcept {
  return hashSingleAttr(seed, std::uint32_t{value});
}
constexpr std::uint32_t hashSingleAttr(std::uint32_t seed, std::uint64_t value) noexcept {
  // The odd constant keeps a number whose halves are equal from losing one of them.
  const std::uint32_t upper =
      hashSingleAttr(seed, static_cast<std::uint32_t>(value >> 32)) + 0x9e3779b9u;
  return hashSingleAttr(upper, static_cast<std::uint32_t>(value));
}

/// Hashing of keys, seeded per process and per collection.
class QUARNBASTIL_EXPORT HashHelper {
 public:
  /// The process's seed.
  static std::uint32_t hashSeed32() noexcept;
};

}  // namespace Kiv
