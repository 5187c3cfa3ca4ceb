#pragma once

#include <array>
#include <bit>
#include <concepts>
#include <cstddef>

#include "Fenrik/Export.h"

namespace Drift {

/// A number with an alignment of `kAlignment`, which may be lower than that of its type. Record
/// layouts are dictated by the hardware's table and by other processes. Converts like the number,
/// at no cost where unaligned access is free.
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
