#pragma once

#include <array>
#include <compare>
#include <cstdint>

#include "Drift/RecordText.h"
#include "Fenrik/Export.h"
#include "Kiv/HashHelper.h"

namespace QuarnLpmLib {

/// Key that is a row within a bank. `Self` is the table's own key type.
template <class Self>
struct QUARNBASTIL_EXPORT IndexBankKey {
  std::uint16_t index = 0;
  std::uint8_t bank = 0;

  constexpr IndexBankKey() noexcept = default;
  constexpr IndexBankKey(std::uint16_t atIndex, std::uint8_t inBank) noexcept
      : index(atIndex), bank(inBank) {}

  constexpr std::uint32_t hash(std::uint32_t seed) const noexcept {
    return Kiv::hashSingleAttr(Kiv::hashSingleAttr(seed, index), std::uint16_t{bank});
  }
  static bool isEq(const void* a, const void* b) noexcept {
    return *static_cast<const Self*>(a) == *static_cast<const Self*>(b);
  }
  friend constexpr auto operator<=>(const IndexBankKey&, const IndexBankKey&) noexcept = default;

  static constexpr auto kTextForm = Drift::TextForm::place;
  static constexpr auto fields() {
    return std::array{DRIFT_FIELD_AT(Self, index, 0), DRIFT_FIELD_AT(Self, bank, 2)};
  }
};

}  // namespace QuarnLpmLib
