#pragma once

#include "Drift/Crc32c.h"
#include "Drift/Format.h"
#include "Drift/Seal.h"

namespace Drift {

using Format::Word;

/// A bucket of an index table, decoded.
struct IndexWord {
  Word slot;  ///< slot number
  /// Low bits of the record's running number.
  Word sequence;
  /// Top bits of the key's hash.
  Word tag;
  /// Distance from the key's home bucket.
  Word displacement;

  static constexpr Word kEmpty = 0;

  /// The lower 48 bits: everything except the check.
  static constexpr Word content(Word word) { return word & ((Word{1} << 48) - 1); }
  static constexpr Word withCheck(Word content, std::uint32_t crc) {
    return content | (Word{crc & 0xffff} << 48);
  }
  static Word withCheck(Word content) noexcept {
    return withCheck(content, Seal::kLoops.words(content, 0, 0));
  }
  /// Whether the check is correct. REQUIRES: the word is not empty.
  static bool intact(Word word) noexcept { return withCheck(content(word)) == word; }

  /// A bucket whose record was removed: it can be reused, and searches continue past it.
  static Word tombstone() noexcept { return withCheck(Word{1} << Format::kSlotBits); }
  static constexpr bool isTombstone(Word word) {
    return (word & ((Word{1} << Format::kSlotBits) - 1)) == 0;
  }

  static constexpr IndexWord from(Word word) {
    const auto bits = [&word](unsigned count) {
      const Word value = word & ((Word{1} << count) - 1);
      word >>= count;
      return value;
    };
    IndexWord parts{};
    parts.slot = bits(Format::kSlotBits) - 1;
    parts.sequence = bits(Format::kSequenceBits);
    parts.tag = bits(Format::kTagBits);
    parts.displacement = bits(Format::kDisplacementBits);
    return parts;
  }

  Word word() const noexcept {
    Word content = displacement;
    content = (content << Format::kTagBits) | tag;
    content = (content << Format::kSequenceBits) | sequence;
    content = (content << Format::kSlotBits) | (slot + 1);
    return withCheck(content);
  }

  static constexpr Word sequenceOf(std::uint32_t runningNumber) {
    return runningNumber & ((Word{1} << Format::kSequenceBits) - 1);
  }
  static constexpr Word tagOf(Word hash) { return hash >> (64 - Format::kTagBits); }
};

}  // namespace Drift
