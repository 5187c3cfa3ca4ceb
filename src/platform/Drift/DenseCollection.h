#pragma once

#include <span>

#include "Drift/ChunkRing.h"
#include "Drift/DriftFile.h"
#include "Drift/ReaderPass.h"
#include "Fenrik/Export.h"

namespace Drift {

/// What a reader finds at a version.
enum class DenseRead {
  found,
  notYet,  ///< the version lies behind the newest record
  gone,    ///< the version was removed, or lies before the oldest record
};

/// Reads a dense collection: a ring of records that is addressed by the version itself.
///
/// Process and thread: any number of readers in any process beside the one writer; a view belongs
/// to one thread.
///
/// I1. A record is given whole and under its own version, or not at all: its seal covers version
///     and content, so that an older lap of the ring never passes for it.
/// I2. Bytes that cannot be what a writer stored end in `Fenrik::CorruptionDetectedException`.
class QUARNBASTIL_EXPORT DenseView {
 public:
  explicit DenseView(const DriftFile& file);

  Word recordWords() const noexcept { return recordWords_; }

  /// Oldest version of the window and the one behind its newest; equal when it is empty.
  struct Window {
    Word first;
    Word next;
  };
  Window window() const;

  /// Number of records. One load of each end as a rule; while the number of absent versions is
  /// being changed, or after a death in the middle of that, they are counted along the window.
  Word size() const;

  /// Copies the version's record. What was in the window at an earlier look is in it until the low
  /// end moves, so that one who follows the log asks for the high end, which the writer is at, only
  /// when it has come to the one that it knew.
  DenseRead find(Word version, std::span<Word> out) const;

  /// Says that no look-up may follow for long, so that the writer can give memory back.
  void rest() const noexcept { pass_.drop(); }

  /// Copies the first record whose version is not below `version`, and stores its version there;
  /// false if there is none.
  bool findFrom(Word& version, std::span<Word> out) const;

 private:
  friend class DenseWriter;

  enum class Slot { whole, absent, torn };

  Word line(const CheckedWord& word, const char* name) const;
  Window windowAround(Word version) const;
  Word countAbsent(const Window& window, Word holesStamp) const;
  bool isAbsent(Word version) const noexcept;
  Slot copySlot(const Word* slot, Word version, std::span<Word> out) const noexcept;
  [[noreturn]] void corrupt(const char* what, Word version) const;

  const DriftFile* file_;
  mutable ReaderPass pass_;
  ChunkTable chunks_;
  Word recordWords_;
  Word mask_;
  CheckedWord first_;
  CheckedWord next_;
  CheckedWord holes_;
  CheckedWord redirect_;
  /// The window at the last look for a record, and the stamp of its low end before that.
  mutable Window known_{0, 0};
  mutable Word knownStamp_ = 0;
};

/// Writes a dense collection. At every instant a version has its old record or its new one, for
/// readers and for the process that takes over after this one's death.
class QUARNBASTIL_EXPORT DenseWriter {
 public:
  /// Takes the collection over. Costs the same whatever the length of the log: no record is read,
  /// but in the rare case that the last writer died while it changed the number of holes.
  explicit DenseWriter(DriftFile& file);

  const DenseView& view() const noexcept { return view_; }

  /// Stores the record under its version, with which the pieces begin. At the end of the window it
  /// is appended; elsewhere it is inserted or replaces the record that is there. Throws
  /// `CollectionFullException` or `NoSpaceException` with nothing changed.
  void set(Word version, Pieces pieces);
  void set(std::span<const Word> record);
  /// Sees to it that so many records can be appended to the newest one: what `set` would throw is
  /// thrown here, with nothing changed that a reader could see.
  void makeRoom(Word records = 1);
  /// Fetches the slot of the record that will be appended after `ahead` others.
  void prefetch(Word ahead) const noexcept;
  /// Removes the version's record; false if there is none.
  bool remove(Word version);
  /// Removes the records up to and including that version, the oldest first. Each is a removal of
  /// its own for readers and for a successor; none of them is read.
  void removeThrough(Word version);
  /// Removes everything; the next version stays what it was.
  void removeAll();

  /// Puts back header words that were damaged since this process took the collection over. Happens
  /// by itself at every 256th version; to be called where a reader met damage.
  void restoreHeader() noexcept;

  /// The version behind the newest record that was ever stored.
  Word next() const noexcept { return next_.value(); }
  /// The oldest version, or `next()` if there is none.
  Word first() const noexcept { return first_.value(); }
  /// Number of records.
  Word size() const noexcept { return next_.value() - first_.value() - holes_.value(); }

 private:
  Word* slotOf(Word version) noexcept { return chunks_.slotOf(version); }
  bool empty() const noexcept { return first_.value() == next_.value(); }
  void finishRedirect();
  void recountHoles();
  void fillSlot(Word* slot, Word version, Pieces pieces) noexcept;
  void markAbsent(Word version) noexcept;
  void checkRoom(Word first, Word next) const;
  void append(Word version, Pieces pieces);
  void moveEnd(CheckedWordWriter& end, Word value, Word absent) noexcept;
  void prepend(Word version, Pieces pieces);
  void replace(Word version, Pieces pieces);
  template <class Change>
  void changeHoles(Word holes, Change change);
  void removeFirst() noexcept;

  DriftFile& file_;
  DenseView view_;
  ChunkRing chunks_;
  Word mask_;
  CheckedWordWriter first_;
  CheckedWordWriter next_;
  CheckedWordWriter holes_;
  CheckedWordWriter redirect_;
};

}  // namespace Drift
