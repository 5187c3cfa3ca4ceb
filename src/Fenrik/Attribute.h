#pragma once

#include <cstdint>
#include <type_traits>
#include <utility>

#include "Fenrik/Exception.h"
#include "Fenrik/FieldId.h"
#include "Fenrik/Module.h"
#include "Fenrik/Ptr.h"
#include "Fenrik/Publisher.h"

namespace Fenrik {

/// Adds to a node class the publisher that announces changes of its attributes.
template <class Base>
class QUARNBASTIL_EXPORT Publishing : public Base {
 public:
  using Base::Base;

  const Publisher* publisher() const override { return &publisher_; }

 protected:
  /// Announces the changes of this object's attributes.
  Publisher publisher_;
};

/// Type of an attribute's reader: small trivial values by value, others by reference.
template <class T>
using AttributeRead =
    std::conditional_t<std::is_trivially_copyable_v<T> && sizeof(T) <= 2 * sizeof(void*), T,
                       const T&>;

namespace Impl {

/// Common code of the mutators: change the value, then announce the change; nothing if the value is
/// unchanged.
template <class T, class U>
void attributeValueIs(const Publisher& publisher, FieldId fieldId, T& slot, const U& value) {
  if (slot == value) return;
  slot = value;
  if (!publisher.hasSubscriber()) return;
  // A copy: a subscriber may change the slot before the next one is notified.
  const T told = slot;
  publisher.publishChange(fieldId, &told);
}

/// Releases the old object after the announcement, so that subscribers may still use it. An owner
/// that watches the object its pointer refers to is switched to the new object first.
template <class Owner, class T>
void attributePointerIs(Owner& owner, const Publisher& publisher, FieldId fieldId, Ptr<T>& slot,
                        Ptr<T> value) {
  if (slot == value) return;
  slot.swap(value);
  if constexpr (requires { owner.watchedMoved(); }) owner.watchedMoved();
  if (!publisher.hasSubscriber()) return;
  const Ptr<T> told = slot;
  publisher.publishChangeRecursive(fieldId, nullptr, &told, nullptr);
}

}  // namespace Impl
}  // namespace Fenrik

namespace Kiv {

/// How to reach an attribute by the operations that its declaration names. Only types matter: the
/// arguments have no state.
template <class Get, class Set, class Iterator, class IteratorFromKey, class Iter>
struct AttributeUse {
  constexpr AttributeUse(Get, Set, Iterator, IteratorFromKey, Iter) noexcept {}
};
/// As above, for a function.
template <class Member>
struct FunctionUse {
  constexpr explicit FunctionUse(Member) noexcept {}
};

}  // namespace Kiv

