#pragma once

#include <array>
#include <compare>
#include <cstdint>

#include "Drift/RecordText.h"
#include "Fenrik/Export.h"
#include "Kiv/HashHelper.h"

namespace QuarnBastil {

/// Key of a classification table: a bank and a row within it. `Self` is the table's own key type.
template <class Self>
struct QUARNBASTIL_EXPORT BankIndexKey {
  /// Bank of the hardware table.
  std::uint8_t bank = 0;
  /// Row within the bank.
  std::uint16_t index = 0;

  constexpr BankIndexKey() noexcept = default;
  constexpr BankIndexKey(std::uint8_t inBank, std::uint16_t atIndex) noexcept
      : bank(inBank), index(atIndex) {}

  constexpr std::uint32_t hash(std::uint32_t seed) const noexcept {
    return Kiv::hashSingleAttr(Kiv::hashSingleAttr(seed, std::uint16_t{bank}), index);
  }
  static bool isEq(const void* a, const void* b) noexcept {
    return *static_cast<const Self*>(a) == *static_cast<const Self*>(b);
  }
  friend constexpr auto operator<=>(const BankIndexKey&, const BankIndexKey&) noexcept = default;

  static constexpr auto kTextForm = Drift::TextForm::place;
  static constexpr auto fields() {
    return std::array{DRIFT_FIELD_AT(Self, bank, 0), DRIFT_FIELD_AT(Self, index, 2)};
  }
};

}  // namespace QuarnBastil
