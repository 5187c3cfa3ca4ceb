#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>

#include "Fenrik/Export.h"
#include "Kiv/HashHelper.h"
#include "Kiv/HashMap2018Bucket.h"
#include "Kiv/HashMap2018Usual.h"
#include "Kiv/HashMap2018VTable.h"
#include "Kiv/HashMap2018Words.h"

namespace Kiv {

/// The map without its types: a directory of buckets that grows and shrinks by one bucket at a
/// time.
///
/// Members have one order, that of (spread hash, key), whatever the directory looks like; a bucket
/// holds the members whose spread hashes begin with the same bits. Growing splits the next bucket
/// in turn in two, shrinking joins two again. While a level of the directory is half split, the
/// split part stands in `fine_` and the rest in `coarse_`, so nothing is ever copied at once; the
/// largest pause of an insert is one split.
///
/// Threads: one at a time.
///
/// I1. The map is in a state complete in itself before a value that leaves it is destroyed: the
///     destructor of a value may use the map.
/// I2. No change touches what an iterator reads: a bucket that an iterator holds is replaced by a
///     changed copy, and marked as detached.
/// I3. A pointer to a node holds until the next change of the map.
///
/// Cost: a lookup reads a directory slot, the words, the header and one node. An insert or delete
/// moves half a bucket's nodes, and every eighth splits or joins a bucket; they average eight
/// nodes.
class QUARNBASTIL_EXPORT HashMap2018Generic {
 public:
  using KeyAndRhashSeedArg = HashHelper::KeyAndRhashSeedArg;
  using KeyString = HashHelper::KeyString;

  /// Makes an empty map that never has fewer than `bucketsMin` buckets, a power of two. With
  /// `keepBuckets` it does not shrink when members are deleted, only when all are at once.
  HashMap2018Generic(const HashMap2018VTable* vt, HashMap2018MapIndex bucketsMin, bool keepBuckets);
  HashMap2018Generic(const HashMap2018Generic&) = delete;
  HashMap2018Generic& operator=(const HashMap2018Generic&) = delete;
  /// REQUIRES: `emptyAllBuckets(vt, true)` was called last.
  ~HashMap2018Generic();

  /// The node of a key, or null.
  const HashMap2018LinkNodeBase* lookupNodeG(const HashMap2018VTable* vt,
                                             const KeyAndRhashSeedArg& key) const;
  /// Look-up in a collection whose untyped keys are `std::string_view`.
  const HashMap2018LinkNodeBase* lookupNodeG(const HashMap2018VTable* vt,
                                             const KeyString& key) const;

  /// The node of a key for changing its value, or null. Iterators go on to see the old value.
  HashMap2018LinkNodeBase* lookupNodeForChangeG(const HashMap2018VTable* vt,
                                                const KeyAndRhashSeedArg& key);

  /// Inserts a node by moving its contents. REQUIRES: the key was looked up and is absent.
  void newMemberG(const HashMap2018VTable* vt, const KeyAndRhashSeedArg& key,
                  HashMap2018LinkNodeBase&& node);

  /// Deletes a member; false if there is none. `out` is storage for a node, which the deleted one
  /// is moved into; a value stands first in its node. An iterator that holds the member keeps it as
  /// it was, and `out` gets a copy.
  bool deleteMemberG(const HashMap2018VTable* vt, const KeyAndRhashSeedArg& key, void* out);

  /// Deletes all members. The map stays usable.
  void _memberDelAll(const HashMap2018VTable* vt) { emptyAllBuckets(vt, false); }

  /// Releases every bucket. With `final` the map goes down to no storage at all, whatever its
  /// smallest number of buckets; it is then destroyed next or used again as a map with one.
  void emptyAllBuckets(const HashMap2018VTable* vt, bool final);

  unsigned memberCount() const noexcept { return memberCount_; }
  unsigned bucketCount() const noexcept { return (1u << level_) + splitCount_; }

