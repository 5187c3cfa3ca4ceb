#pragma once

#include <algorithm>
#include <bit>
#include <optional>
#include <string_view>

#include "Drift/Format.h"
#include "Drift/Seal.h"
#include "Drift/SharedWords.h"
#include "Fenrik/Export.h"
#include "Fenrik/String.h"

namespace Drift {

/// Limit of the declared capacity: twice as many buckets must be addressable.
inline constexpr Word kMaxCapacity = Format::kMaxSlots / 2 - 1;

/// The shape of a collection, as declared by its user.
struct Geometry {
  Format::Layout layout = Format::Layout::hashed;
  std::uint32_t keySize = 0;     ///< bytes; the key is at the start of the record
  std::uint32_t recordSize = 0;  ///< bytes
  Word capacity = 0;             ///< maximum number of records
  std::string_view typeName;
  std::string_view attributeName;
};

/// The fixed header for this geometry, without seed, boot id and checksum. REQUIRES: names and
/// sizes are within the limits of the format.
QUARNBASTIL_EXPORT Format::FixedHeader headerOf(const Geometry& geometry);

/// The geometry declared by a header, or nullopt if its sizes are out of range. The names point
/// into the header.
QUARNBASTIL_EXPORT std::optional<Geometry> geometryOf(const Format::FixedHeader& header);

/// Words of the index of an empty hashed collection.
inline Word startIndexWords(const Format::FixedHeader& header) noexcept {
  return std::min(header.indexWords, Format::kStartIndexWords);
}
/// REQUIRES: `words` is a power of two.
inline Format::ActiveIndex activeIndexOf(Word table, Word words, Word switches) noexcept {
  return {table, static_cast<Word>(std::countr_zero(words)), switches};
}

/// Slots per chunk of a dense collection, a power of two, and the chunk's size in bytes.
QUARNBASTIL_EXPORT Word slotsPerChunk(const Format::FixedHeader& header) noexcept;
QUARNBASTIL_EXPORT Word chunkBytes(const Format::FixedHeader& header) noexcept;

/// Checksum that completes a header.
QUARNBASTIL_EXPORT std::uint32_t headerChecksum(const Format::FixedHeader& header) noexcept;

/// Empty if `found` is a valid header; otherwise the fault.
QUARNBASTIL_EXPORT Fenrik::String headerFault(const Format::FixedHeader& found, Word fileSize);

/// Empty if `found` matches `expected`; otherwise the first difference.
QUARNBASTIL_EXPORT Fenrik::String headerDifference(const Format::FixedHeader& found,
                                                   const Format::FixedHeader& expected);

/// Reads a mutable word of the header. The file holds it twice with checks, and at least one copy
/// is valid at every instant (see Format.h).
///
/// Writer: the one writing process. Readers: any process.
class CheckedWord {
 public:
  CheckedWord(const std::byte* base, Format::Line line) noexcept
      : words_(reinterpret_cast<const Word*>(base + Format::lineOffset(line))),
        line_(static_cast<Word>(line)) {}

  /// The value, or nullopt if both copies are damaged.
  std::optional<Word> load() const noexcept {
    const Word firstCheck = loadWord(words_ + 1);
    const Word firstValue = loadWord(words_);
    if (known_ && firstCheck == knownCheck_ && firstValue == knownValue_) return firstValue;
    for (int attempt = 0; attempt < kAttempts; ++attempt) {
      for (std::size_t copy = 0; copy < 2; ++copy) {
        const Word check = loadWord(words_ + 2 * copy + 1);
        const Word value = loadWord(words_ + 2 * copy);
        if (checkOf(value, check >> 32) != check) continue;
        if (copy == 0) {
          known_ = true;
          knownCheck_ = check;
          knownValue_ = value;
        }
        return value;
      }
    }
    return {};
  }

  /// Changes whenever the word is written: reads between two equal stamps are consistent.
  Word stamp() const noexcept { return loadWord(words_ + 1); }

  /// Running number of the copy that `load` would return; 0 if both are damaged.
  QUARNBASTIL_EXPORT Word runningNumber() const noexcept;

  Word checkOf(Word value, Word runningNumber) const noexcept {
    return (runningNumber << 32) | Seal::kLoops.words(value, runningNumber, line_);
  }

 private:
  /// A store takes the writer a few instructions; meeting it this often means damage.
  static constexpr int kAttempts = 64;

  const Word* words_;
  Word line_;
  /// The last verified copy; the same two words need no second verification.
  mutable bool known_ = false;
  mutable Word knownCheck_ = 0;
  mutable Word knownValue_ = 0;
};

/// Writes such a word.
class CheckedWordWriter {
 public:
  CheckedWordWriter(std::byte* base, Format::Line line) noexcept
      : words_(reinterpret_cast<Word*>(base + Format::lineOffset(line))), reader_(base, line) {}

  /// Takes over the current value and makes both copies equal. False if both are damaged.
  bool adopt() noexcept {
    const std::optional<Word> value = reader_.load();
    if (!value) return false;
    runningNumber_ = reader_.runningNumber();
    value_ = *value;
    restore();
    return true;
  }

  Word value() const noexcept { return value_; }

  /// Rewrites copies that differ from what this process stored last.
  void restore() noexcept {
    const Word check = reader_.checkOf(value_, runningNumber_);
    for (std::size_t copy = 0; copy < 2; ++copy) {
      if (loadWord(words_ + 2 * copy) == value_ && loadWord(words_ + 2 * copy + 1) == check)
        continue;
      storeCopy(copy, check);
    }
  }

  /// Changes the value. Readers and a successor switch from the old value to the new one at a
  /// single store of this call.
  void set(Word value) noexcept {
    value_ = value;
    runningNumber_ = (runningNumber_ + 1) & 0xffffffff;
    const Word check = reader_.checkOf(value, runningNumber_);
    storeCopy(0, check);
    storeCopy(1, check);
  }

 private:
  void storeCopy(std::size_t copy, Word check) noexcept {
    storeWord(words_ + 2 * copy, value_);
    storeWord(words_ + 2 * copy + 1, check);
  }

  Word* words_;
  CheckedWord reader_;
  Word value_ = 0;
  Word runningNumber_ = 0;
};

}  // namespace Drift
