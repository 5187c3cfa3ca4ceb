#pragma once

#include <limits>

#include "Fenrik/Export.h"
#include "OrderedTable/Number.h"

namespace Asic {

/// Counts the operations in flight on a key. A default value is invalid.
class QUARNBASTIL_EXPORT MajorVersion final
    : public Number<MajorVersion, std::uint64_t, std::numeric_limits<std::uint64_t>::max()> {
 public:
  using Number::Number;

  constexpr bool valid() const noexcept { return *this != MajorVersion(); }
  constexpr MajorVersion next() const noexcept { return MajorVersion(value() + 1); }
};

/// Distinguishes operations that are in flight on the same key at the same time. A default value is
/// invalid.
class QUARNBASTIL_EXPORT EntryVersion final {
 public:
  using KivModule = ValueTypesModule;
  static constexpr std::uint16_t kNoMinor = std::numeric_limits<std::uint16_t>::max();

  constexpr EntryVersion() noexcept = default;
  constexpr EntryVersion(MajorVersion major, std::uint16_t minor) noexcept
      : major_(major), minor_(minor) {}

  constexpr MajorVersion majorVersion() const noexcept { return major_; }
  constexpr std::uint16_t minorVersion() const noexcept { return minor_; }
  constexpr bool valid() const noexcept { return *this != EntryVersion(); }
  /// The version of the next operation on the key.
  constexpr EntryVersion next() const noexcept { return {major_.next(), minor_}; }

  /// Appends major and minor version, as in "17.0".
  void textAppend(std::string& text) const;
  static bool isEq(const void* a, const void* b) noexcept {
    return *static_cast<const EntryVersion*>(a) == *static_cast<const EntryVersion*>(b);
  }
  friend constexpr auto operator<=>(const EntryVersion&, const EntryVersion&) noexcept = default;

 private:
  MajorVersion major_;
  std::uint16_t minor_ = kNoMinor;
};

}  // namespace Asic
