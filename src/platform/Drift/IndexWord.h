#pragma once

#include "Drift/Crc32c.h"
#include "Drift/Format.h"
#include "Drift/Seal.h"

namespace Drift {

using Format::Word;

/// The part of an index table that is in use.
template <class WordType>
struct IndexTable {
  Word active;  ///< value of `Line::active` that names it
  WordType* words;
  Word mask;       ///< number of buckets - 1
  unsigned shift;  ///< 64 - log2 of the number of buckets

  Word home(Word hash) const noexcept { return hash >> shift; }
};

/// A bucket of an index table, decoded.
struct IndexWord {
  Word slot;  ///< slot number
  /// Low bits of the record's running number.
  Word sequence;
  /// Low bits of the key's hash.
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

  /// Whether this word at this position can be that of a key with this hash.
  template <class WordType>
  bool belongs(Word hash, const IndexTable<WordType>& index, Word position) const noexcept {
    return tag == tagOf(hash) && ((index.home(hash) + displacement) & index.mask) == position;
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
  static constexpr Word tagOf(Word hash) { return hash & ((Word{1} << Format::kTagBits) - 1); }
};

}  // namespace Drift
