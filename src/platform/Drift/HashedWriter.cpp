#include <algorithm>
#include <cstring>
#include <functional>
#include <numeric>

#include "Drift/HashedCollection.h"
#include "Fenrik/Assert.h"
#include "Fenrik/Format.h"

namespace Drift {

namespace {

/// Changes between two checks for surplus memory and header damage: enough to make the cost of a
/// system call and a few cache lines negligible.
constexpr std::size_t kCareEach = 256;

}  // namespace

HashedWriter::HashedWriter(DriftFile& file)
    : file_(file),
      view_(file),
      mask_(file.header().indexWords - 1),
      active_(file.data(), Format::Line::active),
      live_{CheckedWordWriter(file.data(), Format::Line::live0),
            CheckedWordWriter(file.data(), Format::Line::live1)},
      reserved_(file.data(), Format::Line::reserved),
      // Each writer starts its numbers at a different value, so that a reader that outlived the
      // last writer does not mistake a new record for the one that it was reading.
      runningNumber_(static_cast<std::uint32_t>(
          CheckedWord(file.data(), Format::Line::writerGeneration).load().value_or(0) *
          0x9e3779b1)),
      scratch_(view_.recordWords()),
      trusted_(file.header().slotCount),
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
  emptyTable(activeTable() ^ 1);
  std::vector<bool> used(file_.header().slotCount);
  Word count = 0;
  Word* const end = table(activeTable()) + mask_ + 1;
  const Word step = std::min<Word>(Format::kLineSize / sizeof(Word), mask_ + 1);
  for (Word* line = end - mask_ - 1; line != end; line += step) {
    // Most lines of the index are completely empty.
    if (std::reduce(line, line + step, IndexWord::kEmpty, std::bit_or()) == IndexWord::kEmpty) {
      continue;
    }
    for (Word* word = line; word != line + step; ++word) {
      if (*word != IndexWord::kEmpty && adoptWord(word, used)) ++count;
    }
  }
  if (count != live()) live_[activeTable()].set(count);
  fillFreeList(used);
}

/// Takes an index word over, marking its slot as used. Returns false for a tombstone and for an
/// invalid word, which it drops.
bool HashedWriter::adoptWord(Word* bucket, std::vector<bool>& used) {
  const Word seen = loadWord(bucket);
  if (IndexWord::intact(seen)) {
    if (IndexWord::isTombstone(seen)) {
      ++tombstones_;
      return false;
    }
    const IndexWord word = IndexWord::from(seen);
    if (word.slot < std::min(reserved_.value(), file_.header().slotCount) && !used[word.slot]) {
      used[word.slot] = true;
      return true;
    }
  }
  storeWord(bucket, IndexWord::tombstone());
  ++tombstones_;
  ++dropped_;
  return false;
}

/// Free slots are used from the lowest up, which keeps used slots together. Memory of whole chunks
/// of unused slots is freed.
void HashedWriter::fillFreeList(const std::vector<bool>& used) {
  const Word bound = std::min(reserved_.value(), file_.header().slotCount);
  Word last = 0;
  for (Word slot = 0; slot < bound; ++slot) {
    if (used[slot]) last = slot + 1;
  }
  nextFresh_ = last;
  // Reserved, so that no later operation allocates.
  free_.reserve(file_.header().slotCount);
  for (Word slot = last; slot-- > 0;) {
    if (!used[slot]) free_.push_back(static_cast<std::uint32_t>(slot));
  }
  surplusSince_ = DriftFile::moment();
  trim();
}

/// Frees the memory after the last slot in use, once no reader can be reading it.
void HashedWriter::trim() noexcept {
  if (surplusSince_ == 0 || !file_.leftSince(surplusSince_)) return;
  surplusSince_ = 0;
  const Word from = file_.header().slotsOffset + nextFresh_ * file_.header().slotStride;
  const Word begin = (from + Format::kPageSize - 1) / Format::kPageSize * Format::kPageSize;
  // Stores the bound first, so that everything below it has memory even if this process dies here.
  if (!file_.options().reserveAll) reserved_.set(nextFresh_);
  file_.giveBack(begin, file_.header().fileSize - begin);
}