  /// The lookup itself, for code that knows the type: `keyIs(node)` compares the keys. With
  /// `hashTellsKey` no two keys have one hash: then no node is looked at.
  template <bool hashTellsKey, class KeyIs>
  [[gnu::always_inline]] const HashMap2018LinkNodeBase* lookup(std::size_t nodeSize,
                                                               std::uint32_t rhash,
                                                               const KeyIs& keyIs) const {
    const std::uint32_t hash = spread(rhash);
    const HashMap2018BucketLink link = linkOf(hash);
    if (!link.usual()) [[unlikely]]
      return lookupUnusual(link, nodeSize, hash, keyIs);
    const HashMap2018BucketHdr* const hdr = link.usualHdr();
    // What the words of empty slots and the header match comes behind what occupied slots do.
    unsigned mask = Impl::equalWords(link.usualWords(), hash);
    while (mask != 0) {
      const auto index = static_cast<unsigned>(std::countr_zero(mask));
      if (index >= hdr->size()) [[unlikely]]
        break;
      const HashMap2018LinkNodeBase* const node = nodeAt(hdr->nodes(), nodeSize, index);
      if (hashTellsKey || keyIs(node)) [[likely]]
        return node;
      mask &= mask - 1;
    }
    return nullptr;
  }

  /// What `newMemberUsual` came to: the member that was there already, or null and whether the new
  /// one is in.
  struct Inserted {
    const HashMap2018LinkNodeBase* present;
    bool done;
  };

  /// Looks a key up and, if it is absent, does what `newMemberG` does, if that takes no more than a
  /// change of one bucket of usual capacity; otherwise says so and does nothing. `Operations` are
  /// those of the node's type, `makeNode()` gives the node to insert. The first word that is not
  /// less than the hash says both whether the key may be there and where it goes.
  template <class Operations, class KeyIs, class MakeNode>
  [[gnu::always_inline]] Inserted newMemberUsual(std::uint32_t rhash, const KeyIs& keyIs,
                                                 const MakeNode& makeNode) {
    const std::uint32_t hash = spread(rhash);
    const Link link = linkOf(hash);
    if (!link.usual()) [[unlikely]]
      return {nullptr, false};
    std::uint32_t* const words = link.usualWords();
    HashMap2018BucketHdr* const hdr = link.usualHdr();
    const unsigned size = hdr->size();
    const unsigned index = Impl::countLesserUsual(words, size, hash);
    if (words[index] == hash && index < size) [[unlikely]] {
      const HashMap2018LinkNodeBase* const node =
          nodeAt(hdr->nodes(), sizeof(typename Operations::Node), index);
      // Another key of the same hash is left to the generic form.
      return Operations::kHashTellsKey || keyIs(node) ? Inserted{node, true}
                                                      : Inserted{nullptr, false};
    }
    if (size == Link::kUsualCapacity || hdr->shared() || memberCount_ >= splitAbove_) [[unlikely]]
      return {nullptr, false};
    typename Operations::Node&& node = makeNode();
    HashMap2018BucketHdr grown = *hdr;
    grown.sizeIs(size + 1);
    Operations::insertUsual(words, size, index, node);
    words[index] = hash;
    *hdr = grown;
    ++memberCount_;
    return {nullptr, true};
  }

  /// Fast path of `deleteMemberG`. False, with nothing done, when the generic form must decide.
  template <class Operations, class KeyIs>
  [[gnu::always_inline]] bool deleteMemberUsual(std::uint32_t rhash, const KeyIs& keyIs,
                                                void* out) noexcept {
    const std::uint32_t hash = spread(rhash);
    const Link link = linkOf(hash);
    if (!link.usual() || memberCount_ <= joinBelow_) [[unlikely]]
      return false;
    std::uint32_t* const words = link.usualWords();
    HashMap2018BucketHdr* const hdr = link.usualHdr();
    const unsigned size = hdr->size();
    const unsigned mask = Impl::equalWords(words, hash) & ((1u << size) - 1);
    // Two of one hash, and what leaves its bucket empty, are left to the generic form.
    if (mask == 0 || (mask & (mask - 1)) != 0 || size == 1 || hdr->shared()) [[unlikely]]
      return false;
    const auto index = static_cast<unsigned>(std::countr_zero(mask));
    if (!Operations::kHashTellsKey &&
        !keyIs(nodeAt(hdr->nodes(), sizeof(typename Operations::Node), index))) [[unlikely]] {
      return false;
    }
    HashMap2018BucketHdr shrunk = *hdr;
    shrunk.sizeIs(size - 1);
    Operations::eraseUsual(words, size, index, out);
    *hdr = shrunk;
    --memberCount_;
    return true;
  }

