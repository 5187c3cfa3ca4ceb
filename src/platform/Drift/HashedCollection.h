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

/// A key's bytes as they stand in the file, padded with zeros to whole words.
using KeyWords = std::span<const Word>;
/// Room for a record's bytes, whole words.
using RecordWords = std::span<Word>;

/// The hash of a key in a collection with this seed. Home bucket: the low bits; tag: the top ones.
QUARNBASTIL_EXPORT Word hashKey(KeyWords key, Word seed) noexcept;

/// Where a walk stands: behind the record with this home bucket and key.
struct WalkPosition {
  Word bucket = 0;
  bool started = false;
};

/// Reads a hashed collection: index words over copy-on-write slots.
///
/// Process and thread: any number of readers in any process beside the one writer; a view belongs
/// to one thread.
///
/// I1. A read gives a record that was committed at some instant of the call, whole, or says that
///     there was none.
/// I2. Bytes that cannot be what a writer stored end in `Fenrik::CorruptionDetectedException`,
///     which names path and place; never in a crash, an endless loop or a wrong record.
/// I3. A walk visits each record that is there throughout exactly once, in the order of home bucket
///     and key (bytes compared as little-endian words, first word first).
class QUARNBASTIL_EXPORT HashedView {
 public:
  explicit HashedView(const DriftFile& file);

  Word keyWords() const noexcept { return keyWords_; }
  Word recordWords() const noexcept { return recordWords_; }

  Word size() const;

  /// Copies the record of the key; false if there is none.
  bool find(KeyWords key, RecordWords out) const;

  /// Copies the first record behind `position`, which is the beginning or behind the record whose
  /// key is `after`, and moves the position to it; false at the end. The record `after` need not be
  /// there any more.
  bool next(WalkPosition& position, KeyWords after, RecordWords out) const;

  /// The position behind a key, known or not.
  WalkPosition positionOf(KeyWords key) const noexcept;

  /// Says that no look-up may follow for long, so that the writer can give memory back.
  void rest() const noexcept { pass_.drop(); }

 private:
  friend class HashedWriter;

  enum class Slot { whole, torn };
  using KeyRoom = std::array<Word, Format::kMaxKeySize / sizeof(Word)>;

  /// The key with which a record begins. The record may go on within the key's last word.
  KeyWords keyOf(const Word* record, KeyRoom& room) const noexcept;
  const Word* table(Word active) const noexcept;
  const Word* slotWords(Word slot) const noexcept;
  Word active() const;
  Word reserved() const;
  Slot copySlot(const IndexWord& word, RecordWords out) const noexcept;
  Slot readSlot(const Word* bucket, Word seen, RecordWords out, Word reserved) const;
  bool belongs(const IndexWord& word, Word bucket, RecordWords record) const noexcept;
  int findOnce(KeyWords key, Word hash, RecordWords out) const;
  int nextInBucket(Word active, Word home, const KeyWords* after, RecordWords out) const;
  [[noreturn]] void corrupt(const char* what, const char* place, Word at) const;
  [[noreturn]] void restless() const;

  const DriftFile* file_;
  mutable ReaderPass pass_;
  Word keyWords_;
  Word lastKeyMask_;  ///< of the key's last word, the bytes that are the key's
  Word recordWords_;
  Word mask_;
  CheckedWord activeWord_;
  CheckedWord reservedWord_;
  /// Records of the walk's bucket that are compared.
  mutable std::vector<Word> candidate_;
};

/// Writes a hashed collection. At every instant each key has its old record or its new one, for
/// readers and for the process that takes over after this one's death.
class QUARNBASTIL_EXPORT HashedWriter {
 public:
  /// Takes the collection over: builds the free list from the index, drops index words that cannot
  /// be, gives unused memory back. Costs time in the number of live records and index words.
  explicit HashedWriter(DriftFile& file);

  const HashedView& view() const noexcept { return view_; }

  /// The outcome of one search of the index: where a key's record is, or where it would go. Holds
  /// until the writer's next change or look-up.
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

  /// Looks a key up, to read its record and to replace or remove it without another search. What is
  /// damaged on the way is dropped.
  Place lookUp(KeyWords key);
  /// The record at a place, in shared memory; holds until the writer's next change. What this
  /// process wrote, or has proved once, is not proved again. Throws
  /// `Fenrik::CorruptionDetectedException`. REQUIRES: found.
  const Word* record(const Place& place);
  /// Copies the record of the key; false if there is none. Throws as `record` does.
  bool findRecord(KeyWords key, RecordWords out);

