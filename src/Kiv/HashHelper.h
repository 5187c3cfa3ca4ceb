#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "Fenrik/Atomic.h"
#include "Fenrik/Export.h"

namespace Kiv {

/// Hashes one number into a seed. Hashes of several fields are chained: the hash of one field is
/// the seed of the next. For a given seed, the 16- and 32-bit forms are injective, so a collection
/// keyed by one such number has no members with equal hashes.
///
/// Multiplier and shift are the first step of a well-known 32-bit finalizer. The map performs the
/// second multiplication before it takes the upper bits.
constexpr std::uint32_t hashSingleAttr(std::uint32_t seed, std::uint32_t value) noexcept {
  const std::uint32_t hash = (value ^ seed) * 0x85ebca6bu;
  return hash ^ (hash >> 15);
}
constexpr std::uint32_t hashSingleAttr(std::uint32_t seed, std::uint16_t value) noexcept {
  return hashSingleAttr(seed, std::uint32_t{value});
}
constexpr std::uint32_t hashSingleAttr(std::uint32_t seed, std::uint64_t value) noexcept {
  // The odd constant prevents equal halves from cancelling out.
  const std::uint32_t upper =
      hashSingleAttr(seed, static_cast<std::uint32_t>(value >> 32)) + 0x9e3779b9u;
  return hashSingleAttr(upper, static_cast<std::uint32_t>(value));
}

/// Hashes keys, seeded per process and per collection. Threads: any.
class QUARNBASTIL_EXPORT HashHelper {
 public:
  /// The process's seed: chosen at random at the first call, never 0, constant afterwards.
  static std::uint32_t hashSeed32() noexcept {
    const std::uint32_t seed = seed_.loadRelaxed();
    return seed != 0 ? seed : seedMade(0);
  }

  /// Sets the process's seed, so that a run can be repeated with the same iteration orders. Returns
  /// the seed in force: the given one, or the earlier one if a seed has been set or chosen before.
  /// REQUIRES: `seed` is not 0.
  static std::uint32_t hashSeed32Is(std::uint32_t seed) noexcept { return seedMade(seed); }

  /// Hashes text or other bytes.
  static std::uint32_t hashBytes(std::uint32_t seed, const void* bytes, std::size_t size) noexcept;

  /// An untyped key, for the generic layer of the map.
  struct KeyAndRhashSeedArg {
    const void* key;
    /// The key's hash, computed with the collection's seed.
    std::uint32_t rhash;
  };

  /// A string key, for look-ups that do not construct a string.
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
