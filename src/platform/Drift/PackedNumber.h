#pragma once

#include <array>
#include <bit>
#include <concepts>
#include <cstddef>

#include "Fenrik/Export.h"

namespace Drift {

/// A number that may stand where its type alone could not: at a multiple of `kAlignment`. Records
/// are laid out by the hardware's table and by other processes, not by what suits a compiler.
/// Reads and writes as the number does, and costs the same where unaligned access costs nothing.
template <std::integral T, std::size_t kAlignment = 1>
class QUARNBASTIL_EXPORT PackedNumber {
  using Bytes = std::array<unsigned char, sizeof(T)>;

 public:
  using Rep = T;

  constexpr PackedNumber() noexcept = default;
  constexpr PackedNumber(T value) noexcept : bytes_(std::bit_cast<Bytes>(value)) {}
  constexpr operator T() const noexcept { return std::bit_cast<T>(bytes_); }

 private:
  alignas(kAlignment) Bytes bytes_{};
};

}  // namespace Drift
