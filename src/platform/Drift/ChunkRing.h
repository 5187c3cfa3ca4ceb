#pragma once

#include <vector>

#include "Drift/DriftFile.h"

namespace Drift {

/// The word of the chunk table that leads from a place in it to a chunk of the file.
QUARNBASTIL_EXPORT Word chunkWord(Word place, Word chunk) noexcept;

/// Where the slots of a dense collection lie, for whoever reads: a version's chunk is found in the
/// chunk table, its slot by the low bits of the version.
class ChunkTable {
 public:
  QUARNBASTIL_EXPORT explicit ChunkTable(const DriftFile& file);

  /// Null while the version has no chunk, or its word in the table cannot be.
  const Word* slotOf(Word version) const noexcept {
    const Word chunk = (loadWord(table_ + (version >> shift_ & mask_)) & 0xffffffff) - 1;
    return chunk > mask_ ? nullptr : slotIn(chunk, version);
  }
  /// Whether the word that leads to the version's chunk proves itself. Readers need not ask: a word
  /// that leads elsewhere leads to no record of that version.
  QUARNBASTIL_EXPORT bool proves(Word version) const noexcept;
  const Word* sideSlot() const noexcept {
    return reinterpret_cast<const Word*>(slots_ + (mask_ + 1) * chunkBytes_);
  }

 private:
  friend class ChunkRing;

  const Word* slotIn(Word chunk, Word version) const noexcept {
    const Word slot = version & ((Word{1} << shift_) - 1);
    return reinterpret_cast<const Word*>(slots_ + chunk * chunkBytes_ + slot * stride_);
  }

  const Word* table_;
  const std::byte* slots_;
  unsigned shift_;  ///< of a version to the number of its chunk
  Word mask_;       ///< number of chunks in the file, less 1
  Word chunkBytes_;
  Word stride_;
};

/// The writer's side: gives chunks to the versions that come and takes them back from those that
/// have gone. A chunk that has just been taken back is the next to be given, while its memory is
/// there and in the processor's cache: a window that moves along costs no memory but its own.
///
/// I1. The chunks of the window and those that were made ready for it are one run of versions.
/// I2. A chunk has memory before a word of the table leads to it, and when it is given to other
///     versions none leads to it for the old ones: a reader still in it sees that its version is
///     gone.
class ChunkRing {
 public:
  explicit ChunkRing(DriftFile& file);

  /// Takes over what the window of the last writer holds; everything else is given back. A damaged
  /// word is found anew by the seals of its versions. Throws `NoSpaceException` if a chunk that
  /// cannot be found must be replaced and there is no memory for that.
  void takeOver(Word first, Word next);

  /// REQUIRES: a chunk has been made ready for the version.
  Word* slotOf(Word version) noexcept {
    const Word chunk = chunks_[version >> table_.shift_ & table_.mask_];
    return const_cast<Word*>(table_.slotIn(chunk, version));
  }

  /// Makes chunks ready for these versions, both ends included. Throws `NoSpaceException`; what was
  /// made ready before that stays so.
  void reserveFor(Word firstVersion, Word lastVersion);
  /// Takes back the chunks of which all versions lie before, or behind, the version's own chunk.
  void releaseBefore(Word version) noexcept;
  void releaseBehind(Word version) noexcept;

 private:
  static constexpr std::uint32_t kNone = UINT32_MAX;

  Word chunkOf(Word version) const noexcept { return version >> table_.shift_; }
  Word offsetOf(Word chunk) const noexcept {
    return file_.header().slotsOffset + chunk * table_.chunkBytes_;
  }
  void wordIs(Word place, Word word) noexcept;
  void assign(Word number);
  void release(Word number) noexcept;
  void adopt(Word place, std::vector<bool>& used);
  void recover(Word number, Word first, Word next, std::vector<bool>& used);
  bool holds(Word chunk, Word version) const noexcept;
  void giveBackSurplus() noexcept;

  DriftFile& file_;
  ChunkTable table_;
  /// By place in the table: which chunk of the file, or `kNone`.
  std::vector<std::uint32_t> chunks_;
  /// A chunk that was taken back and still has memory.
  struct Warm {
    std::uint32_t chunk;
    Word since;  ///< moment from which on nothing led there
  };

  /// Chunks without memory, the lowest last.
  std::vector<std::uint32_t> bare_;
  /// In the order in which they were taken back.
  std::vector<Warm> warm_;
  /// The moment of the takeover, while the last writer left memory in bare chunks; 0 otherwise.
  Word bareSince_ = 0;
  /// The run of chunks in use, numbered on over the laps of the ring as versions are; the latter
  /// end excluded.
  Word from_ = 0;
  Word to_ = 0;
};

}  // namespace Drift
