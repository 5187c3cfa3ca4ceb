#pragma once

#include <vector>

#include "Drift/DriftFile.h"

namespace Drift {

/// Entry of the chunk table: maps the table position `place` to a chunk of the file.
QUARNBASTIL_EXPORT Word chunkWord(Word place, Word chunk) noexcept;

/// Read access to the slots of a dense collection: the chunk table gives a version's chunk, the low
/// bits of the version its slot.
class ChunkTable {
 public:
  QUARNBASTIL_EXPORT explicit ChunkTable(const DriftFile& file);

  /// Null if the version has no chunk or its entry in the table is invalid.
  const Word* slotOf(Word version) const noexcept {
    const Word chunk = (loadWord(table_ + (version >> shift_ & mask_)) & 0xffffffff) - 1;
    return chunk > mask_ ? nullptr : slotIn(chunk, version);
  }
  /// Whether the checksum of the version's table entry is correct. Readers need not check: a wrong
  /// entry does not lead to a record of that version.
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
  unsigned shift_;  ///< log2 of the versions per chunk
  Word mask_;       ///< number of chunks in the file - 1
  Word chunkBytes_;
  Word stride_;
};

/// The writer's side: assigns chunks to new versions and reclaims those of removed ones. The chunk
/// reclaimed last is assigned first, since its memory is still allocated and cached; a moving
/// window therefore needs no more memory than it covers.
///
/// I1. The chunks of the window and those prepared for it cover one contiguous range of versions.
/// I2. A chunk has memory before a table entry refers to it. Before it is assigned to other
///     versions, its old entry is removed, so a reader still in it sees that its version is gone.
class ChunkRing {
 public:
  explicit ChunkRing(DriftFile& file);

  /// Takes over the chunks of the last writer's window and frees all others. A damaged entry is
  /// recovered from the seals of its versions. Throws `NoSpaceException` if a chunk that cannot be
  /// found must be replaced and there is no memory.
  void takeOver(Word first, Word next);

  /// REQUIRES: a chunk has been prepared for the version.
  Word* slotOf(Word version) noexcept {
    const Word chunk = chunks_[version >> table_.shift_ & table_.mask_];
    return const_cast<Word*>(table_.slotIn(chunk, version));
  }

  /// Prepares chunks for a closed range of versions. Throws `NoSpaceException`; chunks prepared
  /// until then remain prepared.
  void reserveFor(Word firstVersion, Word lastVersion);
  /// Free the chunks whose versions are all before, or all after, the version's own chunk.
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
  /// By position in the table: the chunk in the file, or `kNone`.
  std::vector<std::uint32_t> chunks_;
  /// A free chunk that still has memory.
  struct Warm {
    std::uint32_t chunk;
    Word since;  ///< time from which on no table entry referred to it
  };

  /// Free chunks without memory, in descending order.
  std::vector<std::uint32_t> bare_;
  /// Free chunks with memory, in the order of their release.
  std::vector<Warm> warm_;
  /// Time of the takeover while bare chunks may still have memory from the last writer; otherwise
  /// 0.
  Word bareSince_ = 0;
  /// The range of chunks in use, half open, numbered like versions: laps of the ring are counted
  /// on.
  Word from_ = 0;
  Word to_ = 0;
};

}  // namespace Drift