/// Finds the key's index word, or the first bucket where it can be inserted.
HashedWriter::Place HashedWriter::locate(KeyWords key, Word hash) {
  const Word* const words = table(activeTable());
  const Word tag = IndexWord::tagOf(hash);
  Place place;
  place.hash_ = hash;
  place.displacement_ = Format::kMaxDisplacement + 1;
  for (Word displacement = 0; displacement <= Format::kMaxDisplacement; ++displacement) {
    const Word bucket = (hash + displacement) & mask_;
    const Word seen = loadWord(words + bucket);
    const bool intact = IndexWord::intact(seen);
    const bool open = seen == IndexWord::kEmpty || (intact && IndexWord::isTombstone(seen));
    if (open && place.displacement_ > Format::kMaxDisplacement) {
      place.bucket_ = bucket;
      place.displacement_ = displacement;
    }
    if (seen == IndexWord::kEmpty) break;
    if (open) continue;
    const IndexWord word = IndexWord::from(seen);
    if (intact && (word.tag != tag || word.displacement != displacement)) continue;
    if (intact && word.slot < file_.header().slotCount) {
      const Word* const stored = view_.slotWords(word.slot) + 1;
      HashedView::KeyRoom room{};
      if (std::ranges::equal(key, view_.keyOf(stored, room))) {
        place.bucket_ = bucket;
        place.displacement_ = displacement;
        place.seen_ = seen;
        break;
      }
      // Equal tags are rare enough to verify even records written by this process, which may have
      // been damaged since.
      if (proves(bucket, word)) continue;
    }
    // The damaged word may have been this key's; left in place, it would make the key unreadable
    // forever.
    drop(bucket);
    return locate(key, hash);
  }
  place.lookup_ = ++lookups_;
  return place;
}

HashedWriter::Place HashedWriter::lookUp(KeyWords key) {
  file_.requireOwner();
  return locate(key, hashKey(key, file_.header().hashSeed));
}

const Word* HashedWriter::record(const Place& place) {
  FENRIK_ASSERT(place.found() && place.lookup_ == lookups_);
  const IndexWord word = IndexWord::from(place.seen_);
  if (!trusted_[word.slot]) {
    if (!proves(place.bucket_, word)) {
      view_.corrupt("a record does not prove itself", "slot", word.slot);
    }
    trusted_[word.slot] = true;
  }
  return view_.slotWords(word.slot) + 1;
}

bool HashedWriter::findRecord(KeyWords key, RecordWords out) {
  const Place place = lookUp(key);
  if (place.found()) std::copy_n(record(place), view_.recordWords(), out.begin());
  return place.found();
}

/// Whether the index word's record is intact and belongs to this bucket.
bool HashedWriter::proves(Word bucket, const IndexWord& word) {
  return view_.copySlot(word, scratch_) == HashedView::Slot::whole &&
         view_.belongs(word, bucket, scratch_);
}

