#pragma once

#include <cstddef>
#include <cstdint>

#include "Fenrik/Export.h"
#include "OvSlab/AllocTrackTypeInfo.h"

namespace Kiv {

/// Untyped base of the nodes in a map's bucket.
struct HashMap2018LinkNodeBase {};

/// Header of a bucket, one word in the middle of the bucket's allocation:
///
///     capacity words of 32 bits, one per slot: the hash of the slot's key, as the map spreads it
///     the header
///     capacity nodes; the occupied ones come first
///
/// Bits of the word: 0 to 2 references, 3 detached, 4 to 17 capacity, 18 to 31 occupied slots.
///
/// I1. The map holds one reference to each of its buckets; an iterator holds one to the bucket it
///     is in. Dropping the last reference destroys the bucket.
/// I2. A bucket with more than one reference is immutable, except for the reference count and the
///     detached bit.
/// I3. The words of the occupied slots are in ascending order; slots with equal words are ordered
///     by key.
///
/// Threads: those of the map. A bucket is never shared between threads.
class QUARNBASTIL_EXPORT HashMap2018BucketHdr {
 public:
  /// The maximum of 14 bits, rounded down to a capacity that keeps the nodes aligned.
  static constexpr unsigned kCapacityMax = 16383;

  explicit HashMap2018BucketHdr(unsigned capacity) noexcept
      : word_(1u | capacity << kCapacityShift) {}

  unsigned capacity() const noexcept { return (word_ >> kCapacityShift) & kCapacityMax; }
  unsigned size() const noexcept { return word_ >> kSizeShift; }
  void sizeIs(unsigned size) noexcept {
    word_ = (word_ & ((1u << kSizeShift) - 1)) | size << kSizeShift;
  }

  bool shared() const noexcept { return (word_ & kReferenceMask) > 1; }

  /// Whether the bucket has been removed from the map. Iterators may still read it.
  bool detached() const noexcept { return (word_ & kDetached) != 0; }
  void detachedSet() noexcept { word_ |= kDetached; }

  void referenceInc() const noexcept {
    if ((word_ & kReferenceMask) < kReferenceMany) [[likely]] {
      ++word_;
    } else {
      surplusInc();
    }
  }

  /// Drops one reference. Returns 0 if it was the last one, leaving the word unchanged.
  unsigned bktHdrRefDecHelper() const noexcept {
    const unsigned references = word_ & kReferenceMask;
    if (references == kReferenceMany && surplusDec()) [[unlikely]]
      return kReferenceMany;
    if (references > 1) --word_;
    return references - 1;
  }

  std::uint32_t* words() noexcept { return &word_ - capacity(); }
  const std::uint32_t* words() const noexcept { return &word_ - capacity(); }
  HashMap2018LinkNodeBase* nodes() const noexcept {
    return reinterpret_cast<HashMap2018LinkNodeBase*>(&word_ + 1);
  }

  /// Tracks the buckets of all maps; null until the first one.
  static AllocTrackTypeInfo* bucketHeaderTracker_;

 private:
  static constexpr unsigned kReferenceMask = 0x7;
  /// Maximum of the count in the word. It means this many or more; the surplus is counted
  /// separately.
  static constexpr unsigned kReferenceMany = 7;
  static constexpr unsigned kDetached = 0x8;
  static constexpr unsigned kCapacityShift = 4;
  static constexpr unsigned kSizeShift = 18;

  void surplusInc() const noexcept;
  /// False if there is no surplus.
  bool surplusDec() const noexcept;

  mutable std::uint32_t word_;
};

static_assert(sizeof(HashMap2018BucketHdr) == 4, "the header stands between words and nodes");

/// The node at an index, counted in nodes of a size known only at run time.
inline HashMap2018LinkNodeBase* nodeAt(HashMap2018LinkNodeBase* nodes, std::size_t nodeSize,
                                       unsigned index) noexcept {
  return reinterpret_cast<HashMap2018LinkNodeBase*>(reinterpret_cast<char*>(nodes) +
                                                    nodeSize * index);
}

/// A map's pointer to one of its buckets, or none. It determines the addresses of words, header and
/// nodes without reading the header, so that a look-up fetches all of them in parallel.
///
/// Buckets are aligned to 16 bytes and have capacities of the form 4 n - 1, so that the nodes are
/// aligned too. The lower four bits hold n, with two exceptions. Tag 0: default capacity,
/// `kUsualCapacity`. The default's own tag: the capacity does not fit four bits, and the pointer is
/// the address of the nodes.
class HashMap2018BucketLink {
 public:
  /// Default capacity: words and header fill one cache line.
  static constexpr unsigned kUsualCapacity = 15;
  static constexpr std::size_t kUnit = 16;

  constexpr HashMap2018BucketLink() noexcept = default;
  /// REQUIRES: `hdr` is the header of a bucket.
  explicit HashMap2018BucketLink(HashMap2018BucketHdr* hdr) noexcept {
    const auto nodes = reinterpret_cast<std::uintptr_t>(hdr->nodes());
    const std::uintptr_t units = (hdr->capacity() + 1) / 4;
    if (units == kUsualUnits) {
      bits_ = nodes - kUsualUnits * kUnit;
    } else if (units < kUnit) {
      bits_ = nodes - units * kUnit + units;
    } else {
      bits_ = nodes + kUsualUnits;
    }
  }

  explicit operator bool() const noexcept { return bits_ != kNone; }

  /// Whether there is a bucket and it has the default capacity.
  bool usual() const noexcept { return (bits_ & kTagMask) == 0; }
  /// Start of a bucket with the default capacity.
  std::uint32_t* usualWords() const noexcept { return reinterpret_cast<std::uint32_t*>(bits_); }
  HashMap2018BucketHdr* usualHdr() const noexcept {
    return reinterpret_cast<HashMap2018BucketHdr*>(usualWords() + kUsualCapacity);
  }

  HashMap2018LinkNodeBase* nodes() const noexcept {
    const std::uintptr_t tag = bits_ & kTagMask;
    const std::uintptr_t units = tag == 0 ? kUsualUnits : tag == kUsualUnits ? 0 : tag;
    return reinterpret_cast<HashMap2018LinkNodeBase*>((bits_ & ~kTagMask) + units * kUnit);
  }
  HashMap2018BucketHdr* hdr() const noexcept {
    return reinterpret_cast<HashMap2018BucketHdr*>(nodes()) - 1;
  }
  std::uint32_t* words() const noexcept { return hdr()->words(); }

 private:
  static constexpr std::uintptr_t kTagMask = kUnit - 1;
  static constexpr std::uintptr_t kUsualUnits = (kUsualCapacity + 1) / 4;
  static constexpr std::uintptr_t kNone = kUsualUnits;

  std::uintptr_t bits_ = kNone;
};

}  // namespace Kiv
