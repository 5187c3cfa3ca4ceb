#pragma once

#include <cstring>
#include <new>
#include <type_traits>
#include <typeinfo>
#include <utility>

#include "Fenrik/Assert.h"
#include "Kiv/HashMap2018Node.h"
#include "Kiv/HashMap2018Usual.h"
#include "Kiv/HashMap2018VTable.h"
#include "OvSlab/AllocTrackTypeInfo.h"
#include "OvSlab/OvSlab.h"

namespace Kiv::Impl {

/// Operations of one collection on its nodes, as stored in its `vt_`.
template <class NodeType>
struct QUARNBASTIL_EXPORT NodeOperations {
  using Node = NodeType;
  using Key = typename Node::Key;
  using Traits = HashMap2018KeyTraits<Key>;
  using Lookup = typename Traits::Lookup;
  using Base = HashMap2018LinkNodeBase;

  static_assert(std::is_nothrow_move_constructible_v<Node>, "nodes move within their buckets");
  static_assert(std::is_copy_constructible_v<Node>, "a bucket that an iterator holds is copied");
  static_assert(alignof(Node) <= HashMap2018BucketLink::kUnit, "see HashMap2018BucketLink");

  static constexpr bool kHashTellsKey = Traits::kHashTellsKey;
  static constexpr bool kPlain = std::is_trivially_copyable_v<Node>;

  /// Tracks the slots of the collection's buckets; null until the first one.
  inline static AllocTrackTypeInfo* slotTracker_ = nullptr;

  static const Node& typed(const Base* node) noexcept { return *static_cast<const Node*>(node); }
  static Node& typed(Base* node) noexcept { return *static_cast<Node*>(node); }

  static void bktHdrRefDec(const HashMap2018BucketHdr* hdr) {
    if (hdr->bktHdrRefDecHelper() != 0) return;
    AllocTrackTypeInfo::trackArrayDeallocation(HashMap2018BucketHdr::bucketHeaderTracker_, 1);
    AllocTrackTypeInfo::trackArrayDeallocation(slotTracker_, hdr->capacity());
    if constexpr (!std::is_trivially_destructible_v<Node>) {
      destroy(static_cast<Node*>(hdr->nodes()), static_cast<Node*>(hdr->nodes()) + hdr->size());
    }
    OvSlab::slabFreeOrStdFree(const_cast<std::uint32_t*>(hdr->words()), typeid(Node));
  }

  static bool keyEqualsNode(const void* key, const Base* node) {
    return Traits::equal(*static_cast<const Lookup*>(key), typed(node).key());
  }

  static int compareOrLruUnlink(const void* key, const Base* a, const Base* b) {
    const auto& right = typed(b).key();
    const auto compare = [&](const Lookup& left) {
      return Traits::equal(left, right) ? 0 : Traits::less(left, right) ? 1 : 2;
    };
    return a != nullptr ? compare(Traits::lookup(typed(a).key()))
                        : compare(*static_cast<const Lookup*>(key));
  }

  static void place(const HashMap2018VTable*, void* slot, Base* node, MoveOrCopy mode) {
    if (mode == MoveOrCopy::move) {
      ::new (slot) Node(std::move(typed(node)));
    } else {
      ::new (slot) Node(typed(node));
    }
  }

  static void shift(const HashMap2018VTable*, Base* nodes, Base* link, HashMap2018SlotIndex size,
                    HashMap2018SlotIndex index, int slotsToShift) {
    Node* const gap = static_cast<Node*>(nodes) + index.value();
    Node* const end = static_cast<Node*>(nodes) + size.value();
    if (slotsToShift < 0) {
      closeGap(gap, gap - slotsToShift, end);
      return;
    }
    openSlot(gap, end);
    std::swap(*gap, typed(link));
    FENRIK_ASSERT(slotsToShift == 1);
  }

