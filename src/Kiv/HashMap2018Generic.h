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

/// The untyped map: a directory of buckets that grows and shrinks by one bucket at a time.
///
/// Members are ordered by (spread hash, key), independently of the directory; a bucket holds the
/// members whose spread hashes have the same leading bits. Growing splits the next bucket in turn,
/// shrinking joins two. While a directory level is partly split, the split part is in `fine_` and
/// the rest in `coarse_`, so nothing is copied all at once; the longest pause of an insertion is
/// one split.
///
/// Threads: one at a time.
///
/// I1. The map is consistent before a value that leaves it is destroyed: the value's destructor may
///     use the map.
/// I2. No change affects what an iterator reads: a bucket held by an iterator is replaced by a
///     changed copy and marked as detached.
/// I3. A pointer to a node is valid until the next change of the map.
///
/// Cost: a look-up reads a directory slot, the words, the header and one node. An insertion or
/// deletion moves half of a bucket's nodes, and every eighth splits or joins a bucket. Buckets have
/// eight nodes on average.
class QUARNBASTIL_EXPORT HashMap2018Generic {
 public:
  using KeyAndRhashSeedArg = HashHelper::KeyAndRhashSeedArg;
  using KeyString = HashHelper::KeyString;

  /// Creates an empty map with at least `bucketsMin` buckets, a power of two. With `keepBuckets`
  /// the map shrinks only when all members are deleted at once.
  HashMap2018Generic(const HashMap2018VTable* vt, HashMap2018MapIndex bucketsMin, bool keepBuckets);
  HashMap2018Generic(const HashMap2018Generic&) = delete;
  HashMap2018Generic& operator=(const HashMap2018Generic&) = delete;
  /// REQUIRES: the last call was `emptyAllBuckets(vt, true)`.
  ~HashMap2018Generic();

  /// The node of a key, or null.
  const HashMap2018LinkNodeBase* lookupNodeG(const HashMap2018VTable* vt,
                                             const KeyAndRhashSeedArg& key) const;
  /// Look-up in a collection whose untyped keys are `std::string_view`.
  const HashMap2018LinkNodeBase* lookupNodeG(const HashMap2018VTable* vt,
                                             const KeyString& key) const;

  /// The node of a key, to change its value; or null. Iterators at the node keep the old value.
  HashMap2018LinkNodeBase* lookupNodeForChangeG(const HashMap2018VTable* vt,
                                                const KeyAndRhashSeedArg& key);

  /// Inserts a node by moving its content. REQUIRES: the key is absent.
  void newMemberG(const HashMap2018VTable* vt, const KeyAndRhashSeedArg& key,
                  HashMap2018LinkNodeBase&& node);

  /// Deletes a member. False if there is none. The node is moved to the storage `out`; the value is
  /// the first part of a node. If an iterator holds the member, it keeps the node, and `out`
  /// receives a copy.
  bool deleteMemberG(const HashMap2018VTable* vt, const KeyAndRhashSeedArg& key, void* out);

  /// Deletes all members. The map remains usable.
  void _memberDelAll(const HashMap2018VTable* vt) { emptyAllBuckets(vt, false); }

  /// Releases all buckets. With `final` the map also releases its directory, regardless of its
  /// minimum of buckets; it may then only be destroyed, or used as a map with one bucket.
  void emptyAllBuckets(const HashMap2018VTable* vt, bool final);

  unsigned memberCount() const noexcept { return memberCount_; }
  unsigned bucketCount() const noexcept { return (1u << level_) + splitCount_; }

  /// Look-up for typed code: `keyIs(node)` compares the keys. With `hashTellsKey` different keys
  /// have different hashes, and no node is read.
  template <bool hashTellsKey, class KeyIs>
  [[gnu::always_inline]] const HashMap2018LinkNodeBase* lookup(std::size_t nodeSize,
                                                               std::uint32_t rhash,
                                                               const KeyIs& keyIs) const {
    const std::uint32_t hash = spread(rhash);
    const HashMap2018BucketLink link = linkOf(hash);
    if (!link.usual()) [[unlikely]]
      return lookupUnusual(link, nodeSize, hash, keyIs);
    const HashMap2018BucketHdr* const hdr = link.usualHdr();
    // Words of empty slots and the header may match, too; their indices are above those of occupied
    // slots.
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

  /// Result of `newMemberUsual`: the existing member, or null and whether the new one was inserted.
  struct Inserted {
    const HashMap2018LinkNodeBase* present;
    bool done;
  };

  /// Looks a key up and inserts it if it is absent, provided that this changes only one bucket of
  /// default capacity; otherwise returns `done == false` and changes nothing. `Operations` are
  /// those of the node's type; `makeNode()` returns the node to insert. The first word not less
  /// than the hash determines both whether the key can exist and where it is inserted.
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
      // A different key with the same hash is handled by the generic form.
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

  /// Fast path of deleteMemberG. False, with nothing changed, if the generic form is needed.
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
    // Two equal hashes, or a bucket becoming empty, are handled by the generic form.
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

  /// The upper bits of the hash select a bucket. Multiplication by the golden ratio spreads every
  /// bit into them and is injective.
  static std::uint32_t spread(std::uint32_t rhash) noexcept { return rhash * 0x9e3779b1u; }

  /// A fine number is the upper `level_` + 1 bits of the hash, a coarse number the upper `level_`
  /// bits.
  std::uint32_t fineOf(std::uint32_t hash) const noexcept { return hash >> fineShift_; }

  Link& linkOf(std::uint32_t hash) const noexcept {
    const std::uint32_t fine = fineOf(hash);
    const std::uint32_t coarse = fine >> 1;
    return coarse < splitCount_ ? fine_[fine] : coarse_[coarse];
  }

  /// Buckets have positions 0 to `bucketCount()` - 1, in the order of their members.
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
    // Maps with one member, such as those keyed by unit or table, are looked up most often of
    // these.
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

  /// Buckets selected by `level_` hash bits. Those below `splitCount_` have been replaced in
  /// `fine_`.
  Link* coarse_;
  /// Buckets selected by `level_` + 1 hash bits, as far as split; null if none is.
  Link* fine_ = nullptr;
  /// Directory of a map with a single bucket.
  Link single_;
  /// Number of coarse buckets that are split.
  std::uint32_t splitCount_ = 0;
  /// Number of hash bits that select a coarse bucket.
  std::uint8_t level_ = 0;
  /// Shift from hash to fine number: 31 - `level_`.
  std::uint8_t fineShift_ = 31;
  /// Lowest level to which the directory shrinks.
  std::uint8_t levelMin_;
  /// Whether buckets are never joined.
  bool keepBuckets_;
  /// Above `splitAbove_` members a bucket is split; below `joinBelow_` two are joined.
  std::uint32_t splitAbove_;
  std::uint32_t joinBelow_;
  /// Members of the map.
  std::uint32_t memberCount_ = 0;
};

}  // namespace Kiv
