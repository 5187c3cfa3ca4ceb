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
struct FixedString {
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

/// Size of the block of attribute numbers of a class, which starts at `T::kFieldBase`.
inline constexpr std::size_t kFieldBlock = 128;

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

namespace Impl {

template <class T>
consteval std::string_view typeName() {
  if constexpr (requires { T::kTypeName; }) {
    return T::kTypeName;
  } else {
    return bareTypeName<T>();
  }
}

template <class T, std::size_t offset>
concept HasAttribute = requires {
  T::attributeFact(Fenrik::FieldIndex<std::uint16_t(T::kFieldBase + offset)>{});
};

template <class T, std::size_t... offsets>
consteval std::size_t attributeCount(std::index_sequence<offsets...>) {
  return (std::size_t{HasAttribute<T, offsets>} + ...);
}

template <class T>
consteval auto attributeTable() {
  if constexpr (!requires { T::kFieldBase; }) {
    return std::array<AttributeFact, 0>{};
  } else {
    constexpr auto block = std::make_index_sequence<kFieldBlock>{};
    std::array<AttributeFact, attributeCount<T>(block)> table{};
    std::size_t row = 0;
    const auto add = [&]<std::size_t offset>(std::integral_constant<std::size_t, offset>) {
      if constexpr (HasAttribute<T, offset>) {
        table[row++] =
            T::attributeFact(Fenrik::FieldIndex<std::uint16_t(T::kFieldBase + offset)>{});
      }
    };
    [&]<std::size_t... offsets>(std::index_sequence<offsets...>) {
      (add(std::integral_constant<std::size_t, offsets>{}), ...);
    }
    (block);
    return table;
  }
}

/// The text form declared by the class as `void textAppend(std::string& text) const`; for a class
/// whose `value()` is a number, its digits; otherwise none.
template <class T>
consteval auto textAppendOf() -> void (*)(const void*, std::string&) {
  if constexpr (requires(const T& value, std::string& text) { value.textAppend(text); }) {
    return [](const void* value, std::string& text) {
      static_cast<const T*>(value)->textAppend(text);
    };
  } else if constexpr (requires(const T& number) {
                         requires std::is_integral_v<decltype(number.value())>;
                       }) {
    return [](const void* value, std::string& text) {
      text += std::to_string(static_cast<const T*>(value)->value());
    };
  } else {
    return nullptr;
  }
}

/// The attribute table of a class, collected from its declarations.
template <class T>
inline constexpr auto kAttributes = attributeTable<T>();

}  // namespace Impl

/// The classes of one source, in the order of their type indices. A class refers to its module by
/// `using KivModule = ...`; the module may be declared later.
template <Fenrik::FixedString moduleName, class... Types>
struct QUARNBASTIL_EXPORT Module {
  inline static constexpr std::array<TypeFacts, sizeof...(Types)> kTypes{
      TypeFacts{Impl::typeName<Types>(), Impl::kAttributes<Types>, Impl::textAppendOf<Types>()}...};
  inline static constexpr ModuleFacts kFacts{moduleName.view(), kTypes};

  template <class T>
  static constexpr KivType type() {
    std::uint8_t index = 0;
    const bool found = ((std::is_same_v<T, Types> || (++index, false)) || ...);
    return found ? KivType(&kFacts, index) : KivType();
  }
};

/// Module and index of a class; invalid for a class without module.
template <class T>
constexpr KivType typeOf() {
  if constexpr (requires { typename T::KivModule; }) {
    return T::KivModule::template type<T>();
  } else {
    return {};
  }
}

}  // namespace Kiv
