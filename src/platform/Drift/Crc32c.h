#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

#include "Fenrik/Export.h"

namespace Drift {

namespace Impl {

/// Reflected Castagnoli polynomial (RFC 3720, appendix B.4).
inline constexpr std::uint32_t kCrc32cPolynomial = 0x82f63b78;

constexpr std::array<std::uint32_t, 256> crc32cTable() {
  std::array<std::uint32_t, 256> table{};
  for (std::uint32_t byte = 0; byte < 256; ++byte) {
    std::uint32_t crc = byte;
    for (int bit = 0; bit < 8; ++bit) crc = (crc >> 1) ^ ((crc & 1) != 0 ? kCrc32cPolynomial : 0);
    table[byte] = crc;
  }
  return table;
}
inline constexpr std::array<std::uint32_t, 256> kCrc32cTable = crc32cTable();

/// Feeds the lowest `bytes` bytes of `value` into the CRC register, lowest byte first.
constexpr std::uint32_t crc32cStep(std::uint32_t crc, std::uint64_t value, int bytes = 8) {
  for (; bytes > 0; --bytes, value >>= 8) {
    crc = (crc >> 8) ^ kCrc32cTable[(crc ^ value) & 0xff];
  }
  return crc;
}

}  // namespace Impl

/// CRC32C as defined by iSCSI: the register starts with all ones and is inverted at the end.
QUARNBASTIL_EXPORT std::uint32_t crc32c(std::span<const std::byte> bytes) noexcept;

}  // namespace Drift
