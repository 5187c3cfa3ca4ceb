#pragma once

#include <utility>

#include "Fenrik/Export.h"
#include "Kiv/HashMap2018Generic.h"

namespace Kiv {

/// Tag: construct the iterator at the end.
struct EndOfCollection {};

/// A position in a map that remains usable under any change of the map.
///
/// It holds a reference to its bucket and continues by the order of members, which no change
/// affects. A walk therefore visits each member that exists throughout exactly once, and
/// terminates, even while members are added and deleted and the map grows and shrinks.
///
/// Threads: that of the map. After the map's destruction an iterator may only be destroyed.
///
/// I1. `bucket_` is null exactly if the iterator is at the end.
///
/// Cost: a step within an unchanged bucket reads its header; a step to the next bucket reads the
/// directory; a step after a change of the bucket is a look-up.
class QUARNBASTIL_EXPORT HashMap2018IteratorGeneric {
 public:
  /// At the first node.
  HashMap2018IteratorGeneric(const HashMap2018Generic& map, const HashMap2018VTable* vt)
      : map_(&map), vt_(vt) {
    standOnFirst(0);
  }
  HashMap2018IteratorGeneric(const HashMap2018Generic& map, const HashMap2018VTable* vt,
                             EndOfCollection) noexcept
      : map_(&map), vt_(vt) {}
  /// At the node of a key, or at the end if the key is absent.
  HashMap2018IteratorGeneric(const HashMap2018Generic& map, const HashMap2018VTable* vt,
                             const HashHelper::KeyAndRhashSeedArg& key);
  HashMap2018IteratorGeneric(const HashMap2018IteratorGeneric& other) noexcept
      : map_(other.map_), vt_(other.vt_), bucket_(other.bucket_), index_(other.index_) {
    if (bucket_ != nullptr) bucket_->referenceInc();
  }
  /// Leaves `other` at the end.
  HashMap2018IteratorGeneric(HashMap2018IteratorGeneric&& other) noexcept
      : map_(other.map_),
        vt_(other.vt_),
        bucket_(std::exchange(other.bucket_, nullptr)),
        index_(other.index_) {}
  HashMap2018IteratorGeneric& operator=(HashMap2018IteratorGeneric other) noexcept {
    std::swap(map_, other.map_);
    std::swap(vt_, other.vt_);
    std::swap(bucket_, other.bucket_);
    std::swap(index_, other.index_);
    return *this;
  }
  ~HashMap2018IteratorGeneric() {
    if (bucket_ != nullptr) drop(bucket_);
  }

  bool atEnd() const noexcept { return bucket_ == nullptr; }

  /// Advances to the next member. REQUIRES: not at the end.
  void advance() {
    if (index_ + 1 < bucket_->size() && !bucket_->detached()) [[likely]] {
      ++index_;
    } else {
      leaveBucket();
    }
  }

  /// The member's current node, or null if the member has been deleted. REQUIRES: not at the end.
  const HashMap2018LinkNodeBase* currNodeNonStale() const {
    return bucket_->detached() ? currNodeInMap() : currNodeMaybeStale();
  }

  /// The member's node as it was when the iterator reached it. Valid until the iterator moves.
  /// REQUIRES: not at the end.
  const HashMap2018LinkNodeBase* currNodeMaybeStale() const noexcept {
    return nodeAt(bucket_->nodes(), vt_->nodeSize, index_);
  }

  /// Whether both are at the end of the same map, or at the same member of it.
  friend QUARNBASTIL_EXPORT bool operator==(const HashMap2018IteratorGeneric& a,
                                            const HashMap2018IteratorGeneric& b) noexcept;

 private:
  using Link = HashMap2018BucketLink;

  std::uint32_t currHash() const noexcept { return bucket_->words()[index_]; }
  const HashMap2018LinkNodeBase* currNodeInMap() const;
  void leaveBucket();
  void standOn(Link link, unsigned index) noexcept;
  void standOnFirst(unsigned position) noexcept;

  void drop(const HashMap2018BucketHdr* bucket) const {
    // The map holds a reference too, so a bucket in the map cannot lose its last one here.
    if (bucket->detached()) {
      vt_->bktHdrRefDec(bucket);
    } else {
      bucket->bktHdrRefDecHelper();
    }
  }

  /// The map being iterated.
  const HashMap2018Generic* map_;
  /// Operations on the map's nodes.
  const HashMap2018VTable* vt_;
  /// The current bucket, on which the iterator holds a reference; null at the end.
  const HashMap2018BucketHdr* bucket_ = nullptr;
  /// Slot within the bucket.
  unsigned index_ = 0;
};

}  // namespace Kiv
