#pragma once

#include <cstdint>
#include <optional>
#include <type_traits>
#include <utility>

#include "Fenrik/Export.h"
#include "Kiv/HashHelper.h"
#include "Kiv/HashMap2018Generic.h"
#include "Kiv/HashMap2018Iterator.h"
#include "Kiv/HashMap2018Node.h"
#include "Kiv/HashMap2018Operations.h"

namespace Kiv {

/// A keyed collection: the typed interface of `HashMap2018Generic`. `HN_Tag` is the node type,
/// `Hm2018NI` or `Hm2018NE`; `Key` and `Value` are those of the node.
///
///     Kiv::HashMap2018<HN_Lamp, LampKey, Fenrik::Ptr<Lamp>> lamps;
///     lamps.newMember(HN_Lamp(lamp));                          // the key is not there yet
///     if (const HN_Lamp* node = lamps[key]) node->value();
///     for (const HN_Lamp& node : lamps) lamps.memberDel(node.key());
///
/// Threads: one at a time. The iteration order is unspecified and differs between processes and
/// collections. A pointer to a node is valid until the next change of the map; a node shown by an
/// iterator, until the iterator moves.
template <class HN_Tag, class Key, class Value>
class QUARNBASTIL_EXPORT HashMap2018 {
  static_assert(std::is_same_v<Key, typename HN_Tag::Key>);
  static_assert(std::is_same_v<Value, typename HN_Tag::Value>);

 public:
  using Node = HN_Tag;
  using Traits = HashMap2018KeyTraits<Key>;
  using Lookup = typename Traits::Lookup;
  using KeyArg = HashHelper::KeyAndRhashSeedArg;

  /// Operations on the collection's nodes, one constant record per collection.
  static constexpr HashMap2018VTable vt_ = Impl::NodeOperations<Node>::table();

  /// Sentinel for the end of an iteration.
  struct End {};

  /// Iterator; see `HashMap2018IteratorGeneric` for its behaviour under changes. `*it` is the node
  /// as it was when the iterator reached it.
  class Iterator {
   public:
    using difference_type = std::ptrdiff_t;
    using value_type = Node;

    explicit Iterator(HashMap2018IteratorGeneric position) noexcept
        : position_(std::move(position)) {}

    explicit operator bool() const noexcept { return !position_.atEnd(); }
    const Node& operator*() const noexcept { return typed(position_.currNodeMaybeStale()); }
    const Node* operator->() const noexcept { return &**this; }
    decltype(auto) key() const { return (**this).key(); }

    /// The member's current node, or null if the member has been deleted.
    const Node* nodeNow() const { return static_cast<const Node*>(position_.currNodeNonStale()); }

    Iterator& operator++() {
      position_.advance();
      return *this;
    }
    Iterator operator++(int) {
      Iterator before = *this;
      ++*this;
      return before;
    }

    friend bool operator==(const Iterator& a, const Iterator& b) noexcept {
      return a.position_ == b.position_;
    }
    friend bool operator==(const Iterator& a, End) noexcept { return !a; }

   private:
    HashMap2018IteratorGeneric position_;
  };

  HashMap2018() : generic_(&vt_, HashMap2018MapIndex(1), false) {}
  ~HashMap2018() { generic_.emptyAllBuckets(&vt_, true); }

  unsigned memberCount() const noexcept { return generic_.memberCount(); }

  /// The node of a key, or null.
  [[gnu::always_inline]] const Node* operator[](const Key& key) const {
    const Lookup& lookupKey = Traits::lookup(key);
    return lookup(lookupKey, Traits::hash(lookupKey, seed_));
  }
  /// As above for string keys, without constructing a string.
  const Node* operator[](
      std::string_view text) const requires std::is_same_v<Lookup, std::string_view> {
    return lookup(text, HashHelper::KeyString(text, seed_).rhash);
  }

  bool memberHas(const Key& key) const { return (*this)[key] != nullptr; }

