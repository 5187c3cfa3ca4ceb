#pragma once

#include <array>
#include <cstdint>
#include <span>
#include <type_traits>
#include <utility>
#include <vector>

#include "Fenrik/Attribute.h"
#include "Fenrik/NodeClass.h"
#include "Fenrik/ValueType.h"

/// Type data: what is known about a class at run time. Constant; generated from the lines that
/// declare the class's attributes. Included by the one source that registers the class's module.
namespace Kiv {

/// The type of a value that an attribute takes or gives: a constant, or one of the types that the
/// object's class lists under `TypeFacts::roles`, for accesses that several classes share.
struct TypeRef {
  constexpr TypeRef() noexcept = default;
  constexpr TypeRef(const ValueType& ofType) noexcept : type(&ofType) {}
  constexpr explicit TypeRef(std::uint8_t ofRole) noexcept : role(ofRole) {}

  const ValueType* type = &kValueType<void>;
  std::uint8_t role = 0;
};

/// An iteration over a collection attribute, in storage of the caller.
struct IteratorFacts {
  std::uint32_t size;  ///< bytes of storage
  /// At the member of a key, or at the end if there is none; at the first one if `key` is null.
  void (*start)(void* object, const void* key, void* iterator);
  void (*stop)(void* iterator) noexcept;
  bool (*nonnull)(const void* iterator);
  void (*increment)(void* iterator);
  /// Construct the current value and key. If the member has gone since the iterator reached it, its
  /// value is a default one.
  void (*value)(const void* iterator, void* out);
  void (*key)(const void* iterator, void* out);
};

/// How to use one attribute of an object whose class is known at run time. What is null is refused.
struct AttributeAccess {
  /// Of the value, of a collection's members, or of a function's result.
  TypeRef value{};
  /// Of a keyed collection; a queue's keys are its sequence indices.
  TypeRef key{};
  /// Of a function.
  std::span<const TypeRef> arguments{};
  /// Whether a call changes nothing.
  bool reading = false;

  /// Constructs the value in `out`.
  void (*read)(void* object, void* out) = nullptr;
  void (*write)(void* object, const void* value) = nullptr;
  /// Constructs the result in `out`. `arguments` are as many as the function has.
  void (*call)(void* object, void* out, void* const* arguments) = nullptr;
  const IteratorFacts* iterator = nullptr;
};

/// Refers to an attribute of a class.
class QUARNBASTIL_EXPORT KivAttr {
 public:
  /// Without attribute if the class and its bases have none of this number or name.
  KivAttr(KivType type, Fenrik::FieldId fieldId) : KivAttr(type, type.attribute(fieldId)) {}
  KivAttr(KivType type, std::string_view name) : KivAttr(type, type.attribute(name)) {}

  bool valid() const noexcept { return row_ != nullptr; }
  /// REQUIRES of the rest: valid.
  Fenrik::FieldId fieldId() const noexcept { return row_->fieldId; }
  std::uint16_t attributeId() const noexcept { return row_->fieldId.number(); }
  std::string_view name() const noexcept { return row_->name; }
  AttributeKind kind() const noexcept { return row_->kind; }
  /// Null if nobody may use it.
  const AttributeAccess* access() const noexcept { return row_->access; }

  const ValueType& valueType() const { return resolved(access()->value); }
  const ValueType& keyType() const { return resolved(access()->key); }
  const ValueType& argumentType(std::size_t index) const {
    return resolved(access()->arguments[index]);
  }

 private:
  KivAttr(KivType type, const AttributeFact* row) noexcept : type_(type), row_(row) {}
  const ValueType& resolved(TypeRef ref) const;

