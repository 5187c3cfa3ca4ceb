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

/// Records read ahead while the index grows: enough to cover the time that memory takes.
constexpr Word kReadAhead = 16;

}  // namespace

HashedWriter::HashedWriter(DriftFile& file)
    : file_(file),
      view_(file),
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
      resting_(Format::kRestingSlots, UINT32_MAX) {
  FENRIK_ASSERT(active_.adopt() && live_[0].adopt() && live_[1].adopt() && reserved_.adopt());
  index_ = table(Format::ActiveIndex::from(active_.value()));
  takeOver();
}

IndexTable<Word> HashedWriter::table(const Format::ActiveIndex& active) noexcept {
  FENRIK_ASSERT(Format::isIndexOf(file_.header(), active));
  return {active.word(), file_.words(Format::indexOffset(file_.header(), active.table)),
          (Word{1} << active.bits) - 1, static_cast<unsigned>(64 - active.bits)};
}

void HashedWriter::full(const char* what) const {
  throw CollectionFullException(
      Fenrik::formatString("{}: full: {} of {} records, {}; remove some before you add others",
                           file_.path(), live(), file_.header().capacity, what));
}

void HashedWriter::takeOver() {
  emptyTable(activeTable() ^ 1, file_.header().indexWords);
  std::vector<bool> used(slotsReserved());
  Word count = 0;
  Word* const end = index_.words + index_.mask + 1;
  const Word step = std::min<Word>(Format::kLineSize / sizeof(Word), index_.mask + 1);
  for (Word* line = index_.words; line != end; line += step) {
    // Many lines of the index are completely empty.
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
    if (word.slot < used.size() && !used[word.slot]) {
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
  Word last = used.size();
  while (last > 0 && !used[last - 1]) --last;
  nextFresh_ = last;
  surplusSince_ = DriftFile::moment();
  trim();
  mirrorSlots();
  for (Word slot = last; slot-- > 0;) {
    if (!used[slot]) free_.push_back(static_cast<std::uint32_t>(slot));
  }
}

Word HashedWriter::slotsReserved() const noexcept {
  return std::min(reserved_.value(), file_.header().slotCount);
}

/// Room in this process's memory for all slots that can be used, so that a change allocates none.
void HashedWriter::mirrorSlots() {
  free_.reserve(slotsReserved());
  trusted_.resize(std::max<Word>(trusted_.size(), slotsReserved()));
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
  const Word home = index_.home(hash);
  const Word tag = IndexWord::tagOf(hash);
  Place place;
  place.hash_ = hash;
  place.displacement_ = Format::kMaxDisplacement + 1;
  for (Word displacement = 0; displacement <= Format::kMaxDisplacement; ++displacement) {
    const Word bucket = (home + displacement) & index_.mask;
    const Word seen = loadWord(index_.words + bucket);
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
    if (intact && word.slot < trusted_.size()) {
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
         word.belongs(view_.hashOf(scratch_.data()), index_, bucket);
}

/// Drops an index word that is damaged or whose record is. Its slot becomes free at the next
/// takeover, which verifies that no other word refers to it.
void HashedWriter::drop(Word bucket) {
  ++lookups_;
  storeWord(index_.words + bucket, IndexWord::tombstone());
  ++tombstones_;
  ++dropped_;
  Word count = 0;
  for (Word position = 0; position <= index_.mask; ++position) {
    const Word seen = loadWord(index_.words + position);
    count += IndexWord::intact(seen) && !IndexWord::isTombstone(seen) ? 1 : 0;
  }
  live_[activeTable()].set(count);
}

/// The place of an absent key, after making room for its record.
HashedWriter::Place HashedWriter::vacancy(Place place) {
  if (live() >= file_.header().capacity) full("its limit");
  const bool beside = place.displacement_ > Format::kMaxDisplacement;
  if (crowded(1) || (beside && index_.mask + 1 < file_.header().indexWords)) {
    rebuildIndex(std::max(wordsFor(live() + 1), beside ? 2 * (index_.mask + 1) : 0));
    for (place.displacement_ = 0; place.displacement_ <= Format::kMaxDisplacement;
         ++place.displacement_) {
      place.bucket_ = (index_.home(place.hash_) + place.displacement_) & index_.mask;
      if (loadWord(index_.words + place.bucket_) == IndexWord::kEmpty) break;
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
  mirrorSlots();
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
  if (inserts != 0 && crowded(inserts)) rebuildIndex(wordsFor(live() + inserts));
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
  Word* const bucket = index_.words + place.bucket_;
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
  const Word* const bucket = index_.words + index_.home(hash);
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
  storeWord(index_.words + place.bucket_, IndexWord::tombstone());
  ++tombstones_;
  live_[activeTable()].set(live() - 1);
  sweepTombstones(place.bucket_);
  rest(IndexWord::from(place.seen_).slot);
  if (changes_ % kCareEach == 0) shrinkIndex();
}

bool HashedWriter::remove(KeyWords key) {
  const Place place = lookUp(key);
  if (place.found()) remove(place);
  return place.found();
}

/// Turns tombstones in front of an empty bucket into empty buckets: no search needs to continue
/// past them.
void HashedWriter::sweepTombstones(Word bucket) {
  Word* const words = index_.words;
  if (loadWord(words + ((bucket + 1) & index_.mask)) != IndexWord::kEmpty) return;
  while (loadWord(words + bucket) == IndexWord::tombstone()) {
    storeWord(words + bucket, IndexWord::kEmpty);
    --tombstones_;
    bucket = (bucket - 1) & index_.mask;
  }
}

/// Words of an index in which a third, or at most a half, is live. Half as many would do until the
/// records are half again as many; so a number that moves up and down does not move the index.
Word HashedWriter::wordsFor(Word records) const noexcept {
  return std::clamp(std::bit_ceil(3 * records), startIndexWords(file_.header()),
                    file_.header().indexWords);
}

/// Tombstones in a quarter of the buckets make searches long, as do live words in more than half.
bool HashedWriter::crowded(Word inserts) const noexcept {
  const Word words = index_.mask + 1;
  return tombstones_ > words / 4 ||
         (live() + inserts > words / 2 && words < file_.header().indexWords);
}

/// Empties the first words of the index table that is not in use, freeing their memory if no reader
/// can be reading it.
void HashedWriter::emptyTable(Word which, Word words) noexcept {
  const Word size = words * sizeof(Word);
  const Word offset = Format::indexOffset(file_.header(), which);
  if (size >= Format::kPageSize && file_.leftSince(DriftFile::moment()) &&
      file_.giveBack(offset, size)) {
    return;
  }
  std::array<Word, Format::kPageSize / sizeof(Word)> page;
  const Word step = std::min<Word>(page.size(), words);
  for (Word begin = 0; begin < words; begin += step) {
    // Reading by system call leaves holes as they are: a full file system may have no page for
    // them.
    if (!file_.read(offset + begin * sizeof(Word), page.data(), step * sizeof(Word))) page.fill(1);
    for (Word i = 0; i < step; ++i) {
      if (page[i] != 0) storeWord(file_.words(offset) + begin + i, 0);
    }
  }
}

/// Copies the live words to the other index table, of so many words, which eliminates tombstones.
void HashedWriter::rebuildIndex(Word words) {
  const auto former = Format::ActiveIndex::from(active_.value());
  const auto next = activeIndexOf(former.table ^ 1, words, former.switches + 1);
  file_.reserve(Format::indexOffset(file_.header(), next.table), words * sizeof(Word));
  const Word count = copyIndex(table(next));
  switchTo(next, count);
}

/// Gives memory back, and spares those who walk the index, once few records are left.
void HashedWriter::shrinkIndex() noexcept {
  const Word words = wordsFor(live());
  if (words > (index_.mask + 1) / 4) return;
  try {
    rebuildIndex(words);
  } catch (const Fenrik::Exception&) {
    // There is no room for the smaller one.
  }
}

/// Returns the number of words copied. Drops those that are damaged, or whose record's key is where
/// it must be known.
Word HashedWriter::copyIndex(const IndexTable<Word>& target) {
  // It is empty, unless something else has written there.
  for (Word position = 0; position <= target.mask; ++position) {
    Word* const word = target.words + position;
    if (loadWord(word) != IndexWord::kEmpty) storeWord(word, IndexWord::kEmpty);
  }
  Word count = 0;
  const Word bound = slotsReserved();
  for (Word position = 0; position <= index_.mask; ++position) {
    // A larger index needs more bits of the hash than the word's place tells.
    const bool grows = target.mask > index_.mask;
    if (grows && position + kReadAhead <= index_.mask) {
      const Word slot = IndexWord::from(loadWord(index_.words + position + kReadAhead)).slot;
      if (slot < bound) __builtin_prefetch(view_.slotWords(slot) + 1);
    }
    const Word seen = loadWord(index_.words + position);
    if (seen == IndexWord::kEmpty || IndexWord::isTombstone(seen)) continue;
    IndexWord word = IndexWord::from(seen);
    bool intact = IndexWord::intact(seen) && word.slot < bound;
    Word home =
        ((position - word.displacement) & index_.mask) >> (grows ? 0 : target.shift - index_.shift);
    if (grows && intact) {
      const Word hash = view_.hashOf(view_.slotWords(word.slot) + 1);
      intact = word.belongs(hash, index_, position);
      home = target.home(hash);
    }
    const auto bucket = [&] { return target.words + ((home + word.displacement) & target.mask); };
    word.displacement = 0;
    // Terminates, because at most half as many words as there are buckets are copied.
    while (intact && loadWord(bucket()) != IndexWord::kEmpty) ++word.displacement;
    if (!intact || word.displacement > Format::kMaxDisplacement) {
      ++dropped_;
      continue;
    }
    storeWord(bucket(), word.word());
    ++count;
  }
  return count;
}

/// Makes the other index table the one in use, by one store.
void HashedWriter::switchTo(const Format::ActiveIndex& next, Word count) {
  ++lookups_;
  live_[next.table].set(count);
  const Word formerWords = index_.mask + 1;
  active_.set(next.word());
  index_ = table(next);
  tombstones_ = 0;
  emptyTable(next.table ^ 1, formerWords);
}

void HashedWriter::removeAll() {
  file_.requireOwner();
  const auto former = Format::ActiveIndex::from(active_.value());
  const Word words = startIndexWords(file_.header());
  file_.reserve(Format::indexOffset(file_.header(), former.table ^ 1), words * sizeof(Word));
  switchTo(activeIndexOf(former.table ^ 1, words, former.switches + 1), 0);
  free_.clear();
  std::ranges::fill(resting_, UINT32_MAX);
  restingCount_ = 0;
  // Slots are used from the lowest up again.
  fillFreeList({});
}

}  // namespace Drift
