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

/// Id of a message in the process, stored at its site; 0 until the site is described.
using MsgId = int;

/// A ring file could not be created. The message gives the path and the system's error.
class QUARNBASTIL_EXPORT TraceFileException final : public Fenrik::Exception {
 public:
  using Exception::Exception;
  ~TraceFileException() override;
};

/// Description of a site's message.
struct MsgFacts {
  /// Type letters of the numbers.
  std::string_view letters;
  /// Position of the site.
  std::string_view file;
  std::string_view className;
  std::string_view function;
  /// The message; "{}" is the place of a number.
  std::string_view text;
  unsigned line;
};

/// One ring file of this process: the ring and the messages described in the file.
///
/// Threads: one at a time. Records made in a forked child, or after the file was truncated, are
/// lost.
/// I1. The file appears under its name complete, with an empty ring and its space reserved, so that
///     no store to it can fail.
/// I2. A message's description is in the file before its first record.
class QUARNBASTIL_EXPORT TraceFile {
 public:
  /// Creates the file. An existing file with this path, from an earlier run, is renamed to
  /// PATH.old. `ringBytes` is rounded up to a power of two within `kRingBytesMin` and
  /// `kRingBytesMax`. Throws `TraceFileException`.
  TraceFile(const std::string& path, std::size_t ringBytes, unsigned fileIndex);
  TraceFile(const TraceFile&) = delete;
  TraceFile& operator=(const TraceFile&) = delete;
  /// Closes the file, which remains.
  ~TraceFile();

  RingBuf& ring() noexcept { return ring_; }

  /// Whether the file contains the description of the message.
  bool msgIdInitialized(MsgId msgId) {
    FENRIK_ASSERT_TEXT(msgId >= 0, "msgId_ >= 0");
    const auto index = static_cast<std::size_t>(msgId);
    return index != 0 && index < known_.size() && known_[index] != 0;
  }

  /// Writes a description and marks the message as known. On failure the message is marked as known
  /// nevertheless; its records are then printed as numbers.
  void descriptionAdd(MsgId msgId, const MsgFacts& facts);

 private:
  void mapNew(const std::string& path, std::size_t ringBytes, unsigned fileIndex);

  /// Maps header and ring.
  RingMapping mapping_;
  RingBuf ring_;
  /// One byte per message id; nonzero if the message is known.
  std::vector<std::uint8_t> known_;
  /// The first page of the mapping.
  RingHeader* header_ = nullptr;
  /// Size of the ring, a power of two.
  std::size_t ringBytes_ = 0;
  /// The open file; descriptions are appended through it.
  int fd_ = -1;
};

}  // namespace Blipline
