#pragma once

#include <optional>
#include <type_traits>
#include <utility>

#include "Fenrik/Attribute.h"
#include "Fenrik/Exception.h"
#include "Fenrik/Module.h"
#include "Fenrik/Publisher.h"
#include "Kiv/HashMap2018.h"

namespace Kiv::Impl {

template <class T>
inline constexpr bool kIsPtr = false;
template <class T>
inline constexpr bool kIsPtr<Fenrik::Ptr<T>> = true;

template <class Node>
using KeyedMap = HashMap2018<Node, typename Node::Key, typename Node::Value>;

template <class T>
bool sameValue(const T& a, const T& b) {
  if constexpr (requires { T::isEq(&a, &b); }) {
    return T::isEq(&a, &b);
  } else {
    return a == b;
  }
}

/// Mutators of a keyed attribute: they change the map, then announce the change, and do neither if
/// nothing differs. `Owner` is the class that declares the attribute.
template <class Owner, class Map>
class KeyedMutator {
 public:
  using Node = typename Map::Node;
  using Key = typename Node::Key;
  using Value = typename Node::Value;

  KeyedMutator(const Fenrik::Publisher& publisher, Fenrik::FieldId fieldId, Map& map) noexcept
      : publisher_(publisher), fieldId_(fieldId), map_(map) {}

  void valueIs(const Value& value) const requires Node::kInternalKey {
    if constexpr (kIsPtr<Value>) {
      if (value == nullptr) {
        const KivType owner = typeOf<Owner>();
        throwMutatorArgNullPointerException(owner.module(), owner.index(), fieldId_);
      }
    }
    const auto& key = typename Node::KeyFunktor()(value);
    insertOrReplace(key, value, [&] { return Node(value); });
  }

  /// In a map of pointers, a null value deletes the member.
  void valueIs(const Key& key, const Value& value) const requires(!Node::kInternalKey) {
    if constexpr (kIsPtr<Value>) {
      if (value == nullptr) {
        valueDel(key);
        return;
      }
    }
    insertOrReplace(key, value, [&] { return Node(key, value); });
  }

  /// Deletes a member and returns its value, or a default one if there was none.
  Value valueDel(const Key& key) const {
    if (map_.memberCount() == 0) return Value();
    std::optional<Node> deleted = map_.memberDel(key);
    if (!deleted) return Value();
    publish(deleted->key(), nullptr);
    return deleted->valueMoved();
  }

  /// Deletes all members at once; one by one if there is a subscriber.
  void valueDelAll() const {
    if (!publisher_.hasSubscriber()) {
      map_.memberDelAll();
      return;
    }
    for (const Node& node : map_) valueDel(node.key());
  }

 private:
  template <class MakeNode>
  void insertOrReplace(const Key& key, const Value& value, MakeNode makeNode) const {
    const Node* const present = map_.memberElseNew(key, makeNode);
    if (present == nullptr) {
      publishNode(key);
    } else if (!sameValue(present->value(), value)) {
      // Destroys the old value only after the announcement.
      Value other = value;
      map_.nodeForChange(key)->fwkValueIs(other);
      publishNode(key);
    }
  }

  /// Announces a copy of the current member, since a subscriber may change or delete the member
  /// before the next one is notified.
  void publishNode(const Key& key) const {
    if (!publisher_.hasSubscriber()) return;
    const Key toldKey = key;
    const Node toldNode = *map_[key];
    publish(toldKey, &toldNode);
  }

  void publish(const Key& key, const Node* node) const {
    publisher_.publishChangeRecursive(fieldId_, &key, node, &HashMap2018KeyTraits<Key>::isEq);
  }

  const Fenrik::Publisher& publisher_;
  Fenrik::FieldId fieldId_;
  Map& map_;
};

/// The member's value, or a default one if the key is absent.
template <class Map, class Key>
typename Map::Node::Value keyedValue(const Map& map, const Key& key) {
  const auto* const node = map[key];
  return node != nullptr ? node->value() : typename Map::Node::Value();
}

template <class Map, class Key>
std::optional<typename Map::Node::Value> keyedValueGet(const Map& map, const Key& key) {
  const auto* const node = map[key];
  return node != nullptr ? std::optional(node->value()) : std::nullopt;
}

}  // namespace Kiv::Impl