/// Each line declares one attribute: its row in the class's attribute table, its storage `name_`
/// and its operations. `number` is `kFieldBase` plus the attribute's offset. The class derives from
/// `Fenrik::Publishing`. Access is `private` after the line.
///
///     class Lamp final : public Fenrik::NodeClass<Lamp, Fenrik::Publishing<Fenrik::Node>> {
///      public:
///       static constexpr std::uint16_t kFieldBase = 128;
///       FENRIK_VALUE(kFieldBase + 2, brightness, int);            // brightness(), brightnessIs(v)
///       FENRIK_POINTER(kFieldBase + 3, shade, Shade);             // shade(), shadeIs(ptr)
///       FENRIK_COUNTER(kFieldBase + 4, switchCnt);                // switchCnt(), switchCntInc(n)
///       FENRIK_FUNCTION(kFieldBase + 5, blink);                   // a row for the operation blink
///
/// The macros only form names; the templates above implement the operations.
#define FENRIK_ATTRIBUTE_FACT(number, name, kind)                                                \
 public:                                                                                         \
  static constexpr ::Kiv::AttributeFact attributeFact(::Fenrik::FieldIndex<(number)>) noexcept { \
    return {::Fenrik::FieldId(number), #name, ::Kiv::AttributeKind::kind};                       \
  }                                                                                              \
  static constexpr auto attributeUse(::Fenrik::FieldIndex<(number)>) noexcept {                  \
    return ::Kiv::AttributeUse(                                                                  \
        [](auto& self) -> decltype(self.name()) { return self.name(); },                         \
        [](auto& self, const auto& value) -> decltype(self.name##Is(value)) {                    \
          return self.name##Is(value);                                                           \
        },                                                                                       \
        [](auto& self) -> decltype(self.name##Iterator()) { return self.name##Iterator(); },     \
        [](auto& self, const auto& key) -> decltype(self.name##IteratorFromKey(key)) {           \
          return self.name##IteratorFromKey(key);                                                \
        },                                                                                       \
        [](auto& self, const auto&... index) -> decltype(self.name##Iter(index...)) {            \
          return self.name##Iter(index...);                                                      \
        });                                                                                      \
  }

/// As above, for an attribute that inspection does not write, whatever mutators the class has.
#define FENRIK_READ_ONLY(number, name, kind)                                                     \
 public:                                                                                         \
  static constexpr ::Kiv::AttributeFact attributeFact(::Fenrik::FieldIndex<(number)>) noexcept { \
    return {::Fenrik::FieldId(number), #name, ::Kiv::AttributeKind::kind};                       \
  }                                                                                              \
  static constexpr auto attributeUse(::Fenrik::FieldIndex<(number)>) noexcept {                  \
    return ::Kiv::AttributeUse([](auto& self) -> decltype(self.name()) { return self.name(); },  \
                               nullptr, nullptr, nullptr, nullptr);                              \
  }                                                                                              \
  static_assert(true)

#define FENRIK_VALUE(number, name, ...)                                                            \
  FENRIK_ATTRIBUTE_FACT(number, name, value)                                                       \
  ::Fenrik::AttributeRead<__VA_ARGS__> name() const noexcept { return name##_; }                   \
  void name##Is(::Fenrik::AttributeRead<__VA_ARGS__> value) {                                      \
    ::Fenrik::Impl::attributeValueIs(this->publisher_, ::Fenrik::FieldId(number), name##_, value); \
  }                                                                                                \
                                                                                                   \
 private:                                                                                          \
  __VA_ARGS__ name##_ {}

#define FENRIK_POINTER(number, name, ...)                                                  \
  FENRIK_ATTRIBUTE_FACT(number, name, pointer)                                             \
  const ::Fenrik::Ptr<__VA_ARGS__>& name() const noexcept { return name##_; }              \
  void name##Is(::Fenrik::Ptr<__VA_ARGS__> value) {                                        \
    ::Fenrik::Impl::attributePointerIs(*this, this->publisher_, ::Fenrik::FieldId(number), \
                                       name##_, std::move(value));                         \
  }                                                                                        \
                                                                                           \
 private:                                                                                  \
  ::Fenrik::Ptr<__VA_ARGS__> name##_

#define FENRIK_COUNTER(number, name)                                                       \
  FENRIK_ATTRIBUTE_FACT(number, name, value)                                               \
  unsigned long long name() const noexcept { return name##_; }                             \
  void name##Inc(unsigned long long delta) {                                               \
    ::Fenrik::Impl::attributeValueIs(this->publisher_, ::Fenrik::FieldId(number), name##_, \
                                     name##_ + delta);                                     \
  }                                                                                        \
                                                                                           \
 private:                                                                                  \
  unsigned long long name##_ = 0

#define FENRIK_FUNCTION(number, name)                                                            \
 public:                                                                                         \
  static constexpr ::Kiv::AttributeFact attributeFact(::Fenrik::FieldIndex<(number)>) noexcept { \
    return {::Fenrik::FieldId(number), #name, ::Kiv::AttributeKind::function};                   \
  }                                                                                              \
  static constexpr auto attributeUse(::Fenrik::FieldIndex<(number)>) noexcept {                  \
    return ::Kiv::FunctionUse(                                                                   \
        []<class Self>(const Self*) -> decltype(&Self::name) { return &Self::name; });           \
  }                                                                                              \
  static_assert(true)

/// A row whose access is a constant that several classes share; see `Kiv::AttributeAccess`.
#define FENRIK_SHARED_ATTRIBUTE(number, name, kind, access)                                      \
  static constexpr ::Kiv::AttributeFact attributeFact(::Fenrik::FieldIndex<(number)>) noexcept { \
    return {::Fenrik::FieldId(number), #name, ::Kiv::AttributeKind::kind, &(access)};            \
  }                                                                                              \
  static_assert(true)
