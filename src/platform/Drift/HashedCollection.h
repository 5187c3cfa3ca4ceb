#pragma once

#include <array>
#include <cstdint>
#include <span>
#include <vector>

#include "Drift/DriftFile.h"
#include "Drift/IndexWord.h"
#include "Drift/ReaderPass.h"
#include "Fenrik/Export.h"

namespace Drift {

/// A key's bytes as stored in the file, zero-padded to whole words.
using KeyWords = std::span<const Word>;
/// Buffer for a record, in whole words.
using RecordWords = std::span<Word>;

/// Hash of a key, given the collection's seed. High bits: home bucket; low bits: tag.
QUARNBASTIL_EXPORT Word hashKey(KeyWords key, Word seed) noexcept;

/// Position of a walk: after the record whose key has this hash and is the one passed along, or,
/// before the first record, in front of the keys that have this hash.
struct WalkPosition {
  Word hash = 0;
  bool started = false;  ///< false before the first record
};

/// Reads a hashed collection: index words over copy-on-write slots.
///
/// Process and thread: any number of readers, in any process, alongside the single writer. A view
/// belongs to one thread.
///
/// I1. A read returns a complete record that was committed at some instant during the call, or
///     reports that there was none.
/// I2. Bytes that no writer can have stored cause `Fenrik::CorruptionDetectedException`, which
///     gives path and position; never a crash, an endless loop or a wrong record.
/// I3. A walk visits each record that exists throughout exactly once, ordered by the keys' hashes;
///     keys of one hash are compared as little-endian words, first word first.
class QUARNBASTIL_EXPORT HashedView {
 public:
  explicit HashedView(const DriftFile& file);

  Word keyWords() const noexcept { return keyWords_; }
  Word recordWords() const noexcept { return recordWords_; }

  Word size() const;

  /// Copies the key's record. False if there is none.
  bool find(KeyWords key, RecordWords out) const;

  /// Copies the first record after `position` and advances the position to it. The position is
  /// either the start or after the record with key `after`, which need not exist any more. False at
  /// the end.
  bool next(WalkPosition& position, KeyWords after, RecordWords out) const;

  /// The position after a key, whether or not it exists.
  WalkPosition positionOf(KeyWords key) const noexcept;

  /// Call when no look-up may follow for some time, so that the writer can free memory.
  void rest() const noexcept { pass_.drop(); }

 private:
  friend class HashedWriter;

  enum class Slot { whole, torn };
  using KeyRoom = std::array<Word, Format::kMaxKeySize / sizeof(Word)>;

  /// The key at the start of a record. The record may continue within the key's last word.
  KeyWords keyOf(const Word* record, KeyRoom& room) const noexcept;
  IndexTable<const Word> indexOf(Word active) const;
  const Word* slotWords(Word slot) const noexcept;
  Word active() const;
  Word reserved() const;
  Slot copySlot(const IndexWord& word, RecordWords out) const noexcept;
  Word hashOf(const Word* record) const noexcept;
  Slot readSlot(const IndexTable<const Word>& index, Word position, Word seen, RecordWords out,
                Word reserved) const;
  int findOnce(KeyWords key, Word hash, RecordWords out) const;
  int nextInBucket(const IndexTable<const Word>& index, WalkPosition& position, KeyWords after,
                   Word home, RecordWords out) const;
  [[noreturn]] void corrupt(const char* what, const char* place, Word at) const;
  [[noreturn]] void restless() const;

  const DriftFile* file_;
  mutable ReaderPass pass_;
  Word keyWords_;
  Word lastKeyMask_;  ///< mask of the key's bytes within its last word
  Word recordWords_;
  CheckedWord activeWord_;
  CheckedWord reservedWord_;
  /// Buffer for records compared during a walk's step.
  mutable std::vector<Word> candidate_;
};

/// Writes a hashed collection. At every instant readers, and the process that takes over after a
/// crash of this one, find a key's old record or its new one.
class QUARNBASTIL_EXPORT HashedWriter {
 public:
  /// Takes the collection over: builds the free list from the index, drops invalid index words,
  /// frees unused memory. Cost: linear in live records; the index is at most some twelve times as
  /// long, or one page.
  explicit HashedWriter(DriftFile& file);

  const HashedView& view() const noexcept { return view_; }

  /// Result of one search of the index: the bucket of a key's record, or the one where it would be
  /// inserted. Valid until the writer's next change or look-up.
  class Place {
   public:
    bool found() const noexcept { return seen_ != 0; }

   private:
    friend class HashedWriter;

    Word hash_ = 0;
    Word bucket_ = 0;
    Word displacement_ = 0;
    Word seen_ = 0;  ///< the key's index word; 0 if the key is absent
    Word lookup_ = 0;
  };

  /// Looks a key up, so that its record can be read, replaced or removed without another search.
  /// Drops damaged index words on the way.
  Place lookUp(KeyWords key);
  /// The record at a place, in shared memory. Valid until the writer's next change. The checksum is
  /// verified once, and not for records that this process wrote. Throws
  /// `Fenrik::CorruptionDetectedException`. REQUIRES: found.
  const Word* record(const Place& place);
  /// Copies the key's record. False if there is none. Throws as `record` does.
  bool findRecord(KeyWords key, RecordWords out);