  /// Inserts a node. REQUIRES: its key is not in the map.
  void newMember(Node node) {
    const auto& key = node.key();
    memberElseNew(key, [&]() -> Node&& { return std::move(node); });
  }

  /// The node of a key, or null after inserting the node returned by `makeNode()`, which must have
  /// that key. One search serves both. REQUIRES: `makeNode` does not change the map.
  template <class MakeNode>
  [[gnu::always_inline]] const Node* memberElseNew(const Key& key, const MakeNode& makeNode) {
    const Lookup& lookupKey = Traits::lookup(key);
    const KeyArg arg{&lookupKey, Traits::hash(lookupKey, seed_)};
    const auto [present, done] =
        generic_.newMemberUsual<Operations>(arg.rhash, keyIs(lookupKey), makeNode);
    if (done) [[likely]]
      return static_cast<const Node*>(present);
    return memberElseNewG(arg, makeNode);
  }

  /// The node of a key, to be changed through `fwkValueIs`; or null. Iterators at the node keep the
  /// old value.
  Node* nodeForChange(const Key& key) {
    const Lookup& lookupKey = Traits::lookup(key);
    return static_cast<Node*>(
        generic_.lookupNodeForChangeG(&vt_, {&lookupKey, Traits::hash(lookupKey, seed_)}));
  }

  /// Deletes a member and returns its node, or nullopt if there is none.
  std::optional<Node> memberDel(const Key& key) {
    const Lookup& lookupKey = Traits::lookup(key);
    union Out {
      Out() noexcept {}  // NOLINT(modernize-use-equals-default): would be deleted
      ~Out() {}          // NOLINT(modernize-use-equals-default)
      Node node;
    } out;
    const KeyArg arg{&lookupKey, Traits::hash(lookupKey, seed_)};
    if (!generic_.deleteMemberUsual<Operations>(arg.rhash, keyIs(lookupKey), &out.node) &&
        !generic_.deleteMemberG(&vt_, arg, &out.node)) {
      return std::nullopt;
    }
    std::optional<Node> deleted(std::move(out.node));
    out.node.~Node();
    return deleted;
  }

  void memberDelAll() { generic_._memberDelAll(&vt_); }

  Iterator begin() const { return Iterator({generic_, &vt_}); }
  End end() const noexcept { return {}; }
  /// An iterator at the key, or at the end if the key is absent.
  Iterator iteratorFromKey(const Key& key) const {
    const Lookup& lookupKey = Traits::lookup(key);
    const KeyArg arg{&lookupKey, Traits::hash(lookupKey, seed_)};
    return Iterator({generic_, &vt_, arg});
  }

  const HashMap2018Generic& generic() const noexcept { return generic_; }

  static std::uint32_t seed() noexcept { return HashHelper::hashSeed32() ^ Node::kSeed; }

 private:
  using Operations = Impl::NodeOperations<Node>;

  static auto keyIs(const Lookup& key) noexcept {
    return [&key](const HashMap2018LinkNodeBase* node) {
      return Traits::equal(key, typed(node).key());
    };
  }

  static const Node& typed(const HashMap2018LinkNodeBase* node) noexcept {
    return *static_cast<const Node*>(node);
  }

  [[gnu::always_inline]] const Node* lookup(const Lookup& key, std::uint32_t rhash) const {
    return static_cast<const Node*>(
        generic_.lookup<Traits::kHashTellsKey>(sizeof(Node), rhash, keyIs(key)));
  }

  template <class MakeNode>
  [[gnu::noinline]] const Node* memberElseNewG(const KeyArg& arg, const MakeNode& makeNode) {
    const HashMap2018LinkNodeBase* const present = generic_.lookupNodeG(&vt_, arg);
    if (present == nullptr) generic_.newMemberG(&vt_, arg, makeNode());
    return static_cast<const Node*>(present);
  }

  const std::uint32_t seed_ = seed();
  HashMap2018Generic generic_;
};

}  // namespace Kiv
