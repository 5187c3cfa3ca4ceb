#include <algorithm>
#include <array>

#include "Drift/HashedCollection.h"
#include "Fenrik/Format.h"

namespace Drift {

namespace {

/// A reader that meets so many changes in one read has met damage: a change takes the writer some
/// hundred nanoseconds, a read less than that.
constexpr int kAttempts = 10000;

enum Outcome : int { kAbsent, kFound, kAgain };

bool keyLess(KeyWords a, KeyWords b) {
  for (std::size_t i = 0; i < a.size(); ++i) {
    if (a[i] != b[i]) return a[i] < b[i];
  }
  return false;
}

}  // namespace

Word hashKey(KeyWords key, Word seed) noexcept {
  // Multiplier: 2^64 divided by the golden ratio (Knuth, vol. 3, 6.4); each word is mixed and
  // folded.
  constexpr Word kMultiplier = 0x9e3779b97f4a7c15;
  Word hash = seed;
  for (const Word word : key) {
    hash = (hash ^ word) * kMultiplier;
    hash ^= hash >> 32;
  }
  hash *= kMultiplier;
  return hash ^ (hash >> 29);
}

HashedView::HashedView(const DriftFile& file)
    : file_(&file),
      pass_(file),
      keyWords_(Format::paddedSize(file.header().keySize) / sizeof(Word)),
      lastKeyMask_(~Word{0} >> (keyWords_ * sizeof(Word) - file.header().keySize) * 8),
      recordWords_(Format::paddedSize(file.header().recordSize) / sizeof(Word)),
      activeWord_(file.data(), Format::Line::active),
      reservedWord_(file.data(), Format::Line::reserved),
      candidate_(recordWords_) {}

KeyWords HashedView::keyOf(const Word* record, KeyRoom& room) const noexcept {
  std::copy_n(record, keyWords_, room.begin());
  room[keyWords_ - 1] &= lastKeyMask_;
  return KeyWords(room).first(keyWords_);
}

IndexTable<const Word> HashedView::indexOf(Word active) const {
  const auto parts = Format::ActiveIndex::from(active);
  if (!Format::isIndexOf(file_->header(), parts)) {
    corrupt("the index in use has a size that it cannot have, log2", "line", parts.bits);
  }
  return {active, file_->words(Format::indexOffset(file_->header(), parts.table)),
          (Word{1} << parts.bits) - 1, static_cast<unsigned>(64 - parts.bits)};
}

Word HashedView::hashOf(const Word* record) const noexcept {
  KeyRoom room{};
  return hashKey(keyOf(record, room), file_->header().hashSeed);
}

const Word* HashedView::slotWords(Word slot) const noexcept {
  return file_->words(file_->header().slotsOffset + slot * file_->header().slotStride);
}

void HashedView::corrupt(const char* what, const char* place, Word at) const {
  throw Fenrik::CorruptionDetectedException(
      Fenrik::formatString("{}: {} ({} {})", file_->path(), what, place, at));
}

void HashedView::restless() const {
  corrupt("it changes without end while it is read", "after attempts", kAttempts);
}

Word HashedView::active() const {
  const auto value = activeWord_.load();
  if (!value) corrupt("the word that names the index in use does not prove itself", "line", 0);
  return *value;
}

Word HashedView::reserved() const {
  const auto value = reservedWord_.load();
  if (!value) corrupt("the word that bounds the slots in use does not prove itself", "line", 7);
  return std::min(*value, file_->header().slotCount);
}

Word HashedView::size() const {
  for (int attempt = 0; attempt < kAttempts; ++attempt) {
    const Word before = active();
    const auto line = (before & 1) == 0 ? Format::Line::live0 : Format::Line::live1;
    const auto value = CheckedWord(file_->data(), line).load();
    if (active() != before) continue;
    if (!value) corrupt("the number of records does not prove itself", "table", before & 1);
    return *value;
  }
  restless();
}

HashedView::Slot HashedView::copySlot(const IndexWord& word, RecordWords out) const noexcept {
  const Word* const words = slotWords(word.slot);
  const Word seal = loadWord(words);
  if (IndexWord::sequenceOf(Seal::lowOf(seal)) != word.sequence) return Slot::torn;
  const std::uint32_t crc =
      Seal::kLoops.copyOut(out.data(), words + 1, recordWords_, Seal::lowOf(seal));
  return Seal::sealWord(crc, Seal::lowOf(seal)) == seal ? Slot::whole : Slot::torn;
}

/// Copies the record that the index word `seen` of the bucket refers to. `torn`: the bucket has
/// changed meanwhile. Throws if the bucket is unchanged and the record is not intact.
HashedView::Slot HashedView::readSlot(const IndexTable<const Word>& index, Word position, Word seen,
                                      RecordWords out, Word reserved) const {
  const IndexWord word = IndexWord::from(seen);
  const Word* const bucket = index.words + position;
  const bool inside = word.slot < reserved;
  if (inside && copySlot(word, out) == Slot::whole && loadWord(bucket) == seen) {
    if (!word.belongs(hashOf(out.data()), index, position)) {
      // The table may be in use again, with another size.
      if (active() != index.active) return Slot::torn;
      corrupt("an index word leads to another key's record", "bucket", position);
    }
    return Slot::whole;
  }
  if (loadWord(bucket) != seen) return Slot::torn;
  if (!inside) {
    // The bound may have been raised after we read it, before the word was published.
    if (word.slot < this->reserved()) return Slot::torn;
    corrupt("an index word leads behind the last slot", "bucket", position);
  }
  // The same word may have reappeared for another record; reading again with an unchanged word
  // decides.
  if (copySlot(word, out) == Slot::whole || loadWord(bucket) != seen) return Slot::torn;
  corrupt("a record does not prove itself", "slot", word.slot);
}

int HashedView::findOnce(KeyWords key, Word hash, RecordWords out) const {
  const Word before = active();
  const Word bound = reserved();
  const auto index = indexOf(before);
  const Word tag = IndexWord::tagOf(hash);
  for (Word displacement = 0; displacement <= Format::kMaxDisplacement; ++displacement) {
    const Word position = (index.home(hash) + displacement) & index.mask;
    const Word seen = loadWord(index.words + position);
    if (seen == IndexWord::kEmpty) break;
    const Word* const ahead = slotWords(std::min(IndexWord::from(seen).slot, bound));
    for (Word line = 0; line <= recordWords_; line += 8) __builtin_prefetch(ahead + line);
    if (!IndexWord::intact(seen)) {
      if (loadWord(index.words + position) != seen) return kAgain;
      corrupt("an index word does not prove itself", "bucket", position);
    }
    const IndexWord word = IndexWord::from(seen);
    if (IndexWord::isTombstone(seen) || word.tag != tag || word.displacement != displacement) {
      continue;
    }
    if (readSlot(index, position, seen, out, bound) == Slot::torn) return kAgain;
    KeyRoom room{};
    if (std::ranges::equal(key, keyOf(out.data(), room))) {
      return active() == before ? kFound : kAgain;
    }
  }
  return active() == before ? kAbsent : kAgain;
}

bool HashedView::find(KeyWords key, RecordWords out) const {
  pass_.show();
  const Word hash = hashKey(key, file_->header().hashSeed);
  for (int attempt = 0; attempt < kAttempts; ++attempt) {
    const int outcome = findOnce(key, hash, out);
    if (outcome != kAgain) return outcome == kFound;
  }
  restless();
}

WalkPosition HashedView::positionOf(KeyWords key) const noexcept {
  return {hashKey(key, file_->header().hashSeed), true};
}

/// Finds the first record after `position` among those whose home bucket is `home`, and advances
/// the position to it.
int HashedView::nextInBucket(const IndexTable<const Word>& index, WalkPosition& position,
                             KeyWords after, Word home, RecordWords out) const {
  const WalkPosition from = position;
  bool found = false;
  Word bound = 0;
  for (Word displacement = 0; displacement <= Format::kMaxDisplacement; ++displacement) {
    const Word at = (home + displacement) & index.mask;
    const Word seen = loadWord(index.words + at);
    if (seen == IndexWord::kEmpty) break;
    if (!IndexWord::intact(seen)) {
      if (loadWord(index.words + at) != seen) return kAgain;
      corrupt("an index word does not prove itself", "bucket", at);
    }
    if (IndexWord::isTombstone(seen) || IndexWord::from(seen).displacement != displacement) {
      continue;
    }
    if (bound == 0) bound = reserved();
    if (readSlot(index, at, seen, candidate_, bound) == Slot::torn) return kAgain;
    KeyRoom room{};
    const KeyWords key = keyOf(candidate_.data(), room);
    const Word hash = hashKey(key, file_->header().hashSeed);
    if (hash < from.hash || (hash == from.hash && from.started && !keyLess(after, key))) continue;
    KeyRoom best{};
    if (found && (hash > position.hash ||
                  (hash == position.hash && !keyLess(key, keyOf(out.data(), best))))) {
      continue;
    }
    std::ranges::copy(candidate_, out.begin());
    position = {hash, true};
    found = true;
  }
  return found ? kFound : kAbsent;
}

bool HashedView::next(WalkPosition& position, KeyWords after, RecordWords out) const {
  pass_.show();
  // `after` may point into `out`, which is overwritten.
  KeyRoom copy;
  std::ranges::copy(after, copy.begin());
  const KeyWords key(copy.data(), after.size());
  for (int attempt = 0; attempt < kAttempts; ++attempt) {
    const Word before = active();
    const auto index = indexOf(before);
    WalkPosition next = position;
    int outcome = kAbsent;
    for (Word home = index.home(position.hash); outcome == kAbsent && home <= index.mask; ++home) {
      // Most buckets are empty; an empty bucket is no record's home.
      if (loadWord(index.words + home) == IndexWord::kEmpty) continue;
      outcome = nextInBucket(index, next, key, home, out);
    }
    // The buckets passed are valid only if the index table has not been switched meanwhile.
    if (outcome == kAgain || active() != before) continue;
    if (outcome == kFound) {
      position = next;
    } else {
      // After a complete walk, readers often do not use the collection for some time.
      pass_.drop();
    }
    return outcome == kFound;
  }
  restless();
}

}  // namespace Drift
