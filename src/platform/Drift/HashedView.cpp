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
      mask_(file.header().indexWords - 1),
      activeWord_(file.data(), Format::Line::active),
      reservedWord_(file.data(), Format::Line::reserved),
      candidate_(recordWords_) {}

KeyWords HashedView::keyOf(const Word* record, KeyRoom& room) const noexcept {
  std::copy_n(record, keyWords_, room.begin());
  room[keyWords_ - 1] &= lastKeyMask_;
  return KeyWords(room).first(keyWords_);
}

const Word* HashedView::table(Word active) const noexcept {
  return file_->words(Format::kHeaderSize) + (active & 1) * (mask_ + 1);
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

/// Whether the record can belong to this index word in this bucket.
bool HashedView::belongs(const IndexWord& word, Word bucket, RecordWords record) const noexcept {
  KeyRoom room{};
  const Word hash = hashKey(keyOf(record.data(), room), file_->header().hashSeed);
  return word.tag == IndexWord::tagOf(hash) && ((hash + word.displacement) & mask_) == bucket;
}

/// Copies the record that the index word `seen` of the bucket refers to. `torn`: the bucket has
/// changed meanwhile. Throws if the bucket is unchanged and the record is not intact.
HashedView::Slot HashedView::readSlot(const Word* bucket, Word seen, RecordWords out,
                                      Word reserved) const {
  const IndexWord word = IndexWord::from(seen);
  const auto position = static_cast<Word>(bucket - table(0)) & mask_;
  const bool inside = word.slot < reserved;
  if (inside && copySlot(word, out) == Slot::whole && loadWord(bucket) == seen) {
    if (!belongs(word, position, out)) {
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
  const Word* const words = table(before);
  const Word tag = IndexWord::tagOf(hash);
  for (Word displacement = 0; displacement <= Format::kMaxDisplacement; ++displacement) {
    const Word* const bucket = words + ((hash + displacement) & mask_);
    const Word seen = loadWord(bucket);
    if (seen == IndexWord::kEmpty) break;
    const Word* const ahead = slotWords(std::min(IndexWord::from(seen).slot, bound));
    for (Word line = 0; line <= recordWords_; line += 8) __builtin_prefetch(ahead + line);
    if (!IndexWord::intact(seen)) {
      if (loadWord(bucket) != seen) return kAgain;
      corrupt("an index word does not prove itself", "bucket", (hash + displacement) & mask_);
    }
    const IndexWord word = IndexWord::from(seen);
    if (IndexWord::isTombstone(seen) || word.tag != tag || word.displacement != displacement) {
      continue;
    }
    if (readSlot(bucket, seen, out, bound) == Slot::torn) return kAgain;
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
  return {hashKey(key, file_->header().hashSeed) & mask_, true};
}

/// Finds the record with the smallest key after `after` (null: the smallest key) among the records
/// whose home bucket is `home`.
int HashedView::nextInBucket(Word active, Word home, const KeyWords* after, RecordWords out) const {
  const Word* const words = table(active);
  bool found = false;
  Word bound = 0;
  for (Word displacement = 0; displacement <= Format::kMaxDisplacement; ++displacement) {
    const Word* const bucket = words + ((home + displacement) & mask_);
    const Word seen = loadWord(bucket);
    if (seen == IndexWord::kEmpty) break;
    if (!IndexWord::intact(seen)) {
      if (loadWord(bucket) != seen) return kAgain;
      corrupt("an index word does not prove itself", "bucket", (home + displacement) & mask_);
    }
    if (IndexWord::isTombstone(seen) || IndexWord::from(seen).displacement != displacement) {
      continue;
    }
    if (bound == 0) bound = reserved();
    if (readSlot(bucket, seen, candidate_, bound) == Slot::torn) return kAgain;
    KeyRoom room{};
    const KeyWords key = keyOf(candidate_.data(), room);
    if (after != nullptr && !keyLess(*after, key)) continue;
    KeyRoom best{};
    if (found && !keyLess(key, keyOf(out.data(), best))) continue;
    std::ranges::copy(candidate_, out.begin());
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
    int outcome = kAbsent;
    Word bucket = position.bucket;
    if (position.started) outcome = nextInBucket(before, bucket++, &key, out);
    const Word* const words = table(before);
    for (; outcome == kAbsent && bucket <= mask_; ++bucket) {
      // Most buckets are empty; an empty bucket is no record's home.
      if (loadWord(words + bucket) == IndexWord::kEmpty) continue;
      outcome = nextInBucket(before, bucket, nullptr, out);
    }
    // The buckets passed are valid only if the index table has not been switched meanwhile.
    if (outcome == kAgain || active() != before) continue;
    if (outcome == kFound) {
      position = {bucket - 1, true};
    } else {
      // After a complete walk, readers often do not use the collection for some time.
      pass_.drop();
    }
    return outcome == kFound;
  }
  restless();
}

}  // namespace Drift
