#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <span>
#include <string>
#include <vector>

#include "Blipline/RingFormat.h"
#include "Fenrik/Exception.h"
#include "Fenrik/Export.h"

namespace Blipline {

/// Why a file cannot be read as a ring file.
enum class RingFileState { absent, foreign, otherVersion, damaged, lapped };

QUARNBASTIL_EXPORT const char* ringFileStateName(RingFileState state) noexcept;

/// A file that cannot be read as a ring file. The message names the path, the state and the place.
class QUARNBASTIL_EXPORT RingFileException final : public Fenrik::Exception {
 public:
  RingFileException(RingFileState state, Fenrik::String message)
      : Exception(std::move(message)), state_(state) {}
  ~RingFileException() override;

  RingFileState state() const noexcept { return state_; }

 private:
  RingFileState state_;
};

/// What one ring file held at one instant. The file may belong to a process that runs, that was
/// killed, or be any bytes at all.
///
/// I1. Every record had been ended, and they stand in the order in which they were recorded,
///     without a gap up to the last.
/// I2. Damage within one block or description costs that one and is told by `problems`.
class QUARNBASTIL_EXPORT RingFile {
 public:
  struct Description {
    std::string letters;
    std::string file;
    std::string className;
    std::string function;
    std::string text;
    std::uint32_t line;
  };
  struct Record {
    std::uint64_t tick;
    std::uint32_t msgId;
    std::span<const std::byte> numbers;
  };

  /// Reads the file. Throws `RingFileException`.
  explicit RingFile(std::string path);
  RingFile(RingFile&&) = default;
  RingFile& operator=(RingFile&&) = default;

  const std::string& path() const noexcept { return path_; }
  const RingFacts& facts() const noexcept { return facts_; }
  const std::vector<Record>& records() const noexcept { return records_; }
  const std::map<std::uint32_t, Description>& descriptions() const noexcept {
    /// Messages of the file by id.
    return descriptions_;
  }
  /// Damage that was found and passed over, one sentence for each.
  const std::vector<std::string>& problems() const noexcept { return problems_; }
  /// The latest instant that the file knows on both clocks.
  const BlockHead& lastBlock() const noexcept { return lastBlock_; }

  /// The record's text with its numbers in place; the plain bytes if the message is not described.
  std::string text(const Record& record) const;

 private:
  struct Source;

  void factsRead(const Source& source);
  void ringRead(const Source& source);
  void blocksWalk(std::uint64_t first, std::uint64_t committed);
  void blockWalk(std::uint64_t position, std::uint64_t end);
  void descriptionsRead(const Source& source);
  [[noreturn]] void fail(RingFileState state, const std::string& what) const;

  std::string path_;
  RingFacts facts_{};
  /// The ring's bytes, copied; records point into them.
  std::vector<std::byte> ring_;
  /// Whole records, oldest first.
  std::vector<Record> records_;
  std::map<std::uint32_t, Description> descriptions_;
  /// Damage that was skipped, a sentence each.
  std::vector<std::string> problems_;
  /// Head of the newest block.
  BlockHead lastBlock_{};
};

/// One record made readable.
struct RingMessage {
  /// Nanoseconds since 1970, UTC.
  std::int64_t time;
  std::uint32_t processId;
  std::uint32_t fileIndex;
  /// File, line, class and function of the site; empty when the message is not described.
  std::string place;
  std::string text;
};

/// The records of all files in the order of time. Those of one process are ordered by its clock,
/// which its threads share.
QUARNBASTIL_EXPORT std::vector<RingMessage> ringMessages(std::span<const RingFile> files);

/// A message as one line without line feed: time, process and file, place, text.
QUARNBASTIL_EXPORT std::string ringLine(const RingMessage& message);

}  // namespace Blipline
