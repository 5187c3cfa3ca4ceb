#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "Blipline/RingBuf.h"
#include "Blipline/RingMapping.h"
#include "Fenrik/Assert.h"
#include "Fenrik/Exception.h"
#include "Fenrik/Export.h"

namespace Blipline {

/// Number of a message in the process, held by its site: 0 until the site is described.
using MsgId = int;

/// A ring file could not be made. The message names the path and what the system said.
class QUARNBASTIL_EXPORT TraceFileException final : public Fenrik::Exception {
 public:
  using Exception::Exception;
  ~TraceFileException() override;
};

/// What a site tells of its message.
struct MsgFacts {
  std::string_view letters;
  std::string_view file;
  std::string_view className;
  std::string_view function;
  std::string_view text;
  unsigned line;
};

/// One ring file of this process: the ring, and the messages that the file knows.
///
/// One thread at a time. What a child process made by fork records into its parent's file, and what
/// is recorded after somebody truncated the file, is lost.
/// I1. The file appears under its name whole, with an empty ring, and its room is reserved: no
///     store into it can fail.
/// I2. A message's description is in the file before its first record.
class QUARNBASTIL_EXPORT TraceFile {
 public:
  /// Makes the file. A file that has the path already, from an earlier run, is kept as PATH.old.
  /// `ringBytes` is rounded up to a power of two between `kRingBytesMin` and `kRingBytesMax`.
  /// Throws `TraceFileException`.
  TraceFile(const std::string& path, std::size_t ringBytes, unsigned fileIndex);
  TraceFile(const TraceFile&) = delete;
  TraceFile& operator=(const TraceFile&) = delete;
  /// Lets go of the file, which stays.
  ~TraceFile();

  RingBuf& ring() noexcept { return ring_; }

  /// Whether the file holds the description of the message.
  bool msgIdInitialized(MsgId msgId) {
    FENRIK_ASSERT_TEXT(msgId >= 0, "msgId_ >= 0");
    const auto index = static_cast<std::size_t>(msgId);
    return index != 0 && index < known_.size() && known_[index] != 0;
  }

  /// Writes a description and marks the message as known. When the system takes no more, the
  /// message counts as known all the same: its records are shown without words.
  void descriptionAdd(MsgId msgId, const MsgFacts& facts);

 private:
  void mapNew(const std::string& path, std::size_t ringBytes, unsigned fileIndex);

  /// Header and ring in memory.
  RingMapping mapping_;
  RingBuf ring_;
  /// One byte for each message id, not zero for those that the file knows.
  std::vector<std::uint8_t> known_;
  /// First page of the mapping.
  RingHeader* header_ = nullptr;
  /// A power of two.
  std::size_t ringBytes_ = 0;
  /// Open for writing; descriptions are appended through it.
  int fd_ = -1;
};

}  // namespace Blipline
