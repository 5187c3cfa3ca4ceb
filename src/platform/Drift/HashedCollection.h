#pragma once

#include <array>
#include <cstdint>
#include <span>
#include <vector>

#include "Drift/DriftFile.h"
#include "Drift/IndexWord.h"
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

  /// Inserts the record, or replaces the one of its key. Throws `CollectionFullException` or
  /// `NoSpaceException` with nothing changed.
  void set(std::span<const Word> record);
  /// Sees to it that a record of the key can be stored: what `set` would throw is thrown here, with
  /// nothing changed that a reader could see.
  void makeRoom(KeyWords key);
  /// The same for a record that replaces one.
  void makeRoom();
  /// Fetches what `set` of the key will touch into the processor's cache: its index word, and with
  /// `near`, once that is there, the record to which it leads and a slot for the new one.
  void prefetch(KeyWords key, bool near) const noexcept;
  /// Removes the key's record; false if there was none.
  bool remove(KeyWords key);
  /// Removes everything in one step. Throws `NoSpaceException` with nothing changed.
  void removeAll();

  /// Number of slots that have had memory behind them.
  Word slots() const noexcept { return reserved_.value(); }
  /// The words in a slot as they are, whole or not, of a record that may long have gone: for a
  /// quick look at which keys a look-up is worth. REQUIRES: slot < slots().
  const Word* peek(Word slot) const noexcept { return view_.slotWords(slot) + 1; }

  /// Index words that were dropped because they or their records were found damaged, at the
  /// takeover or later; each may be a record that is lost.
  Word dropped() const noexcept { return dropped_; }

 private:
  struct Place {
    Word bucket;  ///< of the key's word, or where it would go
    Word displacement;
    Word seen;  ///< the key's word; 0 if the key is absent
  };

  Word* table(Word active) noexcept;
  Word activeTable() const noexcept { return active_.value() & 1; }
  Word live() const noexcept { return live_[activeTable()].value(); }

  void takeOver();
  void adoptWord(Word* bucket, std::vector<bool>& used);
  void fillFreeList(const std::vector<bool>& used);
  Place locate(KeyWords key, Word hash);
  Place placeFor(KeyWords key, Word hash);
  bool slotAtHand() const noexcept;
  void reserveSlots();
  bool proves(Word bucket, const IndexWord& word);
  void drop(Word bucket);
  Word takeSlot();
  void rest(Word slot);
  Word fillSlot(Word slot, std::span<const Word> record);
  void sweepTombstones(Word bucket);
  void switchTable(bool keep);
  void giveBackTable(Word which) noexcept;
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
  std::vector<Word> scratch_;
  /// Slots with memory behind them that nobody uses, last in first out: the warmest one next.
  std::vector<std::uint32_t> free_;
  /// Slots whose record was replaced lately: a ring of `kRestingSlots`.
  std::vector<std::uint32_t> resting_;
  std::size_t restingHead_ = 0;
  Word nextFresh_ = 0;
};

}  // namespace Drift