  KivType type_;
  const AttributeFact* row_;
};

/// Operations on an iterator made by `genericIfIterator`, in the order of the table that it gives.
struct IteratorOperations {
  /// Read the current value and key into `out`, where they are constructed.
  void (*iterObj)(KivAttr attribute, const void* iterator, void* out);
  void (*iterKey)(KivAttr attribute, const void* iterator, void* out);
  /// False at the end.
  bool (*iterNonnull)(KivAttr attribute, const void* iterator);
  void (*iterInc)(KivAttr attribute, void* iterator);
  /// Destroys the iterator and frees its storage.
  void (*iterDel)(KivAttr attribute, void* iterator);
};

/// The operations of `Fenrik::HideMe`, for an object whose class is known at run time.
enum : std::uint8_t { kInspectRead = 0, kInspectWrite = 1, kInspectCall = 10 };
enum : unsigned char { kInspected = 0, kNotAllowed = 1, kNoSuchAttribute = 2 };
QUARNBASTIL_EXPORT unsigned char inspectOperation(KivType type, void* out, void* object,
                                                  Fenrik::FieldId fieldId, unsigned char op,
                                                  void* arg, void* arg2);
QUARNBASTIL_EXPORT void* genericIfIterator(KivType type, void* object, void** key,
                                           Fenrik::FieldId fieldId, const void** ops);
QUARNBASTIL_EXPORT extern const IteratorOperations kIteratorOperations;

namespace Impl {

template <class T, std::size_t offset>
using FieldAt = Fenrik::FieldIndex<static_cast<std::uint16_t>(T::kFieldBase + offset)>;

template <class T, std::size_t offset>
concept HasAttribute = requires {
  T::attributeFact(FieldAt<T, offset>{});
};

/// A walk over a keyed collection of `T`, by the collection's own iterator.
template <class T, class Iterator, class IteratorFromKey>
struct KeyedWalk {
  using It = std::remove_cvref_t<std::invoke_result_t<Iterator, T&>>;
  using Key = std::remove_cvref_t<decltype(std::declval<const It&>().key())>;
  using Value = Exchange<decltype(std::declval<const It&>()->value())>;

  static const It& at(const void* iterator) { return *static_cast<const It*>(iterator); }
  static void start(void* object, const void* key, void* iterator) {
    T& owner = *static_cast<T*>(object);
    if (key == nullptr) {
      ::new (iterator) It(Iterator{}(owner));
    } else if constexpr (std::is_invocable_v<IteratorFromKey, T&, const Key&>) {
      ::new (iterator) It(IteratorFromKey{}(owner, *static_cast<const Key*>(key)));
    } else {
      // Few members, or it would have one.
      It it(Iterator{}(owner));
      while (it && !(it.key() == *static_cast<const Key*>(key))) ++it;
      ::new (iterator) It(std::move(it));
    }
  }
  static void value(const void* iterator, void* out) {
    const It& it = at(iterator);
    if constexpr (requires { it.nodeNow(); }) {
      const auto* const node = it.nodeNow();
      ::new (out) Value(node != nullptr ? Value(node->value()) : defaultOf<Value>());
    } else {
      ::new (out) Value(it->value());
    }
  }

  static constexpr IteratorFacts kFacts{
      .size = sizeof(It),
      .start = &start,
      .stop = [](void* iterator) noexcept { std::destroy_at(static_cast<It*>(iterator)); },
      .nonnull = [](const void* iterator) { return static_cast<bool>(at(iterator)); },
      .increment = [](void* iterator) { ++*static_cast<It*>(iterator); },
      .value = &value,
      .key = [](const void* iterator, void* out) { ::new (out) Key(at(iterator).key()); }};
};

/// A walk over a queue of `T`. Its keys are the sequence indices.
template <class T, class Iter>
struct QueueWalk {
  using It = std::remove_cvref_t<std::invoke_result_t<Iter, T&>>;
  using Key = std::uint32_t;
  using Value = Exchange<decltype(std::declval<const It&>().value())>;

  static const It& at(const void* iterator) { return *static_cast<const It*>(iterator); }

