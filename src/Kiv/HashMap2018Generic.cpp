#include "Kiv/HashMap2018Generic.h"

#include <algorithm>
#include <bit>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <utility>

#include "Fenrik/Assert.h"
#include "OvSlab/OvSlab.h"

namespace Kiv {
namespace {

using Hdr = HashMap2018BucketHdr;
using Link = HashMap2018BucketLink;
using Node = HashMap2018LinkNodeBase;
using Sources = HashMap2018NodeSourceColl;
using VTable = HashMap2018VTable;

/// Members per bucket at which the directory grows. Measured with 64 k members: 6 is slower because
/// of the larger directory, 12 because more buckets need a second step.
constexpr unsigned kMeanSize = 8;
/// The directory shrinks at a quarter of that, so that a map of steady size does not oscillate.
constexpr unsigned kMeanSizeMin = kMeanSize / 4;
/// The fine directory of this level takes 2 GB, the largest single allocation.
constexpr unsigned kLevelMax = 27;
/// Bucket sizes are multiples of a cache line, so that the slab aligns them to one and searches may
/// read words in steps of 64 bytes.
constexpr std::size_t kLine = 64;
static_assert(kLine == Impl::kWordsPerStep * sizeof(std::uint32_t));

/// First capacity of a map: many maps never have more than a few members, which then take one line.
constexpr unsigned kFirstCapacity = 3;

constexpr std::size_t roundUp(std::size_t size, std::size_t unit) {
  return (size + unit - 1) / unit * unit;
}

void* storageAlloc(std::size_t bytes) {
  void* const storage = OvSlab::slabAllocOrStdMalloc(static_cast<unsigned>(bytes),
                                                     OvSlab::SlabAllocationPattern::longLived);
  if (storage == nullptr) std::abort();
  return storage;
}

/// Nodes up to this size get the default capacity from the start, so that nearly every look-up
/// takes the fast path; growing capacities were measured to cost a mispredicted branch. With larger
/// nodes memory matters more.
constexpr unsigned kSmallNode = 32;

/// Capacity of a bucket for `size` nodes and at least one more, of the form 4 n - 1. Above the
/// default capacity it grows by a quarter, so that filling a large bucket is linear.
unsigned capacityFor(const VTable* vt, unsigned size) {
  const unsigned wanted = std::max(size + 2, size + size / 4);
  const unsigned capacity = static_cast<unsigned>(roundUp(wanted, 4)) - 1;
  const unsigned least = vt->nodeSize <= kSmallNode ? Link::kUsualCapacity : 0;
  // Uses the last slot of the default capacity before allocating a larger bucket.
  if (size == Link::kUsualCapacity) return size;
  return std::clamp(capacity, least, Hdr::kCapacityMax);
}

/// Capacity of a bucket after a deletion: reduced only if the bucket is far too large, or if it
/// fits the default capacity with some room to spare.
unsigned capacityAfter(const VTable* vt, const Hdr* hdr) {
  const unsigned size = hdr->size() - 1;
  const unsigned enough =
      hdr->capacity() > Link::kUsualCapacity ? Link::kUsualCapacity * 3 / 4 : hdr->capacity() / 4;
  return size <= std::max(enough, hdr->capacity() / 4) ? capacityFor(vt, size) : hdr->capacity();
}

/// Creates a bucket from the nodes of `sources`. The caller fills the words.
Hdr* bucketMake(const VTable* vt, unsigned capacity, const Sources& sources) {
  const std::size_t nodesOffset = sizeof(std::uint32_t) * (capacity + 1);
  const std::size_t bytes = roundUp(nodesOffset + std::size_t{capacity} * vt->nodeSize, kLine);
  AllocTrackTypeInfo::trackArrayAllocation(&Hdr::bucketHeaderTracker_, typeid(Hdr), sizeof(Hdr), 1);
  char* const storage = static_cast<char*>(storageAlloc(bytes));
  FENRIK_ASSERT(reinterpret_cast<std::uintptr_t>(storage) % Link::kUnit == 0);
  Hdr* const hdr = ::new (storage + nodesOffset - sizeof(Hdr)) Hdr(capacity);
  vt->newBucketAssemble(vt, HashMap2018SlotIndex(static_cast<unsigned short>(capacity)),
                        hdr->nodes(), sources);
  unsigned size = 0;
  for (unsigned run = 0; run < sources.runCount; ++run) size += sources.runs[run].count;
  hdr->sizeIs(size);
  return hdr;
}

/// Removes a bucket from the map. It is destroyed unless iterators hold it.
void bucketRetire(const VTable* vt, Hdr* hdr) {
  hdr->detachedSet();
  vt->bktHdrRefDec(hdr);
}

/// Whether a bucket's nodes are moved or copied to another bucket.
MoveOrCopy modeOf(const Hdr* hdr) { return hdr->shared() ? MoveOrCopy::copy : MoveOrCopy::move; }

Node* nodeOf(const VTable* vt, Hdr* hdr, unsigned index) {
  return nodeAt(hdr->nodes(), vt->nodeSize, index);
}

HashMap2018SlotIndex slot(unsigned index) {
  return HashMap2018SlotIndex(static_cast<unsigned short>(index));
}

/// A new bucket from a range of another one's nodes, or none if the range is empty.
Link partMake(const VTable* vt, Hdr* from, unsigned first, unsigned count) {
  if (count == 0) return {};
  Sources sources;
  sources.runAdd(modeOf(from), count, nodeOf(vt, from, first));
  Hdr* const hdr = bucketMake(vt, capacityFor(vt, count), sources);
  std::copy_n(from->words() + first, count, hdr->words());
  return Link(hdr);
}

/// Index at which a key that is not in the bucket is inserted.
unsigned insertIndex(const VTable* vt, Hdr* hdr, std::uint32_t hash, const void* key) {
  const std::uint32_t* const words = hdr->words();
  const unsigned size = hdr->size();
  unsigned index = Impl::countLesserWords(words, size, hash);
  while (index < size && words[index] == hash &&
         vt->compareOrLruUnlink(key, nullptr, nodeOf(vt, hdr, index)) != 1) {
    ++index;
  }
  return index;
}

void insertInPlace(const VTable* vt, Hdr* hdr, unsigned index, std::uint32_t hash, Node& node) {
  const unsigned size = hdr->size();
  std::uint32_t* const words = hdr->words();
  std::copy_backward(words + index, words + size, words + size + 1);
  words[index] = hash;
  if (index == size) {
    vt->place(vt, nodeOf(vt, hdr, size), &node, MoveOrCopy::move);
  } else {
    vt->shift(vt, hdr->nodes(), &node, slot(size), slot(index), 1);
  }
  hdr->sizeIs(size + 1);
}

/// A new bucket with the nodes of another one and one more at `index`.
Hdr* insertMake(const VTable* vt, Hdr* from, unsigned index, std::uint32_t hash, Node& node) {
  const unsigned size = from->size();
  FENRIK_ASSERT(size < Hdr::kCapacityMax);
  Sources sources;
  sources.runAdd(modeOf(from), index, from->nodes());
  sources.runAdd(MoveOrCopy::move, 1, &node);
  sources.runAdd(modeOf(from), size - index, nodeOf(vt, from, index));
  const unsigned capacity = size == from->capacity() ? capacityFor(vt, size + 1) : from->capacity();
  Hdr* const hdr = bucketMake(vt, capacity, sources);
  std::uint32_t* const words = std::copy_n(from->words(), index, hdr->words());
  *words = hash;
  std::copy_n(from->words() + index, size - index, words + 1);
  return hdr;
}

/// A new bucket with the nodes of another one except the one at `index`; none if no node is left.
Link eraseMake(const VTable* vt, Hdr* from, unsigned index) {
  const unsigned behind = from->size() - index - 1;
  if (index + behind == 0) return {};
  Sources sources;
  sources.runAdd(modeOf(from), index, from->nodes());
  sources.runAdd(modeOf(from), behind, nodeOf(vt, from, index + 1));
  Hdr* const hdr = bucketMake(vt, capacityFor(vt, index + behind), sources);
  std::copy_n(from->words() + index + 1, behind, std::copy_n(from->words(), index, hdr->words()));
  return Link(hdr);
}

void eraseInPlace(const VTable* vt, Hdr* hdr, unsigned index) {
  const unsigned size = hdr->size();
  std::uint32_t* const words = hdr->words();
  vt->shift(vt, hdr->nodes(), nullptr, slot(size), slot(index), -1);
  std::copy(words + index + 1, words + size, words + index);
  hdr->sizeIs(size - 1);
}

/// A new bucket with the nodes of two neighbouring buckets, in order.
Link joinMake(const VTable* vt, Hdr* low, Hdr* high) {
  Sources sources;
  sources.runAdd(modeOf(low), low->size(), low->nodes());
  sources.runAdd(modeOf(high), high->size(), high->nodes());
  FENRIK_ASSERT(low->size() + high->size() <= Hdr::kCapacityMax);
  Hdr* const hdr = bucketMake(vt, capacityFor(vt, low->size() + high->size()), sources);
  std::copy_n(high->words(), high->size(), std::copy_n(low->words(), low->size(), hdr->words()));
  return Link(hdr);
}

Link* directoryMake(std::size_t count) {
  auto* const directory = static_cast<Link*>(storageAlloc(count * sizeof(Link)));
  std::uninitialized_default_construct_n(directory, count);
  return directory;
}

}  // namespace

HashMap2018Generic::HashMap2018Generic(const VTable*, HashMap2018MapIndex bucketsMin,
                                       bool keepBuckets)
    : levelMin_(static_cast<std::uint8_t>(std::bit_width(bucketsMin.value()) - 1)),
      keepBuckets_(keepBuckets) {
  directoryInit();
}

HashMap2018Generic::~HashMap2018Generic() {
  directoryFree(coarse_);
  directoryFree(fine_);
}

void HashMap2018Generic::directoryInit() {
  levelIs(levelMin_);
  splitCount_ = 0;
  single_ = {};
  fine_ = nullptr;
  coarse_ = level_ == 0 ? &single_ : directoryMake(std::size_t{1} << level_);
  if (coarse_ != &single_) std::fill_n(coarse_, std::size_t{1} << level_, Link());
  memberCount_ = 0;
  limitsUpdate();
}

void HashMap2018Generic::levelIs(unsigned level) noexcept {
  level_ = static_cast<std::uint8_t>(level);
  fineShift_ = static_cast<std::uint8_t>(31 - level);
}

void HashMap2018Generic::directoryFree(Link* directory) {
  if (directory != nullptr && directory != &single_) OvSlab::slabFreeOrStdFree(directory);
}

void HashMap2018Generic::limitsUpdate() noexcept {
  const bool smallest = level_ == levelMin_ && splitCount_ == 0;
  splitAbove_ = level_ < kLevelMax ? kMeanSize * bucketCount() : UINT32_MAX;
  joinBelow_ = smallest || keepBuckets_ ? 0 : kMeanSizeMin * bucketCount();
}

const Node* HashMap2018Generic::lookupNodeG(const VTable* vt, const KeyAndRhashSeedArg& key) const {
  return lookup<false>(vt->nodeSize, key.rhash,
                       [&](const Node* node) { return vt->keyEqualsNode(key.key, node); });
}

const Node* HashMap2018Generic::lookupNodeG(const VTable* vt, const KeyString& key) const {
  return lookupNodeG(vt, KeyAndRhashSeedArg{&key.text, key.rhash});
}

Node* HashMap2018Generic::lookupNodeForChangeG(const VTable* vt, const KeyAndRhashSeedArg& key) {
  const Node* const node = lookupNodeG(vt, key);
  if (node == nullptr) return nullptr;
  Link& link = linkOf(spread(key.rhash));
  Hdr* const hdr = link.hdr();
  if (!hdr->shared()) return const_cast<Node*>(node);
  const auto offset = reinterpret_cast<const char*>(node) - reinterpret_cast<char*>(hdr->nodes());
  link = partMake(vt, hdr, 0, hdr->size());
  bucketRetire(vt, hdr);
  return reinterpret_cast<Node*>(reinterpret_cast<char*>(link.nodes()) + offset);
}

void HashMap2018Generic::newMemberG(const VTable* vt, const KeyAndRhashSeedArg& key, Node&& node) {
  const std::uint32_t hash = spread(key.rhash);
  Link& link = linkOf(hash);
  ++memberCount_;
  if (!link) {
    Sources sources;
    sources.runAdd(MoveOrCopy::move, 1, &node);
    const unsigned capacity = bucketCount() == 1 ? kFirstCapacity : capacityFor(vt, 1);
    link = Link(bucketMake(vt, capacity, sources));
    *link.words() = hash;
  } else {
    Hdr* const hdr = link.hdr();
    const unsigned index = insertIndex(vt, hdr, hash, key.key);
    if (hdr->shared() || hdr->size() == hdr->capacity()) {
      link = Link(insertMake(vt, hdr, index, hash, node));
      bucketRetire(vt, hdr);
    } else {
      insertInPlace(vt, hdr, index, hash, node);
    }
  }
  if (memberCount_ > splitAbove_) splitNext(vt);
}

bool HashMap2018Generic::deleteMemberG(const VTable* vt, const KeyAndRhashSeedArg& key, void* out) {
  const std::uint32_t hash = spread(key.rhash);
  Link& link = linkOf(hash);
  if (!link) return false;
  Hdr* const hdr = link.hdr();
  const unsigned size = hdr->size();
  const unsigned index = Impl::findWord(link.words(), size, hash, [&](unsigned i) {
    return vt->keyEqualsNode(key.key, nodeOf(vt, hdr, i));
  });
  if (index == size) return false;
  vt->place(vt, out, nodeOf(vt, hdr, index), modeOf(hdr));
  --memberCount_;
  const bool tooLarge = size == 1 || capacityAfter(vt, hdr) < hdr->capacity();
  if (hdr->shared() || tooLarge) {
    link = eraseMake(vt, hdr, index);
    bucketRetire(vt, hdr);
  } else {
    eraseInPlace(vt, hdr, index);
  }
  if (memberCount_ < joinBelow_) joinLast(vt);
  return true;
}

void HashMap2018Generic::emptyAllBuckets(const VTable* vt, bool final) {
  // The map is empty and usable before the first value is destroyed, whose destructor may use it.
  Link* const coarse = coarse_;
  Link* const fine = fine_;
  Link single = single_;
  const unsigned splitCount = splitCount_;
  const unsigned coarseCount = 1u << level_;
  if (final) levelMin_ = 0;
  directoryInit();
  const auto release = [&](Link link) {
    if (link) bucketRetire(vt, link.hdr());
  };
  std::for_each_n(fine, 2 * splitCount, release);
  Link* const rest = coarse == &single_ ? &single : coarse;
  std::for_each(rest + splitCount, rest + coarseCount, release);
  directoryFree(coarse);
  directoryFree(fine);
}

void HashMap2018Generic::splitNext(const VTable* vt) {
  if (fine_ == nullptr) fine_ = directoryMake(std::size_t{2} << level_);
  const unsigned number = splitCount_++;
  const Link link = coarse_[number];
  const std::uint32_t boundary = (2 * number + 1) << (31 - level_);
  Hdr* const hdr = link ? link.hdr() : nullptr;
  const unsigned size = link ? hdr->size() : 0;
  const unsigned lower = link ? Impl::countLesserWords(hdr->words(), size, boundary) : 0;
  const bool parted = lower != 0 && lower != size;
  fine_[2 * number] = parted ? partMake(vt, hdr, 0, lower) : lower == 0 ? Link() : link;
  fine_[2 * number + 1] = parted       ? partMake(vt, hdr, lower, size - lower)
                          : lower == 0 ? link
                                       : Link();
  if (splitCount_ == 1u << level_) {
    directoryFree(std::exchange(coarse_, std::exchange(fine_, nullptr)));
    levelIs(level_ + 1u);
    splitCount_ = 0;
  }
  limitsUpdate();
  if (parted) bucketRetire(vt, hdr);
}

void HashMap2018Generic::joinLast(const VTable* vt) {
  if (splitCount_ == 0) {
    directoryFree(fine_);
    levelIs(level_ - 1u);
    fine_ = coarse_;
    splitCount_ = 1u << level_;
    coarse_ = level_ == 0 ? &single_ : directoryMake(splitCount_);
  }
  const unsigned number = --splitCount_;
  const Link low = fine_[2 * number];
  const Link high = fine_[2 * number + 1];
  Link& joined = coarse_[number];
  limitsUpdate();
  if (!low || !high) {
    joined = low ? low : high;
    return;
  }
  joined = joinMake(vt, low.hdr(), high.hdr());
  bucketRetire(vt, low.hdr());
  bucketRetire(vt, high.hdr());
}

}  // namespace Kiv
