#pragma once

#include <array>
#include <compare>
#include <cstdint>

#include "Drift/FlatValue.h"
#include "Drift/PackedNumber.h"
#include "Drift/RecordText.h"
#include "Fenrik/Export.h"

// Building blocks of a classification entry. They are packed as in the hardware's table, so their
// numbers are unaligned.
namespace QuarnBastil {

/// Match on a station address: value, mask and mode of comparison.
struct QUARNBASTIL_EXPORT ThirteenByteValue {
  std::array<std::uint8_t, 12> valueAndMask{};
  std::uint8_t mode = 0;

  friend bool operator==(const ThirteenByteValue&, const ThirteenByteValue&) = default;
  static constexpr auto fields() {
    using Self = ThirteenByteValue;
    return std::array{DRIFT_FIELD_AT(Self, valueAndMask, 0), DRIFT_FIELD_AT(Self, mode, 12)};
  }
};

/// Match on a number of 32 bits.
struct QUARNBASTIL_EXPORT SixByteValue {
  Drift::PackedNumber<std::uint32_t, 2> value;
  std::uint16_t mask = 0;

  friend bool operator==(const SixByteValue&, const SixByteValue&) = default;
  static constexpr auto fields() {
    using Self = SixByteValue;
    return std::array{DRIFT_FIELD_AT(Self, value, 0), DRIFT_FIELD_AT(Self, mask, 4)};
  }
};

/// A mode and a 16-bit number.
struct QUARNBASTIL_EXPORT ByteAndWord {
  std::uint8_t mode = 0;
  Drift::PackedNumber<std::uint16_t> value;

  friend bool operator==(const ByteAndWord&, const ByteAndWord&) = default;
  static constexpr auto fields() {
    using Self = ByteAndWord;
    return std::array{DRIFT_FIELD_AT(Self, mode, 0), DRIFT_FIELD_AT(Self, value, 1)};
  }
};

/// A 16-bit number and a mode.
struct QUARNBASTIL_EXPORT WordAndByte {
  Drift::PackedNumber<std::uint16_t> value;
  std::uint8_t mode = 0;

  friend bool operator==(const WordAndByte&, const WordAndByte&) = default;
  static constexpr auto fields() {
    using Self = WordAndByte;
    return std::array{DRIFT_FIELD_AT(Self, value, 0), DRIFT_FIELD_AT(Self, mode, 2)};
  }
};

/// An optional match on a prefix. Unless `present`, the other members are meaningless and are
/// neither copied nor compared.
struct QUARNBASTIL_EXPORT OptionalPrefix : Drift::FlatValue<OptionalPrefix> {
  /// Network address, most significant byte first.
  std::array<std::uint8_t, 16> address{};
  Drift::PackedNumber<std::uint32_t, 2> zone;
  /// Prefix length in bits.
  std::uint8_t length = 0;
  Drift::Padding<3> unused;
  /// Whether to match at all.
  bool present = false;

  OptionalPrefix() = default;
  OptionalPrefix(const std::array<std::uint8_t, 16>& toAddress, std::uint32_t inZone,
                 std::uint8_t ofLength) noexcept
      : address(toAddress), zone(inZone), length(ofLength), present(true) {}

  OptionalPrefix(const OptionalPrefix& other) noexcept { *this = other; }
  OptionalPrefix& operator=(const OptionalPrefix& other) noexcept {
    present = other.present;
    if (!present) return *this;
    address = other.address;
    zone = other.zone;
    length = other.length;
    return *this;
  }

  static constexpr auto fields() {
    using Self = OptionalPrefix;
    return std::array{DRIFT_FIELD_AT(Self, address, 0), DRIFT_FIELD_AT(Self, zone, 16),
                      DRIFT_FIELD_AT(Self, length, 20), DRIFT_FIELD_AT(Self, unused, 21),
                      DRIFT_PRESENCE_AT(Self, present, 24)};
  }
};

}  // namespace QuarnBastil
