#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "Drift/Format.h"
#include "Fenrik/Export.h"

/// The checksums that make a word or a record prove itself.
///
/// A record's words are spread over four CRC32C registers, word i to register i mod 4, and the
/// registers are folded into one at the end: the processor's CRC instruction takes one word a cycle
/// that way, against one in three along a single chain.
namespace Drift {

/// A part of a record: its first byte in the record, and the bytes. Pieces of one record come in
/// the order of their offsets and do not overlap; bytes that no piece gives are zero.
struct Piece {
  std::size_t offset;
  const void* bytes;
  std::size_t size;
};
using Pieces = std::span<const Piece>;

}  // namespace Drift

namespace Drift::Seal {

using Format::Word;

/// How the loops of this file are done; the best one that the machine can do is chosen at load.
struct Loops {
  /// Copies `count` words from shared memory to `out` and returns their CRC with `low`.
  std::uint32_t (*copyOut)(Word* out, const Word* shared, std::size_t count, std::uint32_t low);
  /// Stores a record of `count` words into shared memory and returns its CRC with `low`.
  /// REQUIRES: the pieces end within the record.
  std::uint32_t (*copyIn)(Word* shared, Pieces pieces, std::size_t count, std::uint32_t low);
  /// CRC of one to three words.
  std::uint32_t (*words)(Word a, Word b, Word c);
  const char* name;
};
QUARNBASTIL_EXPORT extern const Loops& kLoops;
/// The form that every machine can do; the tests hold the others against it.
QUARNBASTIL_EXPORT extern const Loops kPortableLoops;

/// Upper half `crc`, lower half `low`.
constexpr Word sealWord(std::uint32_t crc, std::uint32_t low) { return (Word{crc} << 32) | low; }
constexpr std::uint32_t lowOf(Word seal) { return static_cast<std::uint32_t>(seal); }

/// The seal of a version that is absent within a dense window: no record belongs to it.
inline Word absentSeal(std::uint32_t low) noexcept {
  constexpr Word kAbsentMark = 0x544e455342410000;  // "ABSENT"
  return sealWord(kLoops.words(low, kAbsentMark, 0), low);
}

}  // namespace Drift::Seal
