#pragma once

#include <algorithm>
#include <bit>
#include <cstring>

#include "Drift/Seal.h"
#include "Drift/SharedWords.h"

namespace Drift::Seal::Impl {

/// The loops, parameterized by the CRC step `Step::step(crc, word)`. Registers are kept in words,
/// as by the instruction, with zero upper halves.
template <class Step>
struct LoopsOver {
  /// Combines the registers. Each is permuted in its own way first. Without that, a register's
  /// position in the fold and a word's position within its register would both act as factors x^n,
  /// and flipping the same bit in two words (for example 3 and 8 of 16) would cancel out. With it,
  /// every error of one, two or an odd number of bits is detected in records of up to 1 KiB; the
  /// tests verify this for each size.
  static std::uint32_t fold(std::uint32_t low, std::uint32_t a, std::uint32_t b, std::uint32_t c,
                            std::uint32_t d) {
    low ^= std::rotl(low, 8) ^ std::rotl(low, 19);
    a = __builtin_bswap32(a);
    b = std::rotl(b, 16);
    c = __builtin_bswap32(std::rotl(c, 16));
    Word crc = Step::step(~0U, low);
    crc = Step::step(crc, Word{a} | (Word{b} << 32));
    return ~static_cast<std::uint32_t>(Step::step(crc, Word{c} | (Word{d} << 32)));
  }

  static std::uint32_t copyOut(Word* out, const Word* shared, std::size_t count,
                               std::uint32_t low) {
    Word a = ~0U;
    Word b = ~0U;
    Word c = ~0U;
    Word d = ~0U;
    const auto move = [&](std::size_t i) { return out[i] = loadWord(shared + i); };
    std::size_t i = 0;
    for (; i + 4 <= count; i += 4) {
      a = Step::step(a, move(i));
      b = Step::step(b, move(i + 1));
      c = Step::step(c, move(i + 2));
      d = Step::step(d, move(i + 3));
    }
    if (i < count) a = Step::step(a, move(i));
    if (i + 1 < count) b = Step::step(b, move(i + 1));
    if (i + 2 < count) c = Step::step(c, move(i + 2));
    return fold(low, static_cast<std::uint32_t>(a), static_cast<std::uint32_t>(b),
                static_cast<std::uint32_t>(c), static_cast<std::uint32_t>(d));
  }

  /// Copies the bytes that the pieces provide for the record's range [from, from + size).
  static void gather(Pieces pieces, std::size_t from, Word* out, std::size_t size) {
    for (const Piece& piece : pieces) {
      const std::size_t begin = std::max(piece.offset, from);
      const std::size_t end = std::min(piece.offset + piece.size, from + size);
      if (piece.offset >= from + size) return;
      if (begin >= end) continue;
      std::memcpy(reinterpret_cast<std::byte*>(out) + (begin - from),
                  static_cast<const std::byte*>(piece.bytes) + (begin - piece.offset), end - begin);
    }
  }

  /// Copies whole groups of four words directly from their piece; groups that contain the end of a
  /// piece go through a buffer.
  static std::uint32_t copyIn(Word* shared, Pieces pieces, std::size_t count, std::uint32_t low) {
    constexpr std::size_t kGroup = 4 * sizeof(Word);
    Word registers[4] = {~0U, ~0U, ~0U, ~0U};
    for (std::size_t at = 0; at < count;) {
      const std::size_t offset = at * sizeof(Word);
      while (!pieces.empty() && pieces[0].offset + pieces[0].size <= offset) {
        pieces = pieces.subspan(1);
      }
      if (!pieces.empty() && pieces[0].offset <= offset) {
        const auto* from =
            static_cast<const std::byte*>(pieces[0].bytes) + (offset - pieces[0].offset);
        std::size_t groups = (pieces[0].offset + pieces[0].size - offset) / kGroup;
        Word a = registers[0], b = registers[1], c = registers[2], d = registers[3];
        for (; groups > 0; --groups, at += 4, from += kGroup) {
          Word words[4];
          std::memcpy(words, from, kGroup);
          for (std::size_t i = 0; i < 4; ++i) storeWord(shared + at + i, words[i]);
          a = Step::step(a, words[0]);
          b = Step::step(b, words[1]);
          c = Step::step(c, words[2]);
          d = Step::step(d, words[3]);
        }
        registers[0] = a, registers[1] = b, registers[2] = c, registers[3] = d;
        if (at * sizeof(Word) != offset) continue;
      }
      Word words[4] = {};
      const std::size_t left = std::min<std::size_t>(4, count - at);
      gather(pieces, offset, words, left * sizeof(Word));
      for (std::size_t i = 0; i < left; ++i, ++at) {
        storeWord(shared + at, words[i]);
        registers[i] = Step::step(registers[i], words[i]);
      }
    }
    return fold(low, static_cast<std::uint32_t>(registers[0]),
                static_cast<std::uint32_t>(registers[1]), static_cast<std::uint32_t>(registers[2]),
                static_cast<std::uint32_t>(registers[3]));
  }

  static std::uint32_t words(Word a, Word b, Word c) {
    return ~static_cast<std::uint32_t>(Step::step(Step::step(Step::step(~0U, a), b), c));
  }
};

}  // namespace Drift::Seal::Impl
