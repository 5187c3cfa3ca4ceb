#pragma once

#include <utility>

#include "Fenrik/Export.h"
#include "Kiv/HashMap2018Generic.h"

namespace Kiv {

/// Says that an iterator begins at the end.
struct EndOfCollection {};

/// A position in a map that any change of the map leaves usable.
///
/// It holds the bucket in which it stands, and goes on from there by the order of members, which is
/// the same before and after every change. So a walk visits each member that is there throughout
/// exactly once, and ends, while members come and go and the map grows and shrinks.
///
/// Threads: that of the map. An iterator may be destroyed after its map; nothing else may be done
/// with it then.
///
/// I1. `bucket_` is not null exactly while the iterator stands on a node.
///
/// Cost: a step within an unchanged bucket reads its header; a step out of it finds the next bucket
/// in the directory; a step after a change of the bucket is a lookup.
class QUARNBASTIL_EXPORT HashMap2018IteratorGeneric {
 public:
  /// On the first node.
  HashMap2018IteratorGeneric(const HashMap2018Generic& map, const HashMap2018VTable* vt)
      : map_(&map), vt_(vt) {
    standOnFirst(0);
  }
  HashMap2018IteratorGeneric(const HashMap2018Generic& map, const HashMap2018VTable* vt,
                             EndOfCollection) noexcept
      : map_(&map), vt_(vt) {}
  /// On the node of a key; at the end if the key is absent.
  HashMap2018IteratorGeneric(const HashMap2018Generic& map, const HashMap2018VTable* vt,
                             const HashHelper::KeyAndRhashSeedArg& key);
  HashMap2018IteratorGeneric(const HashMap2018IteratorGeneric& other) noexcept
      : map_(other.map_), vt_(other.vt_), bucket_(other.bucket_), index_(other.index_) {
    if (bucket_ != nullptr) bucket_->referenceInc();
  }
  /// Leaves the other one at the end.
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

  /// Goes to the next member. REQUIRES: not at the end.
  void advance() {
    if (index_ + 1 < bucket_->size() && !bucket_->detached()) [[likely]] {
      ++index_;
    } else {
      leaveBucket();
    }
  }

  /// The member's node in the map as it is now; null if the member is gone. REQUIRES: not at the
  /// end.
  const HashMap2018LinkNodeBase* currNodeNonStale() const {
    return bucket_->detached() ? currNodeInMap() : currNodeMaybeStale();
  }

  /// The member's node as the iterator met it, whatever has become of it since. It stays until the
  /// iterator leaves. REQUIRES: not at the end.
  const HashMap2018LinkNodeBase* currNodeMaybeStale() const noexcept {
    return nodeAt(bucket_->nodes(), vt_->nodeSize, index_);
  }

  /// Both at the end of a map or on the same member of it.
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
    // One reference of a bucket that stands in the map is the map's.
    if (bucket->detached()) {
      vt_->bktHdrRefDec(bucket);
    } else {
      bucket->bktHdrRefDecHelper();
    }
  }

  /// The map that is walked.
  const HashMap2018Generic* map_;
  /// Operations on its nodes.
  const HashMap2018VTable* vt_;
  /// The bucket walked, with a reference of this iterator's; null at the end.
  const HashMap2018BucketHdr* bucket_ = nullptr;
  /// Slot within the bucket.
  unsigned index_ = 0;
};

}  // namespace Kiv
