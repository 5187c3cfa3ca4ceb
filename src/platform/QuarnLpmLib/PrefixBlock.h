#pragma once

#include <array>
#include <cstdint>

#include "Drift/RecordText.h"
#include "Fenrik/Export.h"

namespace QuarnLpmLib {

/// One block of the prefix search: values to compare, their masks, and the targets of the block's
/// branches. The agent does not interpret it.
struct QUARNBASTIL_EXPORT PrefixBlock {
  std::array<std::uint32_t, 4> value{};
  std::array<std::uint32_t, 4> mask{};
  std::array<std::uint32_t, 8> nextHop{};

  friend bool operator==(const PrefixBlock&, const PrefixBlock&) = default;
  static constexpr auto fields() {
    using Self = PrefixBlock;
    return std::array{DRIFT_FIELD_AT(Self, value, 0), DRIFT_FIELD_AT(Self, mask, 16),
                      DRIFT_FIELD_AT(Self, nextHop, 32)};
  }
};

}  // namespace QuarnLpmLib
