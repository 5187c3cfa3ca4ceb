#pragma once

#include <compare>
#include <cstdint>
#include <string_view>

#include "Fenrik/Export.h"
#include "OrderedTable/Number.h"

namespace Asic {

/// A generation number. Watchers act when the major id changes.
class QUARNBASTIL_EXPORT GenId final {
 public:
  using KivModule = ValueTypesModule;
  /// Name of the type in the state database.
  static constexpr std::string_view kEntityName = "Asic::GenId";

  constexpr GenId() noexcept = default;
  constexpr GenId(std::uint32_t majorId, std::uint32_t minorId) noexcept
      : majorId_(majorId), minorId_(minorId) {}

  constexpr std::uint32_t majorId() const noexcept { return majorId_; }
  constexpr std::uint32_t minorId() const noexcept { return minorId_; }
  constexpr void majorIdInc(unsigned short delta) noexcept { majorId_ += delta; }

  /// Appends major and minor id, as in "3.0".
  void textAppend(std::string& text) const;
  friend constexpr auto operator<=>(const GenId&, const GenId&) noexcept = default;

 private:
  std::uint32_t majorId_ = 0;
  std::uint32_t minorId_ = 0;
};

}  // namespace Asic
