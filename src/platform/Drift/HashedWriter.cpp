#include <unistd.h>
#include <algorithm>

#include "Drift/HashedCollection.h"
#include "Fenrik/Assert.h"
#include "Fenrik/Format.h"

namespace Drift {

HashedWriter::HashedWriter(DriftFile& file)
    : file_(file),
      view_(file),
      mask_(file.header().indexWords - 1),
      active_(file.data(), Format::Line::active),
      live_{CheckedWordWriter(file.data(), Format::Line::live0),
            CheckedWordWriter(file.data(), Format::Line::live1)},
      reserved_(file.data(), Format::Line::reserved),
      // Each writer counts from a place of its own, so that a reader that outlived the last one
      // does not take a new record for the one that it was reading.
      runningNumber_(static_cast<std::uint32_t>(
          CheckedWord(file.data(), Format::Line::writerGeneration).load().value_or(0) *
          0x9e3779b1)),
      scratch_(view_.recordWords()),
      resting_(Format::kRestingSlots, UINT32_MAX) {
  FENRIK_ASSERT(active_.adopt() && live_[0].adopt() && live_[1].adopt() && reserved_.adopt());
  takeOver();
}

Word* HashedWriter::table(Word active) noexcept {
  return file_.words(Format::kHeaderSize) + (active & 1) * (mask_ + 1);
}

void HashedWriter::full(const char* what) const {
  throw CollectionFullException(
      Fenrik::formatString("{}: full: {} of {} records, {}; remove some before you add others",
                           file_.path(), live(), file_.header().capacity, what));
}

void HashedWriter::takeOver() {
  giveBackTable(activeTable() ^ 1);
  std::vector<bool> used(file_.header().slotCount);
  Word* const words = table(activeTable());
  for (Word position = 0; position <= mask_; ++position) {
    if (words[position] != IndexWord::kEmpty) adoptWord(words + position, used);
  }
  Word count = 0;
  for (const bool one : used) count += one ? 1 : 0;
  if (count != live()) live_[activeTable()].set(count);
  fillFreeList(used);
}

/// Notes the slot of an index word that was found; a word that cannot be is dropped.
void HashedWriter::adoptWord(Word* bucket, std::vector<bool>& used) {
  const Word seen = loadWord(bucket);
  if (IndexWord::intact(seen)) {
    if (IndexWord::isTombstone(seen)) {
      ++tombstones_;
      return;
    }
    const IndexWord word = IndexWord::from(seen);
    if (word.slot < std::min(reserved_.value(), file_.header().slotCount) && !used[word.slot]) {
      used[word.slot] = true;
      return;
    }
  }
  storeWord(bucket, IndexWord::tombstone());
  ++tombstones_;
  ++dropped_;
}

/// Free slots are handed out from the lowest up, which keeps the used ones together; memory behind
/// whole chunks of unused slots goes back.
void HashedWriter::fillFreeList(const std::vector<bool>& used) {
  const Word bound = std::min(reserved_.value(), file_.header().slotCount);
  Word last = 0;
  for (Word slot = 0; slot < bound; ++slot) {
    if (used[slot]) last = slot + 1;
  }
  nextFresh_ = last;
  // No later operation needs the heap.
  free_.reserve(file_.header().slotCount);
  for (Word slot = last; slot-- > 0;) {
    if (!used[slot]) free_.push_back(static_cast<std::uint32_t>(slot));
  }
  const Word from = file_.header().slotsOffset + last * file_.header().slotStride;
  const Word begin = (from + Format::kPageSize - 1) / Format::kPageSize * Format::kPageSize;
  file_.giveBack(begin, file_.header().fileSize - begin);
  if (!file_.options().reserveAll) reserved_.set(last);
}

/// Where the key's index word stands, or where it would be put.
HashedWriter::Place HashedWriter::locate(KeyWords key, Word hash) {
  const Word* const words = table(activeTable());
  const Word tag = IndexWord::tagOf(hash);
  Place place{0, Format::kMaxDisplacement + 1, 0};
  for (Word displacement = 0; displacement <= Format::kMaxDisplacement; ++displacement) {
    const Word bucket = (hash + displacement) & mask_;
    const Word seen = loadWord(words + bucket);
    const bool intact = IndexWord::intact(seen);
    const bool open = seen == IndexWord::kEmpty || (intact && IndexWord::isTombstone(seen));
    if (open && place.displacement > Format::kMaxDisplacement) place = {bucket, displacement, 0};
    if (seen == IndexWord::kEmpty) break;
    if (open) continue;
    const IndexWord word = IndexWord::from(seen);
    if (intact && (word.tag != tag || word.displacement != displacement)) continue;
    if (intact && word.slot < file_.header().slotCount) {
      const Word* const stored = view_.slotWords(word.slot) + 1;
      HashedView::KeyRoom room{};
      if (std::ranges::equal(key, view_.keyOf(stored, room))) {
        return {bucket, displacement, seen};
      }
      if (proves(bucket, word)) continue;
    }
    // It may have been this key's: with it in the way the key could never be read again.
    drop(bucket);
    return locate(key, hash);
  }
  return place;
}

/// Whether the record of an index word is whole and belongs there.
bool HashedWriter::proves(Word bucket, const IndexWord& word) {
  return view_.copySlot(word, scratch_) == HashedView::Slot::whole &&
         view_.belongs(word, bucket, scratch_);
}

/// Gives up an index word that does not prove itself or whose record does not. Its slot is free
/// again after the next takeover, which is the one to know that no other word leads there.
void HashedWriter::drop(Word bucket) {
  Word* const words = table(activeTable());
  storeWord(words + bucket, IndexWord::tombstone());
  ++tombstones_;
  ++dropped_;
  Word count = 0;
  for (Word position = 0; position <= mask_; ++position) {
    const Word seen = loadWord(words + position);
    count += IndexWord::intact(seen) && !IndexWord::isTombstone(seen) ? 1 : 0;
  }
  live_[activeTable()].set(count);
}

/// The same, once there is room for it.
HashedWriter::Place HashedWriter::placeFor(KeyWords key, Word hash) {
  Place place = locate(key, hash);
  if (place.seen != 0) return place;
  if (live() >= file_.header().capacity) full("its limit");
  // A quarter of the buckets in tombstones makes searches long; live ones fill half at most.
  if (tombstones_ > (mask_ + 1) / 4) {
    switchTable(true);
    place = locate(key, hash);
  }
  if (place.displacement > Format::kMaxDisplacement) full("and no bucket is left for this key");
  return place;
}

bool HashedWriter::slotAtHand() const noexcept {
  // With no fresh slot left the resting ones are taken, which have memory.
  return !free_.empty() || nextFresh_ < reserved_.value() || nextFresh_ >= file_.header().slotCount;
}

/// Memory behind the next fresh slots.
void HashedWriter::reserveSlots() {
  const Word stride = file_.header().slotStride;
  const Word begin = file_.header().slotsOffset + nextFresh_ * stride;
  const Word size = std::min(Format::kChunkSize, file_.header().fileSize - begin);
  file_.reserve(begin, size);
  reserved_.set(std::min(nextFresh_ + size / stride, file_.header().slotCount));
}

void HashedWriter::makeRoom(KeyWords key) {
  const bool plenty = live() < file_.header().capacity && tombstones_ <= (mask_ + 1) / 4;
  if (!plenty) placeFor(key, hashKey(key, file_.header().hashSeed));
  makeRoom();
}

void HashedWriter::makeRoom() {
  if (!slotAtHand()) reserveSlots();
}

/// A slot to write, with memory behind it; it stays on its list until it has been published.
Word HashedWriter::takeSlot() {
  if (!free_.empty()) {
    const Word slot = free_.back();
    free_.pop_back();
    return slot;
  }
  if (nextFresh_ < file_.header().slotCount) {
    if (nextFresh_ >= reserved_.value()) reserveSlots();
    return nextFresh_++;
  }
  // Everything else is in use: the slot that has rested longest.
  for (std::size_t i = 0; i < resting_.size(); ++i) {
    std::uint32_t& slot = resting_[(restingHead_ + i) % resting_.size()];
    if (slot != UINT32_MAX) return std::exchange(slot, UINT32_MAX);
  }
  full("and no slot is left");
}

/// Lets a slot rest whose record has just been replaced or removed.
void HashedWriter::rest(Word slot) {
  std::uint32_t& place = resting_[restingHead_++ % resting_.size()];
  if (place != UINT32_MAX) free_.push_back(place);
  place = static_cast<std::uint32_t>(slot);
}

Word HashedWriter::fillSlot(Word slot, std::span<const Word> record) {
  Word* const words = file_.words(file_.header().slotsOffset + slot * file_.header().slotStride);
  ++runningNumber_;
  const std::uint32_t crc =
      Seal::kLoops.copyIn(words + 1, record.data(), record.size(), runningNumber_);
  storeWord(words, Seal::sealWord(crc, runningNumber_));
  return IndexWord::sequenceOf(runningNumber_);
}

void HashedWriter::set(std::span<const Word> record) {
  HashedView::KeyRoom room{};
  const KeyWords key = view_.keyOf(record.data(), room);
  const Word hash = hashKey(key, file_.header().hashSeed);
  const Place place = placeFor(key, hash);
  const Word slot = takeSlot();
  const Word sequence = fillSlot(slot, record);
  const bool fresh = place.seen == 0;
  Word* const bucket = table(activeTable()) + place.bucket;
  const bool reused = fresh && loadWord(bucket) != IndexWord::kEmpty;
  storeWord(bucket, IndexWord{slot, sequence, IndexWord::tagOf(hash), place.displacement}.word());
  if (!fresh) {
    rest(IndexWord::from(place.seen).slot);
    return;
  }
  if (reused) --tombstones_;
  live_[activeTable()].set(live() + 1);
}

void HashedWriter::prefetch(KeyWords key, bool near) const noexcept {
  const Word hash = hashKey(key, file_.header().hashSeed);
  const Word* const bucket = view_.table(active_.value()) + (hash & mask_);
  if (!near) {
    __builtin_prefetch(bucket);
    return;
  }
  const Word seen = loadWord(bucket);
  const Word slot = IndexWord::from(seen).slot;
  if (seen != IndexWord::kEmpty && slot < file_.header().slotCount) {
    __builtin_prefetch(view_.slotWords(slot));
  }
  // Of the free slots the ones on top are taken next.
  if (free_.empty()) return;
  const Word next = free_[free_.size() - 1 - std::min<std::size_t>(free_.size() - 1, 1)];
  const auto* const target = reinterpret_cast<const std::byte*>(view_.slotWords(next));
  for (Word line = 0; line < file_.header().slotStride; line += Format::kLineSize) {
    __builtin_prefetch(target + line, 1);
  }
}

bool HashedWriter::remove(KeyWords key) {
  const Place place = locate(key, hashKey(key, file_.header().hashSeed));
  if (place.seen == 0) return false;
  storeWord(table(activeTable()) + place.bucket, IndexWord::tombstone());
  ++tombstones_;
  live_[activeTable()].set(live() - 1);
  sweepTombstones(place.bucket);
  rest(IndexWord::from(place.seen).slot);
  return true;
}

/// A tombstone before an empty bucket has nothing behind it to lead to: it may become empty too.
void HashedWriter::sweepTombstones(Word bucket) {
  Word* const words = table(activeTable());
  if (loadWord(words + ((bucket + 1) & mask_)) != IndexWord::kEmpty) return;
  while (loadWord(words + bucket) == IndexWord::tombstone()) {
    storeWord(words + bucket, IndexWord::kEmpty);
    --tombstones_;
    bucket = (bucket - 1) & mask_;
  }
}

void HashedWriter::giveBackTable(Word which) noexcept {
  const Word size = (mask_ + 1) * sizeof(Word);
  if (size >= Format::kPageSize && file_.giveBack(Format::kHeaderSize + which * size, size)) return;
  Word* const words = table(which);
  for (Word i = 0; i <= mask_; ++i) {
    if (words[i] != 0) storeWord(words + i, 0);
  }
}

/// Changes to the other index table by one store: with the live words, which rids it of tombstones,
/// or without them, which removes everything.
void HashedWriter::switchTable(bool keep) {
  const Word from = activeTable();
  const Word to = from ^ 1;
  const Word size = (mask_ + 1) * sizeof(Word);
  file_.reserve(Format::kHeaderSize + to * size, size);
  Word* const target = table(to);
  Word count = 0;
  for (Word position = 0; keep && position <= mask_; ++position) {
    const Word seen = loadWord(table(from) + position);
    if (seen == IndexWord::kEmpty || IndexWord::isTombstone(seen)) continue;
    if (!IndexWord::intact(seen)) {
      ++dropped_;
      continue;
    }
    IndexWord word = IndexWord::from(seen);
    const Word home = position - word.displacement;
    // Bounded: as many words as there are buckets at most come over.
    for (word.displacement = 0; loadWord(target + ((home + word.displacement) & mask_)) != 0;) {
      ++word.displacement;
    }
    if (word.displacement > Format::kMaxDisplacement) {
      ++dropped_;
      continue;
    }
    storeWord(target + ((home + word.displacement) & mask_), word.word());
    ++count;
  }
  live_[to].set(count);
  active_.set((((active_.value() >> 1) + 1) << 1) | to);
  tombstones_ = 0;
  giveBackTable(from);
}

void HashedWriter::removeAll() {
  switchTable(false);
  free_.clear();
  std::ranges::fill(resting_, UINT32_MAX);
  // Readers may still be copying: the memory goes back, the slots begin again from the lowest.
  fillFreeList(std::vector<bool>(file_.header().slotCount));
}

}  // namespace Drift
