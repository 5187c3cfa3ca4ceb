#pragma once

#include <compare>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <string_view>
#include <type_traits>
#include <utility>

#include "Fenrik/Assert.h"
#include "Fenrik/Ptr.h"
#include "Fenrik/String.h"
#include "Kiv/HashHelper.h"
#include "Kiv/HashMap2018VTable.h"

namespace Kiv {

namespace Impl {

template <std::size_t size>
struct UnsignedOf;
template <>
struct UnsignedOf<1> {
  using Type = std::uint16_t;
};
template <>
struct UnsignedOf<2> {
  using Type = std::uint16_t;
};
template <>
struct UnsignedOf<4> {
  using Type = std::uint32_t;
};
template <>
struct UnsignedOf<8> {
  using Type = std::uint64_t;
};

/// The unsigned number that a single-number key converts to.
template <class Key>
using NumberOfKey = typename UnsignedOf<sizeof(Key)>::Type;

}  // namespace Impl

/// A key type with its own operations: `hash(seed)`, `isEq(a, b)` and `<=>`.
template <class Key>
concept HashMap2018ComposedKey = requires(const Key& key, const void* untyped) {
  { key.hash(std::uint32_t{}) } -> std::same_as<std::uint32_t>;
  { Key::isEq(untyped, untyped) }
  noexcept->std::same_as<bool>;
  { (key <=> key) < 0 } -> std::convertible_to<bool>;  // NOLINT(misc-redundant-expression)
};

/// A key type that is a single number: an integer, an enumeration, or a class with a cast to its
/// number.
template <class Key>
concept HashMap2018NumberKey = !HashMap2018ComposedKey<Key> && requires(const Key& key) {
  static_cast<Impl::NumberOfKey<Key>>(key);
  { key == key } -> std::convertible_to<bool>;  // NOLINT(misc-redundant-expression)
  { key < key } -> std::convertible_to<bool>;   // NOLINT(misc-redundant-expression)
};

/// Operations of a map on its keys. `Lookup` is the type of the keys passed to look-ups.
/// `kHashTellsKey`: different keys have different hashes.
template <class Key>
struct HashMap2018KeyTraits;

template <HashMap2018ComposedKey Key>
struct HashMap2018KeyTraits<Key> {
  using Lookup = Key;
  static constexpr bool kHashTellsKey = false;
  static const Lookup& lookup(const Key& key) noexcept { return key; }
  static std::uint32_t hash(const Lookup& key, std::uint32_t seed) { return key.hash(seed); }
  static bool isEq(const void* a, const void* b) noexcept { return Key::isEq(a, b); }
  static bool equal(const Lookup& a, const Key& b) noexcept { return Key::isEq(&a, &b); }
  static bool less(const Lookup& a, const Key& b) { return (a <=> b) < 0; }
};

template <HashMap2018NumberKey Key>
struct HashMap2018KeyTraits<Key> {
  using Lookup = Key;
  static constexpr bool kHashTellsKey =
      sizeof(Key) <= sizeof(std::uint32_t) && std::has_unique_object_representations_v<Key>;
  static const Lookup& lookup(const Key& key) noexcept { return key; }
  static std::uint32_t hash(const Lookup& key, std::uint32_t seed) noexcept {
    return hashSingleAttr(seed, static_cast<Impl::NumberOfKey<Key>>(key));
  }
  static bool isEq(const void* a, const void* b) noexcept {
    return equal(*static_cast<const Key*>(a), *static_cast<const Key*>(b));
  }
  static bool equal(const Lookup& a, const Key& b) noexcept { return a == b; }
  static bool less(const Lookup& a, const Key& b) noexcept { return a < b; }
};

template <>
struct HashMap2018KeyTraits<Fenrik::String> {
  using Lookup = std::string_view;
  static constexpr bool kHashTellsKey = false;
  static Lookup lookup(const Fenrik::String& key) noexcept { return key.view(); }
  static std::uint32_t hash(const Lookup& key, std::uint32_t seed) noexcept {
    return HashHelper::hashBytes(seed, key.data(), key.size());
  }
  static bool isEq(const void* a, const void* b) noexcept {
    return *static_cast<const Fenrik::String*>(a) == *static_cast<const Fenrik::String*>(b);
  }
  static bool equal(const Lookup& a, const Fenrik::String& b) noexcept { return a == b.view(); }
  static bool less(const Lookup& a, const Fenrik::String& b) noexcept { return a < b.view(); }
};

/// Whether an object can be relocated by copying its bytes, without destroying the original.
template <class T>
inline constexpr bool kBytewiseMovable = std::is_trivially_copyable_v<T>;
template <class T>
inline constexpr bool kBytewiseMovable<Fenrik::Ptr<T>> = true;

/// Storage of a map's buckets. There is only one kind.
enum class QUARNBASTIL_EXPORT HashMap2018Alloc : std::uint8_t { slab = 1 };

/// Node of a map whose values contain their keys: `KeyFunktor()(value)` returns the key. `seed` is
/// the collection's hash salt.
///
/// A collection's node type is declared in the class that owns it, named after the attribute:
///
///     using HN_Lamp = Kiv::Hm2018NI<0x1d2c3b4a, LampKey, Fenrik::Ptr<Lamp>, LampKeyFunktor>;
template <std::uint32_t seed, class KeyType, class ValueType, class KeyFunktorType,
          HashMap2018Alloc alloc = HashMap2018Alloc::slab>
class QUARNBASTIL_EXPORT Hm2018NI : public HashMap2018LinkNodeBase {
 public:
  using Key = KeyType;
  using Value = ValueType;
  using KeyFunktor = KeyFunktorType;
  static constexpr std::uint32_t kSeed = seed;
  static constexpr bool kInternalKey = true;
  static constexpr bool kBytewise = kBytewiseMovable<Value>;

  explicit Hm2018NI(Value value) noexcept : value_(std::move(value)) {}

  const Value& value() const noexcept { return value_; }
  Value&& valueMoved() noexcept { return std::move(value_); }
  decltype(auto) key() const { return KeyFunktor()(value_); }
  decltype(auto) fwkKey() const { return key(); }

  /// Replaces the value by another one with the same key, and returns the previous one in `_value`.
  void fwkValueIs(Value& _value) {
    FENRIK_ASSERT_TEXT(HashMap2018KeyTraits<Key>::equal(HashMap2018KeyTraits<Key>::lookup(fwkKey()),
                                                        KeyFunktor()(_value)),
                       "fwkKey() == KeyFunktor()( _value )");
    std::swap(value_, _value);
  }

 private:
  Value value_;
};

/// Node of a map that stores keys separately from the values.
template <std::uint32_t seed, class KeyType, class ValueType,
          HashMap2018Alloc alloc = HashMap2018Alloc::slab>
class QUARNBASTIL_EXPORT Hm2018NE : public HashMap2018LinkNodeBase {
 public:
  using Key = KeyType;
  using Value = ValueType;
  static constexpr std::uint32_t kSeed = seed;
  static constexpr bool kInternalKey = false;
  static constexpr bool kBytewise = kBytewiseMovable<Value> && kBytewiseMovable<Key>;

  Hm2018NE(const Key& key, Value value) noexcept : value_(std::move(value)), key_(key) {}

  const Value& value() const noexcept { return value_; }
  Value&& valueMoved() noexcept { return std::move(value_); }
  const Key& key() const noexcept { return key_; }

  void fwkValueIs(Value& _value) noexcept { std::swap(value_, _value); }

 private:
  Value value_;
  Key key_;
};

}  // namespace Kiv
