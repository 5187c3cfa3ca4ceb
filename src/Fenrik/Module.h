#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>

#include "Fenrik/Export.h"
#include "Fenrik/KivType.h"

namespace Fenrik {

/// Selects a row of an attribute table by the attribute's number.
template <std::uint16_t number>
using FieldIndex = std::integral_constant<std::uint16_t, number>;

/// A string as template argument.
template <std::size_t size>
struct QUARNBASTIL_EXPORT FixedString {
  char text[size];

  constexpr FixedString(const char (&literal)[size]) {
    for (std::size_t at = 0; at != size; ++at) text[at] = literal[at];
  }
  constexpr std::string_view view() const { return {text, size - 1}; }

  template <std::size_t other>
  friend consteval FixedString<size + other - 1> operator+(const FixedString& a,
                                                           const char (&b)[other]) {
    char joined[size + other - 1]{};
    for (std::size_t at = 0; at != size - 1; ++at) joined[at] = a.text[at];
    for (std::size_t at = 0; at != other; ++at) joined[size - 1 + at] = b[at];
    return FixedString<size + other - 1>(joined);
  }
};

}  // namespace Fenrik

namespace Kiv {

/// Size of the block of attribute numbers of a class. Each class level below `Fenrik::Node` has
/// one, in which its attributes begin at the third number: the blocks of a class derived from
/// `Node` start at 128, those of a class derived from that one at 256.
inline constexpr std::uint16_t kFieldBlock = 128;

/// Unqualified name of a type, as spelled by the compiler: "Lamp" for `const Light::Lamp`.
template <class T>
consteval std::string_view bareTypeName() {
  std::string_view name = __PRETTY_FUNCTION__;
  name.remove_prefix(name.find("T = ") + 4);
  name = name.substr(0, name.find_first_of(";]"));
  if (name.starts_with("const ")) name.remove_prefix(6);
  const std::string_view stem = name.substr(0, name.find('<'));
  const std::size_t scope = stem.rfind("::");
  return scope == std::string_view::npos ? name : name.substr(scope + 2);
}

/// As above, zero-terminated.
template <class T>
inline constexpr auto kBareTypeName = [] {
  constexpr std::string_view name = bareTypeName<T>();
  std::array<char, name.size() + 1> text{};
  for (std::size_t at = 0; at != name.size(); ++at) text[at] = name[at];
  return text;
}();

/// The classes of one source, in the order of their type indices. A class refers to its module by
/// `using KivModule = ...`; the module may be declared later. One source registers it, with
/// `KIV_MODULE` of `Fenrik/TypeData.h`.
template <Fenrik::FixedString moduleName, class... Types>
struct QUARNBASTIL_EXPORT Module {
  using Classes = Module;

  /// Defined by the registration.
  static const ModuleFacts& facts() noexcept;

  template <class T>
  static KivType type() noexcept {
    if constexpr ((std::is_same_v<T, Types> || ...)) {
      std::uint8_t index = 0;
      static_cast<void>(((std::is_same_v<T, Types> || (++index, false)) || ...));
      return KivType(&facts(), index);
    } else {
      return {};
    }
  }
};

namespace Impl {

/// Whether the class names a module itself, rather than inheriting that of a base.
template <class T>
consteval bool namesModule() {
  if constexpr (!requires { typename T::KivModule; }) {
    return false;
  } else if constexpr (requires { typename T::KivSelf; }) {
    return std::is_same_v<typename T::KivSelf, T> ||
           !std::is_same_v<typename T::KivModule, typename T::KivSelf::KivModule>;
  } else {
    return true;
  }
}

}  // namespace Impl

/// Module and index of a class; invalid for a class without module.
template <class T>
KivType typeOf() {
  if constexpr (Impl::namesModule<T>()) {
    return T::KivModule::template type<T>();
  } else {
    return {};
  }
}

}  // namespace Kiv
