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

/// A file cannot be read as a ring file. The message gives path, state and position.
class QUARNBASTIL_EXPORT RingFileException final : public Fenrik::Exception {
 public:
  RingFileException(RingFileState state, Fenrik::String message)
      : Exception(std::move(message)), state_(state) {}
  ~RingFileException() override;

  RingFileState state() const noexcept { return state_; }

 private:
  RingFileState state_;
};

/// Content of a ring file at one instant. The file may belong to a running or a killed process, or
/// contain arbitrary bytes.
///
/// I1. All records are complete, in the order of recording, and without a gap up to the last one.
/// I2. Damage in a block or description affects only that one and is listed in `problems`.
class QUARNBASTIL_EXPORT RingFile {
 public:
  struct Description {
    /// Type letters of the numbers.
    std::string letters;
    /// Position of the trace site.
    std::string file;
    std::string className;
    std::string function;
    std::string text;
    std::uint32_t line;
  };
  /// One record; `numbers` refers to the file's copy.
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
    return descriptions_;
  }
  /// Damage found and skipped, a sentence each.
  const std::vector<std::string>& problems() const noexcept { return problems_; }
  /// The latest instant known on both clocks.
  const BlockHead& lastBlock() const noexcept { return lastBlock_; }

  /// The record's text with its numbers inserted; its bytes if the message has no description.
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
  /// A copy of the ring; records refer to it.
  std::vector<std::byte> ring_;
  /// Complete records, oldest first.
  std::vector<Record> records_;
  /// Messages of the file by id.
  std::map<std::uint32_t, Description> descriptions_;
  /// Damage found and skipped, a sentence each.
  std::vector<std::string> problems_;
  /// Head of the newest block.
  BlockHead lastBlock_{};
};

/// One record in readable form.
struct RingMessage {
  /// Nanoseconds since 1970, UTC.
  std::int64_t time;
  /// Process and file of the record.
  std::uint32_t processId;
  std::uint32_t fileIndex;
  /// File, line, class and function of the site; empty if the message has no description.
  std::string place;
  /// The message with its numbers.
  std::string text;
};

/// The records of all files ordered by time. Records of one process are ordered by its clock, which
/// its threads share.
QUARNBASTIL_EXPORT std::vector<RingMessage> ringMessages(std::span<const RingFile> files);

/// A message as one line without line feed: time, process and file, position, text.
QUARNBASTIL_EXPORT std::string ringLine(const RingMessage& message);

}  // namespace Blipline