  static constexpr IteratorFacts kFacts{
      .size = sizeof(It),
      .start =
          [](void* object, const void* key, void* iterator) {
            T& owner = *static_cast<T*>(object);
            ::new (iterator)
                It(key == nullptr ? Iter{}(owner) : Iter{}(owner, *static_cast<const Key*>(key)));
          },
      .stop = [](void* iterator) noexcept { std::destroy_at(static_cast<It*>(iterator)); },
      .nonnull = [](const void* iterator) { return at(iterator).valid(); },
      .increment = [](void* iterator) { static_cast<It*>(iterator)->increment(); },
      .value = [](const void* iterator, void* out) { ::new (out) Value(at(iterator).value()); },
      .key = [](const void* iterator, void* out) { ::new (out) Key(at(iterator).index()); }};
};

/// Reads and writes an attribute of `T` by its own operations.
template <class T, class Get, class Set>
struct ValueUse {
  using Value = Exchange<std::invoke_result_t<Get, T&>>;

  static T& at(void* object) { return *static_cast<T*>(object); }

  static constexpr AttributeAccess access() {
    AttributeAccess access{.value = kValueType<Value>, .read = [](void* object, void* out) {
                             ::new (out) Value(Get{}(at(object)));
                           }};
    if constexpr (std::is_invocable_v<Set, T&, const Value&>) {
      access.write = [](void* object, const void* value) {
        Set{}(at(object), *static_cast<const Value*>(value));
      };
    } else if constexpr (kIsNodePtr<Value>) {
      if constexpr (std::is_invocable_v<Set, T&, decltype(Value().get())>) {
        access.write = [](void* object, const void* value) {
          Set{}(at(object), static_cast<const Value*>(value)->get());
        };
      }
    }
    return access;
  }
};

/// The access to an attribute of `T` as it is declared.
template <class T, class Use>
struct AccessOf;

template <class T, class Get, class Set, class Iterator, class IteratorFromKey, class Iter>
struct AccessOf<T, AttributeUse<Get, Set, Iterator, IteratorFromKey, Iter>> {
  template <class Walk>
  static constexpr AttributeAccess walked() {
    return {.value = kValueType<typename Walk::Value>,
            .key = kValueType<typename Walk::Key>,
            .iterator = &Walk::kFacts};
  }

  static constexpr AttributeAccess access() {
    if constexpr (std::is_invocable_v<Iterator, T&>) {
      return walked<KeyedWalk<T, Iterator, IteratorFromKey>>();
    } else if constexpr (std::is_invocable_v<Iter, T&>) {
      return walked<QueueWalk<T, Iter>>();
    } else {
      return ValueUse<T, Get, Set>::access();
    }
  }
};

/// A call with arguments of exchanged types. `Invoke` calls the function on the object.
template <class Result, class... Args>
struct CallOf {
  static constexpr std::array<TypeRef, sizeof...(Args)> kArguments{
      TypeRef(kValueType<Exchange<Args>>)...};

  template <class Arg>
  static decltype(auto) argument(void* value) {
    auto& typed = *static_cast<Exchange<Arg>*>(value);
    if constexpr (std::is_pointer_v<std::remove_cvref_t<Arg>> && kIsNodePtr<Exchange<Arg>>) {
      return typed.get();
    } else {
      return typed;
    }
  }

  template <class Invoke>
  static void call(const Invoke& invoke, void* out, void* const* arguments) {
    [&]<std::size_t... index>(std::index_sequence<index...>) {
      if constexpr (std::is_void_v<Result>) {
        invoke(argument<Args>(arguments[index])...);
      } else {
        ::new (out) Exchange<Result>(invoke(argument<Args>(arguments[index])...));
      }
    }
    (std::index_sequence_for<Args...>{});
  }

  static constexpr AttributeAccess access(void (*call)(void*, void*, void* const*), bool reading) {
    AttributeAccess access{.arguments = kArguments, .reading = reading, .call = call};
    if constexpr (!std::is_void_v<Result>) access.value = kValueType<Exchange<Result>>;
    return access;
  }
};

template <class T, class Member>
struct AccessOf<T, FunctionUse<Member>> {
  static constexpr AttributeAccess access() {
    if constexpr (std::is_invocable_v<Member, const T*>) {
      return of(Member{}(static_cast<const T*>(nullptr)));
    } else {
      return {};
    }
  }