/// Each line declares one keyed attribute: its row in the class's attribute table, its map `name_`
/// and its operations. The last argument is the node type. The class derives from
/// `Fenrik::Publishing`. Access is `private` after the line.
///
///     KIV_KEYED(kFieldBase + 3, lamp, HN_Lamp);           // values that carry their keys
///       lamp(key)                 the value; a default one (null) if the key is absent
///       lampIs(value)             inserts, or replaces the value of the same key
///       lampDel(key)              deletes, and returns what there was, or a default value
///       lampDelAll()
///       lampHas(key), lampCount(), lampIterator(), lampIteratorFromKey(key)
///     KIV_KEYED_VALUE(kFieldBase + 4, power, HN_Power);   // keys beside the values: the same, but
///       powerIs(key, value)
///       powerGet(key)             the value if there is one
///
/// A mutator announces a change, if there is one, under the attribute's number, with the key and
/// the current node, which is null for a deleted member. A null pointer throws
/// `Fenrik::MutatorArgNullPointerException` in `lampIs`, and deletes the member in `powerIs`.
#define KIV_KEYED(number, name, ...)                             \
  KIV_KEYED_COMMON(number, name, __VA_ARGS__)                    \
  void name##Is(const typename __VA_ARGS__::Value& value) {      \
    KIV_KEYED_MUTATOR(number, name, __VA_ARGS__).valueIs(value); \
  }                                                              \
                                                                 \
 private:                                                        \
  ::Kiv::Impl::KeyedMap<__VA_ARGS__> name##_

#define KIV_KEYED_VALUE(number, name, ...)                                                        \
  KIV_KEYED_COMMON(number, name, __VA_ARGS__)                                                     \
  std::optional<typename __VA_ARGS__::Value> name##Get(const typename __VA_ARGS__::Key& key)      \
      const {                                                                                     \
    return ::Kiv::Impl::keyedValueGet(name##_, key);                                              \
  }                                                                                               \
  void name##Is(const typename __VA_ARGS__::Key& key, const typename __VA_ARGS__::Value& value) { \
    KIV_KEYED_MUTATOR(number, name, __VA_ARGS__).valueIs(key, value);                             \
  }                                                                                               \
                                                                                                  \
 private:                                                                                         \
  ::Kiv::Impl::KeyedMap<__VA_ARGS__> name##_

#define KIV_KEYED_COMMON(number, name, ...)                                                     \
  FENRIK_ATTRIBUTE_FACT(number, name, keyed)                                                    \
  typename __VA_ARGS__::Value name(const typename __VA_ARGS__::Key& key) const {                \
    return ::Kiv::Impl::keyedValue(name##_, key);                                               \
  }                                                                                             \
  typename __VA_ARGS__::Value name##Del(const typename __VA_ARGS__::Key& key) {                 \
    return KIV_KEYED_MUTATOR(number, name, __VA_ARGS__).valueDel(key);                          \
  }                                                                                             \
  void name##DelAll() { KIV_KEYED_MUTATOR(number, name, __VA_ARGS__).valueDelAll(); }           \
  bool name##Has(const typename __VA_ARGS__::Key& key) const { return name##_.memberHas(key); } \
  unsigned name##Count() const noexcept { return name##_.memberCount(); }                       \
  typename ::Kiv::Impl::KeyedMap<__VA_ARGS__>::Iterator name##Iterator() const {                \
    return name##_.begin();                                                                     \
  }                                                                                             \
  typename ::Kiv::Impl::KeyedMap<__VA_ARGS__>::Iterator name##IteratorFromKey(                  \
      const typename __VA_ARGS__::Key& key) const {                                             \
    return name##_.iteratorFromKey(key);                                                        \
  }

#define KIV_KEYED_MUTATOR(number, name, ...)                      \
  ::Kiv::Impl::KeyedMutator<std::remove_cvref_t<decltype(*this)>, \
                            ::Kiv::Impl::KeyedMap<__VA_ARGS__>>(  \
      this->publisher_, ::Fenrik::FieldId(number), name##_)