  /// Inserts the record, or replaces the one with the same key. Throws `CollectionFullException` or
  /// `NoSpaceException`; nothing has changed then. REQUIRES: the pieces begin with the looked-up
  /// key in canonical form and end within the record.
  void set(const Place& place, Pieces pieces);
  /// As above, including the look-up. Returns whether a record was replaced.
  bool set(KeyWords key, Pieces pieces);
  void set(std::span<const Word> record);
  /// Ensures that a record with this key can be stored. Throws what `set` would throw; nothing
  /// visible to readers has changed then.
  void makeRoom(KeyWords key);
  /// As above. Returns the place for the record.
  Place placeFor(KeyWords key);
  /// Whether the place is still valid: no change or look-up has happened since.
  bool holds(const Place& place) const noexcept { return place.lookup_ == lookups_; }
  /// Ensures that so many records with new keys can be inserted, and so many replaced, before any
  /// other change. Throws `CollectionFullException`, which gives the request and the room left, or
  /// `NoSpaceException`; nothing visible to readers has changed then. It does not guarantee a free
  /// bucket near a given key's home; there are twice as many buckets as records.
  void makeRoom(Word inserts, Word replacements);

  /// Whether there is no room for a further key.
  bool full() const noexcept { return live() >= file_.header().capacity; }

  /// Prefetches what `set` of the key will touch: its index word; once that has arrived, the key of
  /// the record that it refers to; or that whole record, for those who read it before they set it.
  enum class Prefetch : std::uint8_t { index, key, record };
  void prefetch(KeyWords key, Prefetch what) const noexcept;
  /// Prefetches the slot that will be written by the change `ahead` changes from now. Exact for a
  /// series of replacements, otherwise a guess.
  void prefetchSlot(std::size_t ahead) const noexcept;

  /// Removes the record at a place. REQUIRES: found.
  void remove(const Place& place);
  /// Removes the key's record. False if there is none.
  bool remove(KeyWords key);
  /// Removes all records in one step. Throws `NoSpaceException`; nothing has changed then.
  void removeAll();

  /// Copies of the live, undamaged records that `wanted(const std::byte* record)` accepts. Much
  /// faster than a walk if few are accepted: `wanted` is first applied to all slots, including
  /// those of removed records, and accepted ones are verified by a look-up.
  template <class Wanted>
  std::vector<std::vector<Word>> recordsWhere(Wanted wanted) {
    std::vector<std::vector<Word>> records;
    for (Word slot = 0; slot < reserved_.value(); ++slot) {
      const Word* const words = view_.slotWords(slot) + 1;
      if (!wanted(reinterpret_cast<const std::byte*>(words))) continue;
      std::vector<Word> record = liveRecord(slot);
      if (!record.empty() && wanted(reinterpret_cast<const std::byte*>(record.data()))) {
        records.push_back(std::move(record));
      }
    }
    return records;
  }
  /// The live records whose eight-byte number at `offset` is above `version`, in ascending order of
  /// that number.
  std::vector<std::vector<Word>> beyond(std::size_t offset, Word version);

  /// Repairs header words that were damaged after this process took the collection over. Runs
  /// automatically at every 256th removal or request for room; call it when a reader has met
  /// damage.
  void restoreHeader() noexcept;

  /// Number of index words dropped because they or their records were damaged. Each may be a lost
  /// record.
  Word dropped() const noexcept { return dropped_; }

 private:
  Word activeTable() const noexcept { return active_.value() & 1; }
  Word live() const noexcept { return live_[activeTable()].value(); }
  IndexTable<Word> table(const Format::ActiveIndex& active) noexcept;
  Word wordsFor(Word records) const noexcept;
  bool crowded(Word inserts) const noexcept;

  void takeOver();
  bool adoptWord(Word* bucket, std::vector<bool>& used);
  Word slotsReserved() const noexcept;
  void mirrorSlots();
  void fillFreeList(const std::vector<bool>& used);
  void trim() noexcept;
  void care() noexcept;
  Place locate(KeyWords key, Word hash);
  Place vacancy(Place place);
  void checkRoom(Word inserts, Word replacements) const;
  void reserveSlots(Word count);
  bool proves(Word bucket, const IndexWord& word);
  std::vector<Word> liveRecord(Word slot);
  void drop(Word bucket);
  Word takeSlot();
  void rest(Word slot);
  Word fillSlot(Word slot, Pieces pieces);
  void sweepTombstones(Word bucket);
  void rebuildIndex(Word words);
  void shrinkIndex() noexcept;
  Word copyIndex(const IndexTable<Word>& target);
  void switchTo(const Format::ActiveIndex& next, Word count);
  void emptyTable(Word which, Word words) noexcept;
  [[noreturn]] void full(const char* what) const;

  DriftFile& file_;
  HashedView view_;
  CheckedWordWriter active_;
  CheckedWordWriter live_[2];
  CheckedWordWriter reserved_;
  IndexTable<Word> index_;  ///< the table in use
  std::uint32_t runningNumber_;
  Word tombstones_ = 0;
  Word dropped_ = 0;
  Word lookups_ = 0;
  Word changes_ = 0;
  std::vector<Word> scratch_;
  /// By slot that has had memory: whether this process wrote or verified its content.
  std::vector<bool> trusted_;
  /// Unused slots with memory, used last in, first out, so that the next one is likely cached.
  std::vector<std::uint32_t> free_;
  /// Slots of recently replaced records: a ring of `kRestingSlots`.
  std::vector<std::uint32_t> resting_;
  std::size_t restingHead_ = 0;
  std::size_t restingCount_ = 0;
  Word nextFresh_ = 0;
  /// Time from which on nothing referred to slots from `nextFresh_` on, while they may have memory
  /// to free; otherwise 0.
  Word surplusSince_ = 0;
};

}  // namespace Drift