/// Drops an index word that is damaged or whose record is. Its slot becomes free at the next
/// takeover, which verifies that no other word refers to it.
void HashedWriter::drop(Word bucket) {
  ++lookups_;
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

/// The place of an absent key, after making room for its record.
HashedWriter::Place HashedWriter::vacancy(Place place) {
  if (live() >= file_.header().capacity) full("its limit");
  // Tombstones in a quarter of the buckets make searches long; live words fill at most half.
  if (tombstones_ > (mask_ + 1) / 4) {
    switchTable(true);
    const Word* const words = table(activeTable());
    for (place.displacement_ = 0; place.displacement_ <= Format::kMaxDisplacement;
         ++place.displacement_) {
      place.bucket_ = (place.hash_ + place.displacement_) & mask_;
      if (loadWord(words + place.bucket_) == IndexWord::kEmpty) break;
    }
  }
  if (place.displacement_ > Format::kMaxDisplacement) full("and no bucket is left for this key");
  return place;
}

void HashedWriter::checkRoom(Word inserts, Word replacements) const {
  const Word capacity = file_.header().capacity;
  const Word wanted = inserts + std::min<Word>(replacements, 1);
  const Word slots = free_.size() + (file_.header().slotCount - nextFresh_) + restingCount_;
  if (inserts <= capacity - std::min(live(), capacity) && wanted <= slots) return;
  throw CollectionFullException(Fenrik::formatString(
      "{}: full: room for {} further records is needed, {} of {} are there and {} slots are left; "
      "remove some before you add others",
      file_.path(), inserts, live(), capacity, slots));
}

/// Ensures memory for so many slots in addition to the resting ones, or for all slots.
void HashedWriter::reserveSlots(Word count) {
  const Word ready = free_.size() + (reserved_.value() - nextFresh_);
  if (count <= ready || reserved_.value() >= file_.header().slotCount) return;
  const Word stride = file_.header().slotStride;
  const Word begin = file_.header().slotsOffset + reserved_.value() * stride;
  const Word size = std::min(std::max<Word>((count - ready) * stride, Format::kChunkSize),
                             file_.header().fileSize - begin);
  file_.reserve(begin, size);
  reserved_.set(std::min(reserved_.value() + size / stride, file_.header().slotCount));
}

void HashedWriter::makeRoom(KeyWords key) { placeFor(key); }

HashedWriter::Place HashedWriter::placeFor(KeyWords key) {
  Place place = lookUp(key);
  makeRoom(place.found() ? 0 : 1, place.found() ? 1 : 0);
  if (place.lookup_ != lookups_) place = lookUp(key);
  if (!place.found()) place = vacancy(place);
  place.lookup_ = lookups_;
  return place;
}

void HashedWriter::makeRoom(Word inserts, Word replacements) {
  file_.requireOwner();
  care();
  checkRoom(inserts, replacements);
  if (inserts != 0 && tombstones_ > (mask_ + 1) / 4) switchTable(true);
  // Only the first replacements need fresh slots; once the ring of resting slots is full, each
  // replacement frees one.
  reserveSlots(inserts + std::min(replacements, Format::kRestingSlots + 1));
}

/// Takes a slot with memory from the free list.
Word HashedWriter::takeSlot() {
  if (!free_.empty()) {
    const Word slot = free_.back();
    free_.pop_back();
    return slot;
  }
  if (nextFresh_ < file_.header().slotCount) {
    reserveSlots(1);
    return nextFresh_++;
  }
  // All other slots are in use: takes the one that has rested longest.
  for (std::size_t i = 0; i < resting_.size(); ++i) {
    std::uint32_t& slot = resting_[(restingHead_ + i) % resting_.size()];
    if (slot == UINT32_MAX) continue;
    --restingCount_;
    return std::exchange(slot, UINT32_MAX);
  }
  full("and no slot is left");
}

/// Puts the slot of a replaced or removed record into the resting ring.
void HashedWriter::rest(Word slot) {
  std::uint32_t& place = resting_[restingHead_++ % resting_.size()];
  if (place != UINT32_MAX) {
    free_.push_back(place);
  } else {
    ++restingCount_;
  }
  place = static_cast<std::uint32_t>(slot);
}

/// Not called by `set`, since it could free memory that `makeRoom` has promised.
void HashedWriter::care() noexcept {
  if (++changes_ % kCareEach != 0) return;
  trim();
  restoreHeader();
}

void HashedWriter::restoreHeader() noexcept {
  for (CheckedWordWriter* word : {&active_, &live_[0], &live_[1], &reserved_}) word->restore();
}

Word HashedWriter::fillSlot(Word slot, Pieces pieces) {
  Word* const words = file_.words(file_.header().slotsOffset + slot * file_.header().slotStride);
  ++runningNumber_;
  const std::uint32_t crc =
      Seal::kLoops.copyIn(words + 1, pieces, view_.recordWords(), runningNumber_);
  storeWord(words, Seal::sealWord(crc, runningNumber_));
  trusted_[slot] = true;
  return IndexWord::sequenceOf(runningNumber_);
}

void HashedWriter::set(const Place& looked, Pieces pieces) {
  file_.requireOwner();
  FENRIK_ASSERT(looked.lookup_ == lookups_);
  const Place place = looked.found() ? looked : vacancy(looked);
  const Word slot = takeSlot();
  ++lookups_;
  const Word sequence = fillSlot(slot, pieces);
  Word* const bucket = table(activeTable()) + place.bucket_;
  const bool reused = !place.found() && loadWord(bucket) != IndexWord::kEmpty;
  storeWord(bucket,
            IndexWord{slot, sequence, IndexWord::tagOf(place.hash_), place.displacement_}.word());
  if (place.found()) {
    rest(IndexWord::from(place.seen_).slot);
    return;
  }
  if (reused) --tombstones_;
  live_[activeTable()].set(live() + 1);
}

bool HashedWriter::set(KeyWords key, Pieces pieces) {
  const Place place = lookUp(key);
  set(place, pieces);
  return place.found();
}

void HashedWriter::set(std::span<const Word> record) {
  HashedView::KeyRoom room{};
  const Piece whole{0, record.data(), record.size_bytes()};
  set(view_.keyOf(record.data(), room), Pieces(&whole, 1));
}

void HashedWriter::prefetch(KeyWords key, Prefetch what) const noexcept {
  const Word hash = hashKey(key, file_.header().hashSeed);
  const Word* const bucket = view_.table(active_.value()) + (hash & mask_);
  if (what == Prefetch::index) {
    __builtin_prefetch(bucket);
    return;
  }
  const Word seen = loadWord(bucket);
  const Word slot = IndexWord::from(seen).slot;
  if (seen == IndexWord::kEmpty || slot >= file_.header().slotCount) return;
  const auto* const source = reinterpret_cast<const std::byte*>(view_.slotWords(slot));
  const Word size = what == Prefetch::key ? 1 : file_.header().slotStride;
  for (Word line = 0; line < size; line += Format::kLineSize) __builtin_prefetch(source + line);
}

void HashedWriter::prefetchSlot(std::size_t ahead) const noexcept {
  Word slot = UINT32_MAX;
  // Each replacement frees the slot that has rested longest; the next change uses it.
  if (ahead > 0) slot = resting_[(restingHead_ + ahead - 1) % resting_.size()];
  if (slot == UINT32_MAX) {
    if (ahead < free_.size()) {
      slot = free_[free_.size() - 1 - ahead];
    } else {
      slot = nextFresh_ + (ahead - free_.size());
      if (slot >= reserved_.value()) return;
    }
  }
  const auto* const target = reinterpret_cast<const std::byte*>(view_.slotWords(slot));
  for (Word line = 0; line < file_.header().slotStride; line += Format::kLineSize) {
    __builtin_prefetch(target + line, 1);
  }
}

std::vector<Word> HashedWriter::liveRecord(Word slot) {
  HashedView::KeyRoom room{};
  const Place place = lookUp(view_.keyOf(view_.slotWords(slot) + 1, room));
  const IndexWord word = IndexWord::from(place.seen_);
  if (!place.found() || word.slot != slot || !proves(place.bucket_, word)) return {};
  return scratch_;
}

std::vector<std::vector<Word>> HashedWriter::beyond(std::size_t offset, Word version) {
  const auto numberOf = [offset](const void* record) {
    Word number = 0;
    std::memcpy(&number, static_cast<const std::byte*>(record) + offset, sizeof number);
    return number;
  };
  FENRIK_ASSERT(offset + sizeof(Word) <= view_.recordWords() * sizeof(Word));
  auto records = recordsWhere([&](const std::byte* record) { return numberOf(record) > version; });
  std::ranges::sort(records, {}, [&](const auto& record) { return numberOf(record.data()); });
  return records;
}

void HashedWriter::remove(const Place& place) {
  file_.requireOwner();
  care();
  FENRIK_ASSERT(place.found() && place.lookup_ == lookups_);
  ++lookups_;
  storeWord(table(activeTable()) + place.bucket_, IndexWord::tombstone());
  ++tombstones_;
  live_[activeTable()].set(live() - 1);
  sweepTombstones(place.bucket_);
  rest(IndexWord::from(place.seen_).slot);
}

bool HashedWriter::remove(KeyWords key) {
  const Place place = lookUp(key);
  if (place.found()) remove(place);
  return place.found();
}

/// Turns tombstones in front of an empty bucket into empty buckets: no search needs to continue
/// past them.
void HashedWriter::sweepTombstones(Word bucket) {
  Word* const words = table(activeTable());
  if (loadWord(words + ((bucket + 1) & mask_)) != IndexWord::kEmpty) return;
  while (loadWord(words + bucket) == IndexWord::tombstone()) {
    storeWord(words + bucket, IndexWord::kEmpty);
    --tombstones_;
    bucket = (bucket - 1) & mask_;
  }
}

/// Empties the unused index table, freeing its memory if no reader can be reading it.
void HashedWriter::emptyTable(Word which) noexcept {
  const Word size = (mask_ + 1) * sizeof(Word);
  const Word offset = Format::kHeaderSize + which * size;
  if (size >= Format::kPageSize && file_.leftSince(DriftFile::moment()) &&
      file_.giveBack(offset, size)) {
    return;
  }
  std::array<Word, Format::kPageSize / sizeof(Word)> page;
  const Word step = std::min<Word>(page.size(), mask_ + 1);
  for (Word begin = 0; begin <= mask_; begin += step) {
    // Reading by system call leaves holes as they are: a full file system may have no page for
    // them.
    if (!file_.read(offset + begin * sizeof(Word), page.data(), step * sizeof(Word))) page.fill(1);
    for (Word i = 0; i < step; ++i) {
      if (page[i] != 0) storeWord(table(which) + begin + i, 0);
    }
  }
}

/// Switches to the other index table by one store: with `keep`, copies the live words, which
/// eliminates tombstones; otherwise removes all records.
void HashedWriter::switchTable(bool keep) {
  ++lookups_;
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
    // Terminates, because at most as many words as there are buckets are copied.
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
  emptyTable(from);
}

void HashedWriter::removeAll() {
  file_.requireOwner();
  switchTable(false);
  free_.clear();
  std::ranges::fill(resting_, UINT32_MAX);
  restingCount_ = 0;
  // Slots are used from the lowest up again.
  fillFreeList(std::vector<bool>(file_.header().slotCount));
}

}  // namespace Drift
