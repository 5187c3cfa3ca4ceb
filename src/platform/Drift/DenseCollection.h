#pragma once

#include <span>

#include "Drift/ChunkRing.h"
#include "Drift/DriftFile.h"
#include "Drift/ReaderPass.h"
#include "Fenrik/Export.h"

namespace Drift {

/// Result of reading a version.
enum class DenseRead {
  found,
  notYet,  ///< the version is after the newest record
  gone,    ///< the version was removed, or is before the oldest record
};

/// Reads a dense collection: a ring of records addressed by version.
///
/// Process and thread: any number of readers, in any process, alongside the single writer. A view
/// belongs to one thread.
///
/// I1. A read returns a complete record of the requested version or none. The seal covers version
///     and content, so a record from an earlier lap of the ring is not mistaken for it.
/// I2. Bytes that no writer can have stored cause `Fenrik::CorruptionDetectedException`.
class QUARNBASTIL_EXPORT DenseView {
 public:
  explicit DenseView(const DriftFile& file);

  Word recordWords() const noexcept { return recordWords_; }

  /// Oldest version in the window, and the version after the newest; equal if the window is empty.
  struct Window {
    Word first;
    Word next;
  };
  Window window() const;

  /// Number of records. Usually two loads; while the number of absent versions is being changed, or
  /// after a crash during such a change, counts along the window.
  Word size() const;

  /// Copies the version's record. A version once seen in the window stays there until the low end
  /// moves; therefore a follower reads the high end, which the writer keeps modifying, only after
  /// reaching the one that it knows.
  DenseRead find(Word version, std::span<Word> out) const;

  /// Call when no look-up may follow for some time, so that the writer can free memory.
  void rest() const noexcept { pass_.drop(); }

  /// Copies the first record at or after `version` and sets `version` to its version. False if
  /// there is none.
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
  /// The window as last read, and the stamp of its low end from before that read.
  mutable Window known_{0, 0};
  mutable Word knownStamp_ = 0;
};

/// Writes a dense collection. At every instant readers, and the process that takes over after a
/// crash of this one, find a version's old record or its new one.
class QUARNBASTIL_EXPORT DenseWriter {
 public:
  /// Takes the collection over. Cost: independent of the log's length, because no record is read,
  /// unless the last writer died while it changed the number of holes.
  explicit DenseWriter(DriftFile& file);

  const DenseView& view() const noexcept { return view_; }

  /// Stores the record under its version, which must be at the start of the pieces. At the end of
  /// the window the record is appended; elsewhere it is inserted or replaces the existing one.
  /// Throws `CollectionFullException` or `NoSpaceException`; nothing has changed then.
  void set(Word version, Pieces pieces);
  void set(std::span<const Word> record);
  /// Ensures that so many records can be appended. Throws what `set` would throw; nothing visible
  /// to readers has changed then.
  void makeRoom(Word records = 1);
  /// Prefetches the slot of the record that will be appended `ahead` records from now.
  void prefetch(Word ahead) const noexcept;
  /// Removes the version's record. False if there is none.
  bool remove(Word version);
  /// Removes the records up to `version`, oldest first, without reading them. For readers and a
  /// successor each is a separate removal.
  void removeThrough(Word version);
  /// Removes all records. The next version is unchanged.
  void removeAll();

  /// Repairs header words that were damaged after this process took the collection over. Runs
  /// automatically at every 256th version; call it when a reader has met damage.
  void restoreHeader() noexcept;

  /// The version after the newest one ever stored.
  Word next() const noexcept { return next_.value(); }
  /// The oldest version, or `next()` if the collection is empty.
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
