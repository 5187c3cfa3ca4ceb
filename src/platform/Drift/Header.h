#pragma once

#include <optional>
#include <string_view>

#include "Drift/Format.h"
#include "Drift/Seal.h"
#include "Drift/SharedWords.h"
#include "Fenrik/Export.h"
#include "Fenrik/String.h"

namespace Drift {

/// Bound of the declared capacity: twice as many buckets must be numbered.
inline constexpr Word kMaxCapacity = Format::kMaxSlots / 2 - 1;

/// What a collection is made of, as its user states it.
struct Geometry {
  Format::Layout layout = Format::Layout::hashed;
  std::uint32_t keySize = 0;     ///< bytes; the key begins the record
  std::uint32_t recordSize = 0;  ///< bytes
  Word capacity = 0;             ///< records
  std::string_view typeName;
  std::string_view attributeName;
};

/// The fixed header that a collection of this geometry has, without seed, boot id and checksum.
/// REQUIRES: names and sizes within the bounds of the format.
QUARNBASTIL_EXPORT Format::FixedHeader headerOf(const Geometry& geometry);

/// The geometry that a header states; empty if its sizes are out of bounds. The names refer to the
/// header's own.
QUARNBASTIL_EXPORT std::optional<Geometry> geometryOf(const Format::FixedHeader& header);

/// Slots of a dense collection that lie side by side, a power of two, and the bytes that they take.
QUARNBASTIL_EXPORT Word slotsPerChunk(const Format::FixedHeader& header) noexcept;
QUARNBASTIL_EXPORT Word chunkBytes(const Format::FixedHeader& header) noexcept;

/// Completes a header: its checksum.
QUARNBASTIL_EXPORT std::uint32_t headerChecksum(const Format::FixedHeader& header) noexcept;

/// Empty if `found` is a whole header of the format; otherwise what is wrong with it.
QUARNBASTIL_EXPORT Fenrik::String headerFault(const Format::FixedHeader& found, Word fileSize);

/// Empty if `found` describes the collection `expected`; otherwise the first difference.
QUARNBASTIL_EXPORT Fenrik::String headerDifference(const Format::FixedHeader& found,
                                                   const Format::FixedHeader& expected);

/// A mutable word of the header as seen by a reader. It stands in the file twice, with checks, and
/// one of the two copies is whole at every instant (Format.h says how).
///
/// Writer: the one writing process. Readers: any process.
class CheckedWord {
 public:
  CheckedWord(const std::byte* base, Format::Line line) noexcept
      : words_(reinterpret_cast<const Word*>(base + Format::lineOffset(line))),
        line_(static_cast<Word>(line)) {}

  /// The value; empty if both copies are damaged.
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

  /// Moves with every change: what was read between two equal stamps belongs together.
  Word stamp() const noexcept { return loadWord(words_ + 1); }

  /// The running number of the copy that `load` would take; 0 if both are damaged.
  QUARNBASTIL_EXPORT Word runningNumber() const noexcept;

  Word checkOf(Word value, Word runningNumber) const noexcept {
    return (runningNumber << 32) | Seal::kLoops.words(value, runningNumber, line_);
  }

 private:
  /// A store of the writer takes a few instructions; to meet it this often means damage.
  static constexpr int kAttempts = 64;

  const Word* words_;
  Word line_;
  /// What proved itself last; the same two words need not be proved again.
  mutable bool known_ = false;
  mutable Word knownCheck_ = 0;
  mutable Word knownValue_ = 0;
};

/// The writer's side of such a word.
class CheckedWordWriter {
 public:
  CheckedWordWriter(std::byte* base, Format::Line line) noexcept
      : words_(reinterpret_cast<Word*>(base + Format::lineOffset(line))), reader_(base, line) {}

  /// Takes over what is there and makes both copies agree; false if both are damaged.
  bool adopt() noexcept {
    const std::optional<Word> value = reader_.load();
    if (!value) return false;
    runningNumber_ = reader_.runningNumber();
    value_ = *value;
    restore();
    return true;
  }

  Word value() const noexcept { return value_; }

  /// Makes both copies what this process stored last, whatever has become of them since.
  void restore() noexcept {
    const Word check = reader_.checkOf(value_, runningNumber_);
    for (std::size_t copy = 0; copy < 2; ++copy) {
      if (loadWord(words_ + 2 * copy) == value_ && loadWord(words_ + 2 * copy + 1) == check)
        continue;
      storeCopy(copy, check);
    }
  }

  /// Changes the value: readers and a successor see the old one until a single store of this call,
  /// and the new one from it on.
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
