#include "Kiv/HashMap2018Iterator.h"

namespace Kiv {
namespace {

/// Index of the first member in the bucket that is ordered after `node`; the bucket's size if there
/// is none.
unsigned indexBehind(const HashMap2018VTable* vt, HashMap2018BucketLink link, std::uint32_t hash,
                     const HashMap2018LinkNodeBase* node) {
  const std::uint32_t* const words = link.words();
  const unsigned size = link.hdr()->size();
  unsigned index = Impl::countLesserWords(words, size, hash);
  while (index < size && words[index] == hash &&
         vt->compareOrLruUnlink(nullptr, node, nodeAt(link.nodes(), vt->nodeSize, index)) != 1) {
    ++index;
  }
  return index;
}

}  // namespace

HashMap2018IteratorGeneric::HashMap2018IteratorGeneric(const HashMap2018Generic& map,
                                                       const HashMap2018VTable* vt,
                                                       const HashHelper::KeyAndRhashSeedArg& key)
    : map_(&map), vt_(vt) {
  const std::uint32_t hash = HashMap2018Generic::spread(key.rhash);
  const Link link = map.linkOf(hash);
  if (!link) return;
  const unsigned size = link.hdr()->size();
  const unsigned index = Impl::findWord(link.words(), size, hash, [&](unsigned i) {
    return vt->keyEqualsNode(key.key, nodeAt(link.nodes(), vt->nodeSize, i));
  });
  if (index != size) standOn(link, index);
}

void HashMap2018IteratorGeneric::standOn(Link link, unsigned index) noexcept {
  bucket_ = link.hdr();
  bucket_->referenceInc();
  index_ = index;
}

void HashMap2018IteratorGeneric::standOnFirst(unsigned position) noexcept {
  const unsigned count = map_->bucketCount();
  for (; position < count; ++position) {
    if (const Link link = map_->linkAt(position)) {
      if (position + 1 < count) __builtin_prefetch(map_->linkAt(position + 1).nodes());
      return standOn(link, 0);
    }
  }
  bucket_ = nullptr;
}

void HashMap2018IteratorGeneric::leaveBucket() {
  const HashMap2018BucketHdr* const left = bucket_;
  const std::uint32_t hash = currHash();
  const unsigned position = map_->positionOf(hash);
  const Link link = left->detached() ? map_->linkAt(position) : Link();
  const unsigned index = link ? indexBehind(vt_, link, hash, currNodeMaybeStale()) : 0;
  if (link && index < link.hdr()->size()) {
    standOn(link, index);
  } else {
    standOnFirst(position + 1);
  }
  drop(left);
}

const HashMap2018LinkNodeBase* HashMap2018IteratorGeneric::currNodeInMap() const {
  const HashMap2018LinkNodeBase* const held = currNodeMaybeStale();
  const std::uint32_t hash = currHash();
  const Link link = map_->linkOf(hash);
  if (!link) return nullptr;
  const unsigned size = link.hdr()->size();
  const unsigned index = Impl::findWord(link.words(), size, hash, [&](unsigned i) {
    return vt_->compareOrLruUnlink(nullptr, held, nodeAt(link.nodes(), vt_->nodeSize, i)) == 0;
  });
  return index != size ? nodeAt(link.nodes(), vt_->nodeSize, index) : nullptr;
}

bool operator==(const HashMap2018IteratorGeneric& a, const HashMap2018IteratorGeneric& b) noexcept {
  if (a.bucket_ == b.bucket_) return a.bucket_ == nullptr || a.index_ == b.index_;
  if (a.bucket_ == nullptr || b.bucket_ == nullptr) return false;
  return a.currHash() == b.currHash() &&
         a.vt_->compareOrLruUnlink(nullptr, a.currNodeMaybeStale(), b.currNodeMaybeStale()) == 0;
}

}  // namespace Kiv