 private:
  friend class HashMap2018IteratorGeneric;

  using Link = HashMap2018BucketLink;

  /// The bits that select a bucket are the upper ones; multiplying by the golden ratio brings every
  /// bit of the hash into them, and maps different hashes to different ones.
  static std::uint32_t spread(std::uint32_t rhash) noexcept { return rhash * 0x9e3779b1u; }

  /// A fine number has `level_` + 1 upper bits of the hash, a coarse one `level_`.
  std::uint32_t fineOf(std::uint32_t hash) const noexcept { return hash >> fineShift_; }

  Link& linkOf(std::uint32_t hash) const noexcept {
    const std::uint32_t fine = fineOf(hash);
    const std::uint32_t coarse = fine >> 1;
    return coarse < splitCount_ ? fine_[fine] : coarse_[coarse];
  }

  /// Buckets have positions 0 to `bucketCount()` - 1 in the order of their members.
  unsigned positionOf(std::uint32_t hash) const noexcept {
    const std::uint32_t fine = fineOf(hash);
    return fine >> 1 < splitCount_ ? fine : (fine >> 1) + splitCount_;
  }
  Link linkAt(unsigned position) const noexcept {
    return position < 2 * splitCount_ ? fine_[position] : coarse_[position - splitCount_];
  }

  template <class KeyIs>
  [[gnu::noinline]] static const HashMap2018LinkNodeBase* lookupUnusual(Link link,
                                                                        std::size_t nodeSize,
                                                                        std::uint32_t hash,
                                                                        const KeyIs& keyIs) {
    if (!link) return nullptr;
    HashMap2018BucketHdr* const hdr = link.hdr();
    const auto node = [&](unsigned index) { return nodeAt(hdr->nodes(), nodeSize, index); };
    // Maps of one member, as by unit or by table, are asked more than all others of their kind.
    if (hdr->size() == 1) {
      return hdr->words()[0] == hash && keyIs(node(0)) ? node(0) : nullptr;
    }
    const unsigned index =
        Impl::findWord(hdr->words(), hdr->size(), hash, [&](unsigned i) { return keyIs(node(i)); });
    return index != hdr->size() ? node(index) : nullptr;
  }

  void directoryInit();
  void levelIs(unsigned level) noexcept;
  void directoryFree(Link* directory);
  void limitsUpdate() noexcept;
  void splitNext(const HashMap2018VTable* vt);
  void joinLast(const HashMap2018VTable* vt);

  /// Buckets of `level_` hash bits; those below `splitCount_` have moved to `fine_`.
  Link* coarse_;
  /// Buckets of `level_` + 1 bits, split so far; null while none is.
  Link* fine_ = nullptr;
  /// The directory of a map with one bucket.
  Link single_;
  /// Coarse buckets that are split.
  std::uint32_t splitCount_ = 0;
  /// Hash bits that select a coarse bucket.
  std::uint8_t level_ = 0;
  /// Gives the fine number of a hash: 31 - `level_`.
  std::uint8_t fineShift_ = 31;
  /// The level below which the directory does not shrink.
  std::uint8_t levelMin_;
  /// Never join buckets.
  bool keepBuckets_;
  /// Above this many members a bucket is split, below that many two are joined.
  std::uint32_t splitAbove_;
  std::uint32_t joinBelow_;
  /// Members of the map.
  std::uint32_t memberCount_ = 0;
};

}  // namespace Kiv