  /// Inserts the record at its key's place, or replaces the one that is there. Throws
  /// `CollectionFullException` or `NoSpaceException` with nothing changed. REQUIRES: the pieces
  /// begin with the key that was looked up, in canonical form, and end within the record.
  void set(const Place& place, Pieces pieces);
  /// As above, with a search of its own; true if it replaced a record.
  bool set(KeyWords key, Pieces pieces);
  void set(std::span<const Word> record);
  /// Sees to it that a record of the key can be stored: what `set` would throw is thrown here, with
  /// nothing changed that a reader could see.
  void makeRoom(KeyWords key);
  /// As above; returns the place at which it can be stored.
  Place placeFor(KeyWords key);
  /// Whether a place still holds: nothing was changed or looked up since.
  bool holds(const Place& place) const noexcept { return place.lookup_ == lookups_; }
  /// Sees to it that so many records of new keys can be inserted, and so many replaced, before
  /// anything else is changed. Throws `CollectionFullException`, which says what was asked for and
  /// what is left, or `NoSpaceException`, with nothing changed that a reader could see. Only
  /// whether a bucket is free near a given key's home is not known before; there are twice as many
  /// buckets as records.
  void makeRoom(Word inserts, Word replacements);

  /// Whether a further key has no room.
  bool full() const noexcept { return live() >= file_.header().capacity; }

  /// Fetches what `set` of the key will touch into the processor's cache: its index word, and with
  /// `near`, once that is there, the record to which it leads.
  void prefetch(KeyWords key, bool near) const noexcept;
  /// Fetches the slot that the change after `ahead` others will write. Exact for a run of
  /// replacements; a guess otherwise.
  void prefetchSlot(std::size_t ahead) const noexcept;

  /// Removes the record at a place. REQUIRES: found.
  void remove(const Place& place);
  /// Removes the key's record; false if there was none.
  bool remove(KeyWords key);
  /// Removes everything in one step. Throws `NoSpaceException` with nothing changed.
  void removeAll();

  /// Copies of the live records that `wanted(const std::byte* record)` accepts, damaged ones left
  /// out. Much quicker than a walk where few are accepted: `wanted` sees the slots as they are,
  /// records that have gone among them, and what it accepts is proved by a look-up.
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
  /// The live records that hold a number above `version` in the eight bytes from `offset` on, in
  /// ascending order of it.
  std::vector<std::vector<Word>> beyond(std::size_t offset, Word version);

  /// Puts back header words that were damaged since this process took the collection over. Happens
  /// by itself at every 256th removal or demand for room; to be called where a reader met damage.
  void restoreHeader() noexcept;

  /// Index words that were dropped because they or their records were found damaged, at the
  /// takeover or later; each may be a record that is lost.
  Word dropped() const noexcept { return dropped_; }

 private:
  Word* table(Word active) noexcept;
  Word activeTable() const noexcept { return active_.value() & 1; }
  Word live() const noexcept { return live_[activeTable()].value(); }

  void takeOver();
  bool adoptWord(Word* bucket, std::vector<bool>& used);
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
  void switchTable(bool keep);
  void emptyTable(Word which) noexcept;
  [[noreturn]] void full(const char* what) const;

  DriftFile& file_;
  HashedView view_;
  Word mask_;
  CheckedWordWriter active_;
  CheckedWordWriter live_[2];
  CheckedWordWriter reserved_;
  std::uint32_t runningNumber_;
  Word tombstones_ = 0;
  Word dropped_ = 0;
  Word lookups_ = 0;
  Word changes_ = 0;
  std::vector<Word> scratch_;
  /// By slot: this process wrote what is in it, or has proved it.
  std::vector<bool> trusted_;
  /// Slots with memory behind them that nobody uses, last in first out: the warmest one next.
  std::vector<std::uint32_t> free_;
  /// Slots whose record was replaced lately: a ring of `kRestingSlots`.
  std::vector<std::uint32_t> resting_;
  std::size_t restingHead_ = 0;
  std::size_t restingCount_ = 0;
  Word nextFresh_ = 0;
  /// The moment from which on nothing led behind `nextFresh_`; 0: nothing there has memory to
  /// spare.
  Word surplusSince_ = 0;
};

}  // namespace Drift
