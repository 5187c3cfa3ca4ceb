#pragma once

#include <bit>

#include "Drift/Seal.h"
#include "Drift/SharedWords.h"

namespace Drift::Seal::Impl {

/// The loops over one way to step a CRC register: `Step::step(crc, word)`. The registers are held
/// in words, as the instruction has them: their upper halves are zero.
template <class Step>
struct LoopsOver {
  /// The bits of what is folded change their places first, each part in another way. Unchanged,
  /// the place of a register in the fold and the place of a word in its register would both be
  /// factors x^n, and the same bit flipped in two words (3 and 8 of 16, say) would cancel. As it is
  /// every error of one, two or an odd number of bits shows in records of up to 1 KiB; the tests
  /// prove it for each size.
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

  template <class Move>
  static std::uint32_t run(std::size_t count, std::uint32_t low, Move move) {
    Word a = ~0U;
    Word b = ~0U;
    Word c = ~0U;
    Word d = ~0U;
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

  static std::uint32_t copyOut(Word* out, const Word* shared, std::size_t count,
                               std::uint32_t low) {
    return run(count, low, [=](std::size_t i) { return out[i] = loadWord(shared + i); });
  }

  static std::uint32_t copyIn(Word* shared, const Word* in, std::size_t count, std::uint32_t low) {
    return run(count, low, [=](std::size_t i) {
      const Word word = in[i];
      storeWord(shared + i, word);
      return word;
    });
  }

  static std::uint32_t words(Word a, Word b, Word c) {
    return ~static_cast<std::uint32_t>(Step::step(Step::step(Step::step(~0U, a), b), c));
  }
};

}  // namespace Drift::Seal::Impl
