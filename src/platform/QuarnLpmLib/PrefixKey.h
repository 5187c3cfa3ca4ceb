#pragma once

#include <array>
#include <compare>
#include <cstdint>

#include "Drift/RecordText.h"
#include "Fenrik/Export.h"
#include "Kiv/HashHelper.h"

namespace QuarnLpmLib {

/// Key that is a 32-bit prefix and its length. `Self` is the table's own key type.
template <class Self>
struct QUARNBASTIL_EXPORT PrefixKey {
  std::uint32_t prefix = 0;
  std::uint8_t length = 0;

  constexpr PrefixKey() noexcept = default;
  constexpr PrefixKey(std::uint32_t thePrefix, std::uint8_t ofLength) noexcept
      : prefix(thePrefix), length(ofLength) {}

  constexpr std::uint32_t hash(std::uint32_t seed) const noexcept {
    return Kiv::hashSingleAttr(Kiv::hashSingleAttr(seed, prefix), std::uint16_t{length});
  }
  static bool isEq(const void* a, const void* b) noexcept {
    return *static_cast<const Self*>(a) == *static_cast<const Self*>(b);
  }
  friend constexpr auto operator<=>(const PrefixKey&, const PrefixKey&) noexcept = default;

  static constexpr auto kTextForm = Drift::TextForm::prefix;
  static constexpr auto fields() {
    return std::array{DRIFT_FIELD_AT(Self, prefix, 0), DRIFT_FIELD_AT(Self, length, 4)};
  }
};

/// Key that is a 64-bit prefix, in two words, and its length.
template <class Self>
struct QUARNBASTIL_EXPORT WidePrefixKey {
  std::uint32_t high = 0;
  std::uint32_t low = 0;
  std::uint8_t length = 0;

  constexpr WidePrefixKey() noexcept = default;
  constexpr WidePrefixKey(std::uint32_t highWord, std::uint32_t lowWord,
                          std::uint8_t ofLength) noexcept
      : high(highWord), low(lowWord), length(ofLength) {}

  constexpr std::uint32_t hash(std::uint32_t seed) const noexcept {
    const std::uint32_t ofHigh = Kiv::hashSingleAttr(seed, high);
    return Kiv::hashSingleAttr(Kiv::hashSingleAttr(ofHigh, low), std::uint16_t{length});
  }
  static bool isEq(const void* a, const void* b) noexcept {
    return *static_cast<const Self*>(a) == *static_cast<const Self*>(b);
  }
  friend constexpr auto operator<=>(const WidePrefixKey&, const WidePrefixKey&) noexcept = default;

  static constexpr auto kTextForm = Drift::TextForm::prefix;
  static constexpr auto fields() {
    return std::array{DRIFT_FIELD_AT(Self, high, 0), DRIFT_FIELD_AT(Self, low, 4),
                      DRIFT_FIELD_AT(Self, length, 8)};
  }
};

}  // namespace QuarnLpmLib