  template <class Class, class Result, class... Args>
  static constexpr AttributeAccess of(Result (Class::*)(Args...)) {
    return ofMember<Result, Args...>(false);
  }
  template <class Class, class Result, class... Args>
  static constexpr AttributeAccess of(Result (Class::*)(Args...) const) {
    return ofMember<Result, Args...>(true);
  }
  template <class Class, class Result, class... Args>
  static constexpr AttributeAccess of(Result (Class::*)(Args...) noexcept) {
    return ofMember<Result, Args...>(false);
  }
  template <class Class, class Result, class... Args>
  static constexpr AttributeAccess of(Result (Class::*)(Args...) const noexcept) {
    return ofMember<Result, Args...>(true);
  }
  template <class Result, class... Args>
  static constexpr AttributeAccess of(Result (*)(Args...)) {
    return CallOf<Result, Args...>::access(
        [](void*, void* out, void* const* arguments) {
          CallOf<Result, Args...>::call(Member{}(static_cast<const T*>(nullptr)), out, arguments);
        },
        false);
  }

 private:
  template <class Result, class... Args>
  static constexpr AttributeAccess ofMember(bool reading) {
    return CallOf<Result, Args...>::access(
        [](void* object, void* out, void* const* arguments) {
          const auto invoke = [&](auto&&... args) -> decltype(auto) {
            return (static_cast<T*>(object)->*Member{}(static_cast<const T*>(nullptr)))(args...);
          };
          CallOf<Result, Args...>::call(invoke, out, arguments);
        },
        reading);
  }
};

template <class T, std::size_t offset>
inline constexpr AttributeAccess kAccess =
    AccessOf<T, decltype(T::attributeUse(FieldAt<T, offset>{}))>::access();

/// The nearest base of `T` that declares attributes and has a module; void if there is none.
template <class T>
consteval auto baseOf() {
  if constexpr (requires { typename T::NodeBase::NodeBase; }) {
    return std::type_identity<typename T::NodeBase>();
  } else if constexpr (requires { typename T::NodeBase::KivSelf; }) {
    return std::type_identity<typename T::NodeBase::KivSelf>();
  } else if constexpr (requires { typename T::KivBase; }) {
    return std::type_identity<typename T::KivBase>();
  } else {
    return std::type_identity<void>();
  }
}

/// Whether the class names what several classes share itself, rather than inheriting the name.
template <class T, class Base>
consteval bool namesRoles() {
  if constexpr (!requires { typename T::KivRoles; }) {
    return false;
  } else if constexpr (requires { typename Base::KivRoles; }) {
    return !std::is_same_v<typename T::KivRoles, typename Base::KivRoles>;
  } else {
    return true;
  }
}
template <class T, class Base>
consteval bool namesRows() {
  if constexpr (!requires { typename T::KivRows; }) {
    return false;
  } else if constexpr (requires { typename Base::KivRows; }) {
    return !std::is_same_v<typename T::KivRows, typename Base::KivRows>;
  } else {
    return true;
  }
}

/// The class that declares the rows of `T`: `T`, or what it shares with others.
template <class T, class Base>
consteval auto rowsOf() {
  if constexpr (namesRows<T, Base>()) {
    return std::type_identity<typename T::KivRows>();
  } else {
    return std::type_identity<T>();
  }
}

/// Whether the class has attributes of its own.
template <class T, class Base>
consteval bool declaresRows() {
  if constexpr (!requires { T::kFieldBase; }) {
    return false;
  } else if constexpr (requires { Base::kFieldBase; }) {
    return T::kFieldBase != Base::kFieldBase;
  } else {
    return true;
  }
}

template <class T, std::size_t... offsets>
consteval std::size_t attributeCount(std::index_sequence<offsets...>) {
  return (std::size_t{HasAttribute<T, offsets>} + ...);
}

template <class T>
constexpr auto attributeTable() {
  constexpr auto block = std::make_index_sequence<kFieldBlock>{};
  std::array<AttributeFact, attributeCount<T>(block)> table{};
  std::size_t row = 0;
  const auto add = [&]<std::size_t offset>(std::integral_constant<std::size_t, offset>) {
    if constexpr (HasAttribute<T, offset>) {
      AttributeFact fact = T::attributeFact(FieldAt<T, offset>{});
      if constexpr (requires { T::attributeUse(FieldAt<T, offset>{}); }) {
        fact.access = &kAccess<T, offset>;
      }
      table[row++] = fact;
    }
  };
  [&]<std::size_t... offsets>(std::index_sequence<offsets...>) {
    (add(std::integral_constant<std::size_t, offsets>{}), ...);
  }
  (block);
  return table;
}

/// The attribute table of a class, collected from its declarations.
template <class T>
inline constexpr auto kAttributes = attributeTable<T>();

/// The text form declared by the class as `void textAppend(std::string& text) const`; for a class
/// whose `value()` is a number, its digits; otherwise none.
template <class T>
consteval auto textAppendFor() -> void (*)(const void*, std::string&) {
  if constexpr (std::is_base_of_v<Fenrik::Node, T>) {
    return nullptr;
  } else {
    return [](const void* value, std::string& text) {
      kValueType<T>.ops->textAppend(kValueType<T>, value, text);
    };
  }
}

/// Compiled once for all who construct a default object by its type.
template <class T>
[[gnu::noinline, gnu::cold]] Fenrik::Ptr<T> made() {
  return Fenrik::ptrIsImpl<T>();
}

template <class T>
constexpr TypeFacts typeFacts() {
  using Base = typename decltype(baseOf<T>())::type;
  TypeFacts facts{.name = bareTypeName<T>(), .attributes = {}, .textAppend = textAppendFor<T>()};
  if constexpr (requires { T::kTypeName; }) facts.name = T::kTypeName;
  if constexpr (declaresRows<T, Base>()) {
    facts.attributes = kAttributes<typename decltype(rowsOf<T, Base>())::type>;
  }
  if constexpr (!std::is_void_v<Base>) facts.base = &typeOf<Base>;
  if constexpr (namesRoles<T, Base>()) facts.roles = T::KivRoles::kTypes.data();
  if constexpr (requires { T::kivConstruct; }) {
    facts.construct = &T::kivConstruct;
  } else if constexpr (std::is_default_constructible_v<T> &&
                       requires { requires std::is_same_v<typename T::Ptr, Fenrik::Ptr<T>>; }) {
    facts.construct = [](void* out, void* const*) { ::new (out) Fenrik::Ptr<T>(made<T>()); };
  }
  return facts;
}

}  // namespace Impl

namespace Impl {

template <class Classes>
struct FactsOf;
template <Fenrik::FixedString moduleName, class... Types>
struct FactsOf<Module<moduleName, Types...>> {
  static constexpr std::array<TypeFacts, sizeof...(Types)> kTypes{typeFacts<Types>()...};
  static constexpr ModuleFacts kFacts{moduleName.view(), kTypes};
};

}  // namespace Impl
}  // namespace Kiv

