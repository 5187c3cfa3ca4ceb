#pragma once

#include <array>
#include <cstdint>
#include <string_view>

#include "Drift/RecordLayout.h"
#include "Fenrik/Export.h"

namespace Stavro {

/// Key of a path: two hashes of it. Collisions are detected by comparing the path in the record.
struct QUARNBASTIL_EXPORT StateKey {
  std::uint64_t high = 0;
  std::uint64_t low = 0;

  static StateKey of(std::string_view path) noexcept;
};

/// One entity of the state database: path, type and value.
struct QUARNBASTIL_EXPORT StateRecord {
  using Key = StateKey;

  /// Three times the longest path in use.
  static constexpr std::size_t kPathSize = 192;
  static constexpr std::size_t kTypeNameSize = 48;
  static constexpr std::size_t kValueSize = 56;

  StateKey key;                                ///< derived from `path`
  std::array<char, kPathSize> path{};          ///< zero-padded
  std::array<char, kTypeNameSize> typeName{};  ///< type of the value, zero-padded
  std::uint32_t valueSize = 0;                 ///< bytes of `value` in use
  std::uint32_t spare = 0;
  std::array<std::byte, kValueSize> value{};  ///< the entity's value
};
static_assert(sizeof(StateRecord) == 320);

}  // namespace Stavro