  static void newBucketAssemble(const HashMap2018VTable* vt, HashMap2018SlotIndex capacity,
                                void* nodes, const HashMap2018NodeSourceColl& sources) {
    AllocTrackTypeInfo::trackArrayAllocation(
        &slotTracker_, typeid(Node), sizeof(Node) + sizeof(std::uint32_t), capacity.value());
    if constexpr (kPlain) {
      HashMap2018VTable::trivialNewBucketAssemble(vt, nodes, sources);
    } else {
      Node* next = static_cast<Node*>(nodes);
      for (unsigned run = 0; run < sources.runCount; ++run) next = append(next, sources.runs[run]);
    }
  }

  /// Insertion and deletion in a bucket of default capacity that starts at `words`. The caller
  /// writes the node's word and the header.
  [[gnu::always_inline]] static void insertUsual(std::uint32_t* words, unsigned size,
                                                 unsigned index, Node& node) noexcept {
    Node* const nodes = usualNodes(words);
    if constexpr (kMovedWithWords) {
      UsualSlots::open(words, index);
      ::new (bytes(nodes + index)) Node(std::move(node));
      return;
    }
    openElement<std::uint32_t>(words, index);
    if (index == size) {
      ::new (bytes(nodes + index)) Node(std::move(node));
    } else {
      openSlot(nodes + index, nodes + size);
      nodes[index] = std::move(node);
    }
  }

  [[gnu::always_inline]] static void eraseUsual(std::uint32_t* words, unsigned size, unsigned index,
                                                void* out) noexcept {
    Node* const nodes = usualNodes(words);
    if constexpr (kMovedWithWords) {
      // Not a move, which would store null and delay the wider loads of the next line.
      std::memcpy(out, bytes(nodes + index), sizeof(Node));
      UsualSlots::close(words, index);
    } else {
      ::new (out) Node(std::move(nodes[index]));
      closeGap(nodes + index, nodes + index + 1, nodes + size);
      closeElement<std::uint32_t>(words, index);
    }
  }

  static constexpr HashMap2018VTable table() {
    return {HashMap2018VTable::kControl,
            sizeof(Node),
            &bktHdrRefDec,
            &keyEqualsNode,
            kPlain ? &HashMap2018VTable::trivialPlace : &place,
            kPlain ? &HashMap2018VTable::trivialShift : &shift,
            &newBucketAssemble,
            &compareOrLruUnlink};
  }

 private:
  static constexpr bool kMovedWithWords = Node::kBytewise && sizeof(Node) == sizeof(std::uint64_t);

  static Node* usualNodes(std::uint32_t* words) noexcept {
    return static_cast<Node*>(reinterpret_cast<Base*>(words + kWordsPerStep));
  }

  static void* bytes(Node* node) noexcept { return node; }

  static void destroy(Node* first, const Node* end) noexcept {
    for (; first != end; ++first) first->~Node();
  }

  static void closeGap(Node* gap, Node* rest, Node* end) noexcept {
    if constexpr (Node::kBytewise) {
      destroy(gap, rest);
      std::memmove(bytes(gap), bytes(rest), sizeof(Node) * static_cast<std::size_t>(end - rest));
    } else {
      for (; rest != end; ++gap, ++rest) *gap = std::move(*rest);
      destroy(gap, end);
    }
  }

  /// Moves the nodes up by one. The slot at `gap` keeps a moved-from object that can be swapped.
  static void openSlot(Node* gap, Node* end) noexcept {
    ::new (end) Node(std::move(end[-1]));
    for (Node* slot = end - 1; slot != gap; --slot) *slot = std::move(slot[-1]);
  }

  static Node* append(Node* next, const HashMap2018NodeSourceColl::Run& run) noexcept {
    Node* const first = static_cast<Node*>(run.first);
    for (Node* node = first; node != first + run.count; ++node, ++next) {
      place(nullptr, next, node, run.mode);
    }
    return next;
  }
};

}  // namespace Kiv::Impl
