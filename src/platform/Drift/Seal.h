#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "Drift/Format.h"
#include "Fenrik/Export.h"

/// Checksums of words and records.
///
/// A record's words are distributed over four CRC32C registers, word i to register i mod 4, and the
/// registers are combined at the end. The processor's CRC instruction then takes one word per
/// cycle, instead of one per three cycles in a single chain.
namespace Drift {

/// A part of a record: its offset in the record, and its bytes. The pieces of a record are ordered
/// by offset and do not overlap; bytes not covered by a piece are zero.
struct Piece {
  std::size_t offset;
  const void* bytes;
  std::size_t size;
};
using Pieces = std::span<const Piece>;

}  // namespace Drift

namespace Drift::Seal {

using Format::Word;

/// An implementation of the loops below. The best one for the processor is selected at load time.
struct Loops {
  /// Copies `count` words from shared memory to `out` and returns their CRC, which includes `low`.
  std::uint32_t (*copyOut)(Word* out, const Word* shared, std::size_t count, std::uint32_t low);
  /// Stores a record of `count` words in shared memory and returns its CRC, which includes `low`.
  /// REQUIRES: the pieces end within the record.
  std::uint32_t (*copyIn)(Word* shared, Pieces pieces, std::size_t count, std::uint32_t low);
  /// CRC of up to three words.
  std::uint32_t (*words)(Word a, Word b, Word c);
  const char* name;
};
QUARNBASTIL_EXPORT extern const Loops& kLoops;
/// The portable implementation; the tests compare the others against it.
QUARNBASTIL_EXPORT extern const Loops kPortableLoops;

/// Upper half `crc`, lower half `low`.
constexpr Word sealWord(std::uint32_t crc, std::uint32_t low) { return (Word{crc} << 32) | low; }
constexpr std::uint32_t lowOf(Word seal) { return static_cast<std::uint32_t>(seal); }

/// Seal of an absent version within a dense window. No record has this seal.
inline Word absentSeal(std::uint32_t low) noexcept {
  constexpr Word kAbsentMark = 0x544e455342410000;  // "ABSENT"
  return sealWord(kLoops.words(low, kAbsentMark, 0), low);
}

}  // namespace Drift::Seal