namespace Fenrik {

/// Names a row of a class's attribute table by its number.
class FieldDescriptor {
 public:
  constexpr FieldDescriptor(FieldId fieldId) noexcept : fieldId_(fieldId) {}
  constexpr FieldDescriptor(const Kiv::AttributeFact& row) noexcept : fieldId_(row.fieldId) {}

  constexpr FieldId fieldId() const noexcept { return fieldId_; }

 private:
  FieldId fieldId_;
};

/// The inspection of one class. `object` is an object of class `T` or of one derived from it.
template <class T, class Dummy = void>
struct HideMe {
  /// Reads (`op` 0), writes (1) or calls (10) one attribute. A read, and a call of a function with
  /// a result, constructs the value in `out`, in storage for the attribute's type; a pointer with a
  /// reference of its own. A write takes the value at `arg`. A call takes the arguments at `arg`
  /// and `arg2`; one with more than two takes an array of their addresses at `arg`.
  ///
  /// Returns 0 on success, 1 if the attribute does not allow the operation, 2 if there is no such
  /// attribute; nothing has changed then. An exception of the function passes through.
  static unsigned char inspectOperation(void* out, void* object, FieldDescriptor field,
                                        unsigned char op, void* arg, void* arg2) {
    return Kiv::inspectOperation(Kiv::typeOf<T>(), out, object, field.fieldId(), op, arg, arg2);
  }

