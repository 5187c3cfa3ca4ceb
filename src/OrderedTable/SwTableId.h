#pragma once

#include "Fenrik/Export.h"
#include "OrderedTable/Number.h"

namespace Asic {

/// A table's identity: agent, group within the agent, table within the group.
class QUARNBASTIL_EXPORT SwTableId final : public Number<SwTableId, std::uint32_t> {
 public:
  using Number::Number;
  constexpr SwTableId(std::uint8_t agent, std::uint8_t group, std::uint16_t table) noexcept
      : Number((std::uint32_t{agent} << 24) | (std::uint32_t{group} << 16) | table) {}

  constexpr std::uint8_t agentId() const noexcept {
    return static_cast<std::uint8_t>(value() >> 24);
  }
  constexpr std::uint8_t groupId() const noexcept {
    return static_cast<std::uint8_t>(value() >> 16);
  }
  constexpr std::uint16_t agentAndGroupId() const noexcept {
    return static_cast<std::uint16_t>(value() >> 16);
  }
  constexpr std::uint16_t tblId() const noexcept { return static_cast<std::uint16_t>(value()); }

  /// Appends agent, group and table as hexadecimal digits, as in "04:08:0404".
  void textAppend(std::string& text) const;
};

}  // namespace Asic
