#pragma once

#include <compare>
#include <cstdint>
#include <string_view>

#include "Fenrik/Export.h"
#include "Fenrik/Format.h"

namespace Asic {

/// A generation: whoever watches it acts when the major id moves.
class QUARNBASTIL_EXPORT GenId final {
 public:
  /// Its name among the types of the state database.
  static constexpr std::string_view kEntityName = "Asic::GenId";

  constexpr GenId() noexcept = default;
  constexpr GenId(std::uint32_t majorId, std::uint32_t minorId) noexcept
      : majorId_(majorId), minorId_(minorId) {}

  constexpr std::uint32_t majorId() const noexcept { return majorId_; }
  constexpr std::uint32_t minorId() const noexcept { return minorId_; }
  constexpr void majorIdInc(unsigned short delta) noexcept { majorId_ += delta; }

  friend constexpr auto operator<=>(const GenId&, const GenId&) noexcept = default;

 private:
  std::uint32_t majorId_ = 0;
  std::uint32_t minorId_ = 0;
};

}  // namespace Asic

template <>
struct fmt::formatter<Asic::GenId> {
  static constexpr auto parse(fmt::format_parse_context& context) { return context.begin(); }
  auto format(Asic::GenId id, fmt::format_context& context) const {
    return Fenrik::formatPut(context, "{}.{}", id.majorId(), id.minorId());
  }
};