  /// Makes an iterator over a collection: at the start if `key` is null, otherwise at `*key`, or at
  /// the end if the key is absent. Gives the address of its `Kiv::IteratorOperations`. Null if the
  /// attribute is no collection, or if memory is short. The object must outlive the iterator.
  static void* genericIfIterator(void* object, void** key, FieldDescriptor field,
                                 const void** ops) {
    return Kiv::genericIfIterator(Kiv::typeOf<T>(), object, key, field.fieldId(), ops);
  }
  static void iterObj(Kiv::KivAttr attribute, const void* iterator, void* out) {
    Kiv::kIteratorOperations.iterObj(attribute, iterator, out);
  }
  static void iterKey(Kiv::KivAttr attribute, const void* iterator, void* out) {
    Kiv::kIteratorOperations.iterKey(attribute, iterator, out);
  }
  static bool iterNonnull(Kiv::KivAttr attribute, const void* iterator) {
    return Kiv::kIteratorOperations.iterNonnull(attribute, iterator);
  }
  static void iterInc(Kiv::KivAttr attribute, void* iterator) {
    Kiv::kIteratorOperations.iterInc(attribute, iterator);
  }
  static void iterDel(Kiv::KivAttr attribute, void* iterator) {
    Kiv::kIteratorOperations.iterDel(attribute, iterator);
  }

  /// Constructs an object through its factory from the addresses of the arguments, and its first
  /// pointer in `out`. False if the class offers no construction.
  static bool genericIfConstructFromCtorArgs(void* out, void* const* args) {
    const Kiv::TypeFacts* const facts = Kiv::typeOf<T>().facts();
    if (facts == nullptr || facts->construct == nullptr) return false;
    facts->construct(out, args);
    return true;
  }
};

/// The modules of the process.
struct QUARNBASTIL_EXPORT ModuleInspectData {
  /// Registers a module. Called once for each, while the program or a library loads.
  static void loaded(const Kiv::ModuleFacts& module);
  /// The module's library is being unloaded.
  static void unloaded(const Kiv::ModuleFacts& module) noexcept;
  /// In order of registration.
  static std::vector<const Kiv::ModuleFacts*> all();
};

/// Registers a module for the lifetime of the object, a static of the module's source.
class ModuleRegistration {
 public:
  explicit ModuleRegistration(const Kiv::ModuleFacts& module) : module_(module) {
    ModuleInspectData::loaded(module);
  }
  ~ModuleRegistration() { ModuleInspectData::unloaded(module_); }
  ModuleRegistration(const ModuleRegistration&) = delete;
  ModuleRegistration& operator=(const ModuleRegistration&) = delete;

 private:
  const Kiv::ModuleFacts& module_;
};

}  // namespace Fenrik

#define KIV_JOINED_AS(a, b) a##b
#define KIV_JOINED(a, b) KIV_JOINED_AS(a, b)

#define KIV_REGISTERED_MODULE(Export, ...)                                    \
  template <>                                                                 \
  Export const ::Kiv::ModuleFacts& __VA_ARGS__::Classes::facts() noexcept {   \
    return ::Kiv::Impl::FactsOf<__VA_ARGS__::Classes>::kFacts;                \
  }                                                                           \
  static const ::Fenrik::ModuleRegistration KIV_JOINED(kivModuleRegistration, \
                                                       __COUNTER__)(__VA_ARGS__::facts())

/// Defines a module and registers it while the program loads. One line, outside all namespaces, in
/// the source that its classes come from. The second form is for classes of an unnamed namespace.
#define KIV_MODULE(...) KIV_REGISTERED_MODULE(QUARNBASTIL_EXPORT, __VA_ARGS__)
#define KIV_LOCAL_MODULE(...) KIV_REGISTERED_MODULE(, __VA_ARGS__)
