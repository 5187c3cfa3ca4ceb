#include "Kiv/HashMap2018VTable.h"

#include <cstring>
#include <mutex>
#include <unordered_map>

#include "Fenrik/Assert.h"

namespace Kiv {

AllocTrackTypeInfo* HashMap2018BucketHdr::bucketHeaderTracker_ = nullptr;

namespace {

/// References beyond those that a bucket's word can count, by bucket. More than seven in one bucket
/// are rare enough for a lock and a look-up.
struct Surplus {
  std::mutex mutex;
  std::unordered_map<const HashMap2018BucketHdr*, unsigned> references;
};

Surplus& surplus() {
  // Never destroyed: static iterators may outlive every other static object.
  static Surplus& all = *new Surplus;
  return all;
}

}  // namespace

void HashMap2018BucketHdr::surplusInc() const noexcept {
  const std::lock_guard lock(surplus().mutex);
  ++surplus().references[this];
}

bool HashMap2018BucketHdr::surplusDec() const noexcept {
  const std::lock_guard lock(surplus().mutex);
  const auto found = surplus().references.find(this);
  if (found == surplus().references.end()) return false;
  if (--found->second == 0) surplus().references.erase(found);
  return true;
}

void HashMap2018VTable::trivialPlace(const HashMap2018VTable* vt, void* slot,
                                     HashMap2018LinkNodeBase* node, MoveOrCopy) {
  std::memcpy(slot, static_cast<const void*>(node), vt->nodeSize);
}

void HashMap2018VTable::trivialShift(const HashMap2018VTable* vt, HashMap2018LinkNodeBase* nodes,
                                     HashMap2018LinkNodeBase* link, HashMap2018SlotIndex size,
                                     HashMap2018SlotIndex index, int slotsToShift) {
  const std::size_t nodeSize = vt->nodeSize;
  char* const gap = reinterpret_cast<char*>(nodes) + nodeSize * index.value();
  const std::size_t behind = size.value() - std::size_t{index.value()};
  if (slotsToShift < 0) {
    const auto closed = static_cast<std::size_t>(-slotsToShift);
    std::memmove(gap, gap + nodeSize * closed, nodeSize * (behind - closed));
    return;
  }
  std::memmove(gap + nodeSize, gap, nodeSize * behind);
  std::memcpy(gap, static_cast<const void*>(link), nodeSize);
  FENRIK_ASSERT(slotsToShift == 1);
}

void HashMap2018VTable::trivialNewBucketAssemble(const HashMap2018VTable* vt, void* nodes,
                                                 const HashMap2018NodeSourceColl& sources) {
  char* next = static_cast<char*>(nodes);
  for (unsigned run = 0; run < sources.runCount; ++run) {
    const std::size_t bytes = std::size_t{vt->nodeSize} * sources.runs[run].count;
    std::memcpy(next, static_cast<const void*>(sources.runs[run].first), bytes);
    next += bytes;
  }
}

}  // namespace Kiv
