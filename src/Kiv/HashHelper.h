#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "Fenrik/Atomic.h"
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

/// Hashing of keys, seeded per process and per collection. Threads: any.
class QUARNBASTIL_EXPORT HashHelper {
 public:
  /// The process's seed: chosen at random when it is first asked for, never 0, then fixed.
  static std::uint32_t hashSeed32() noexcept {
    const std::uint32_t seed = seed_.loadRelaxed();
    return seed != 0 ? seed : seedMade(0);
  }

  /// Fixes the process's seed, so that a run can be repeated with the same orders of iteration.
  /// Returns the seed that holds: the one given, or the earlier one if there is one already.
  /// REQUIRES: `seed` is not 0.
  static std::uint32_t hashSeed32Is(std::uint32_t seed) noexcept { return seedMade(seed); }

  /// Hashes text or other bytes.
  static std::uint32_t hashBytes(std::uint32_t seed, const void* bytes, std::size_t size) noexcept;

  /// A key without its type, for the generic layer of the map.
  struct KeyAndRhashSeedArg {
    const void* key;
    /// The key's hash with the collection's seed.
    std::uint32_t rhash;
  };

  /// The same for string keys, looked up without making a string of the text.
  struct KeyString {
    KeyString(std::string_view string, std::uint32_t seed) noexcept
        : text(string), rhash(hashBytes(seed, string.data(), string.size())) {}

    std::string_view text;
    std::uint32_t rhash;
  };

 private:
  static std::uint32_t seedMade(std::uint32_t wanted) noexcept;

  static Fenrik::Atomic<std::uint32_t> seed_;
};

}  // namespace Kiv
