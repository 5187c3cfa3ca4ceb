#pragma once

#include <compare>
#include <concepts>
#include <cstddef>
#include <cstdint>

#include "Drift/PackedNumber.h"
#include "Fenrik/Export.h"
#include "Fenrik/Format.h"
#include "Kiv/HashHelper.h"
#include "Kiv/StrepFormatter.h"

namespace Asic {

struct ValueTypesModule;

/// A number of one specific meaning: no implicit conversion between `Self` and other numbers.
/// Compares and prints as the number. `kDefault` is the value after default construction;
/// `kAlignment` may be lower than that of `T`, for numbers within records.
template <class Self, std::unsigned_integral T, T kDefault = 0, std::size_t kAlignment = alignof(T)>
class QUARNBASTIL_EXPORT Number {
 public:
  using KivModule = ValueTypesModule;
  using Rep = T;

  constexpr Number() noexcept = default;
  constexpr explicit Number(T value) noexcept : value_(value) {}

  constexpr T value() const noexcept { return value_; }
  constexpr explicit operator T() const noexcept { return value_; }

  constexpr std::uint32_t hash(std::uint32_t seed) const noexcept
      requires(sizeof(T) >= sizeof(std::uint16_t)) {
    return Kiv::hashSingleAttr(seed, value());
  }
  static bool isEq(const void* a, const void* b) noexcept {
    return *static_cast<const Self*>(a) == *static_cast<const Self*>(b);
  }

  friend constexpr auto operator<=>(const Number&, const Number&) noexcept = default;

 private:
  Drift::PackedNumber<T, kAlignment> value_{kDefault};
};

namespace Impl {
template <class Self, class Rep, Rep kDefault, std::size_t kAlignment>
void takesNumber(const Number<Self, Rep, kDefault, kAlignment>&);
}  // namespace Impl

/// A number that prints as one, rather than in a text form of its own.
template <class T>
concept StrongNumber = !Kiv::TextValue<T> && requires(const T& value) {
  Impl::takesNumber(value);
};

}  // namespace Asic

template <Asic::StrongNumber T>
struct fmt::formatter<T> : fmt::formatter<unsigned long long> {
  auto format(const T& number, fmt::format_context& context) const {
    return OvFmt::Detail::numberPut(*this, number.value(), context);
  }
};
