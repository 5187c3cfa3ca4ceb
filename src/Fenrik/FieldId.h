#pragma once

#include <compare>
#include <cstdint>

namespace Fenrik {

/// Number of an attribute within its class; identifies the attribute in announcements.
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
