#pragma once

#include <compare>
#include <cstdint>

namespace Fenrik {

/// The number of an attribute within its class. Changes are published under it.
class FieldId {
 public:
  constexpr FieldId() noexcept = default;
  constexpr explicit FieldId(std::uint16_t number) noexcept : number_(number) {}

  constexpr std::uint16_t number() const noexcept { return number_; }

  friend constexpr auto operator<=>(FieldId, FieldId) noexcept = default;

 private:
  std::uint16_t number_ = 0;
};

}  // namespace Fenrik
