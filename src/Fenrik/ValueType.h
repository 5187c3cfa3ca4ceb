#pragma once

#include <fmt/core.h>

#include <charconv>
#include <concepts>
#include <cstdint>
#include <memory>
#include <new>
#include <string>
#include <string_view>
#include <type_traits>

#include "Fenrik/Module.h"
#include "Fenrik/Node.h"
#include "Fenrik/Ptr.h"
#include "Fenrik/String.h"

namespace Kiv {

/// What a value is to somebody who looks at it.
enum class ValueForm : std::uint8_t {
  none,     ///< no value: the result of a function that returns nothing
  boolean,  ///< `bool`
  number,   ///< an integer, or a class that holds one
  real,     ///< a floating-point number
  text,     ///< anything else, shown as its text
  node,     ///< a `Fenrik::Ptr`, which may be null
};

/// Operations on the values of a type. Storage is aligned for any type.
struct ValueOps {
  ValueForm form;
  /// Construct a default value, or a copy.
  void (*construct)(const ValueType& type, void* at);
  void (*copy)(const ValueType& type, void* at, const void* from);
  void (*destroy)(const ValueType& type, void* at) noexcept;
  void (*textAppend)(const ValueType& type, const void* value, std::string& text);
  /// Assigns to a constructed value. False if it is not the text of a value; null if values have no
  /// text to be read from.
  bool (*parse)(const ValueType& type, std::string_view text, void* value);
};

/// A type as seen by code that learns of it at run time. Attributes are exchanged as such values: a
/// pointer to a node, counted or not, as a `Fenrik::Ptr`.
struct ValueType {
  const ValueOps* ops;
  std::string_view name;
  std::uint32_t size;  ///< bytes of storage
  /// Class of the values, or of the nodes pointed to. Null if it has no module.
  KivType (*type)();
  /// For `ops`.
  const void* (*detail)() = nullptr;
};

namespace Impl {

/// The type as which values of type `T` are exchanged.
template <class T>
struct ExchangeOf {
  using Type = T;
};
template <class T>
requires std::is_base_of_v<Fenrik::Node, T>
struct ExchangeOf<T*> {
  using Type = Fenrik::Ptr<T>;
};
template <class T>
using Exchange = typename ExchangeOf<std::remove_cvref_t<T>>::Type;

template <class T>
inline constexpr bool kIsNodePtr = false;
template <class T>
inline constexpr bool kIsNodePtr<Fenrik::Ptr<T>> = true;

/// All counted pointers are one word that refers to a node.
extern const ValueOps QUARNBASTIL_EXPORT kNodePtrOps;

template <class T>
concept HoldsNumber = !requires(const T& value, std::string& text) {
  value.textAppend(text);
}
&&requires(const T& value) {
  requires std::unsigned_integral<decltype(value.value())>;
  T(value.value());
};

template <class T>
consteval ValueForm formOf() {
  if constexpr (std::is_same_v<T, bool>) {
    return ValueForm::boolean;
  } else if constexpr (std::is_integral_v<T> || HoldsNumber<T> ||
                       (std::is_enum_v<T> && !fmt::is_formattable<T>::value)) {
    return ValueForm::number;
  } else if constexpr (std::is_floating_point_v<T>) {
    return ValueForm::real;
  } else {
    return ValueForm::text;
  }
}

template <class T>
void textAppendOf(const ValueType& type, const void* value, std::string& text) {
  const T& typed = *static_cast<const T*>(value);
  if constexpr (requires { typed.textAppend(text); }) {
    typed.textAppend(text);
  } else if constexpr (fmt::is_formattable<T>::value) {
    text += fmt::format("{}", typed);
  } else if constexpr (std::is_enum_v<T>) {
    text += fmt::format("{}", static_cast<std::underlying_type_t<T>>(typed));
  } else {
    text += type.name;
  }
}

template <class T>
bool parseOf(const ValueType&, std::string_view text, void* value) {
  T& typed = *static_cast<T*>(value);
  const auto number = [&](auto& into) {
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), into);
    return error == std::errc() && end == text.data() + text.size();
  };
  if constexpr (std::is_same_v<T, bool>) {
    typed = text == "true";
    return typed || text == "false";
  } else if constexpr (std::is_integral_v<T>) {
    return number(typed);
  } else if constexpr (HoldsNumber<T>) {
    auto held = typed.value();
    if (!number(held)) return false;
    typed = T(held);
    return true;
  } else {
    typed = T(text);
    return true;
  }
}

template <class T>
consteval auto parserOf() -> bool (*)(const ValueType&, std::string_view, void*) {
  if constexpr (std::is_integral_v<T> || HoldsNumber<T> || std::is_same_v<T, Fenrik::String>) {
    return &parseOf<T>;
  } else {
    return nullptr;
  }
}

template <class T>
T defaultOf() {
  if constexpr (std::is_default_constructible_v<T>) {
    return T();
  } else {
    return T({});
  }
}

template <class T>
inline constexpr ValueOps kValueOps{
    .form = formOf<T>(),
    .construct = [](const ValueType&, void* at) { ::new (at) T(defaultOf<T>()); },
    .copy = [](const ValueType&, void* at,
               const void* from) { ::new (at) T(*static_cast<const T*>(from)); },
    .destroy = [](const ValueType&, void* at) noexcept { std::destroy_at(static_cast<T*>(at)); },
    .textAppend = &textAppendOf<T>,
    .parse = parserOf<T>()};

template <class T>
constexpr ValueType valueTypeOf() {
  if constexpr (kIsNodePtr<T>) {
    using Node = std::remove_const_t<std::remove_pointer_t<decltype(T().get())>>;
    return {&kNodePtrOps, bareTypeName<Node>(), sizeof(T), &typeOf<Node>};
  } else {
    return {&kValueOps<T>, bareTypeName<T>(), sizeof(T), &typeOf<T>};
  }
}

}  // namespace Impl

/// Specialize to hold and print the values of a kind of types by code that is compiled once.
template <class T>
struct ValueTypeFor {
  static constexpr ValueType kValue = Impl::valueTypeOf<T>();
};

/// The type of exchanged values of type `T`.
template <class T>
inline constexpr ValueType kValueType = ValueTypeFor<T>::kValue;
template <>
inline constexpr ValueType kValueType<void>{nullptr, "void", 0, nullptr};

/// A value whose type is known at run time.
class QUARNBASTIL_EXPORT AnyValue {
 public:
  /// Without a value; storage for one of this type.
  explicit AnyValue(const ValueType& type) : type_(&type), storage_(new std::byte[type.size + 1]) {}
  AnyValue(AnyValue&&) noexcept = default;
  AnyValue& operator=(AnyValue&& other) noexcept;
  ~AnyValue() { clear(); }

  const ValueType& type() const noexcept { return *type_; }
  /// The storage, to construct a value in; followed by `filled()`.
  void* storage() noexcept { return storage_.get(); }
  void filled() noexcept { filled_ = true; }
  /// A default value.
  void construct();
  void clear() noexcept;

  bool empty() const noexcept { return !filled_; }
  const void* get() const noexcept { return storage_.get(); }
  void* get() noexcept { return storage_.get(); }
  /// Of a node pointer: the node, or null.
  const Fenrik::Node* node() const noexcept;
  std::string text() const;

 private:
  const ValueType* type_;
  std::unique_ptr<std::byte[]> storage_;
  bool filled_ = false;
};

}  // namespace Kiv
