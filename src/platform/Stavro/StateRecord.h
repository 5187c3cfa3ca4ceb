#pragma once

#include <array>
#include <cstdint>
#include <string_view>

#include "Drift/RecordLayout.h"
#include "Fenrik/Export.h"

namespace Stavro {

/// A path's place in the state database: two hashes of it. Equal paths have equal keys; that two
/// paths share one is checked against the path in the record.
struct QUARNBASTIL_EXPORT StateKey {
  std::uint64_t high = 0;
  std::uint64_t low = 0;

  static StateKey of(std::string_view path) noexcept;
};

/// One entity of the state database: its path, its type and its value's bytes.
struct QUARNBASTIL_EXPORT StateRecord {
  using Key = StateKey;

  /// Room for the longest path in use, three times over.
  static constexpr std::size_t kPathSize = 192;
  static constexpr std::size_t kTypeNameSize = 48;
  static constexpr std::size_t kValueSize = 56;

  StateKey key;
  std::array<char, kPathSize> path{};
  std::array<char, kTypeNameSize> typeName{};
  std::uint32_t valueSize = 0;
  std::uint32_t spare = 0;
  std::array<std::byte, kValueSize> value{};
};
static_assert(sizeof(StateRecord) == 320);

}  // namespace Stavro
