#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "Blipline/TraceFile.h"
#include "Fenrik/Export.h"

namespace Blipline {

namespace Impl {

/// The file that the calling thread used last, and of which handle. Id 0 is no handle's.
struct ThreadSlot {
  std::uint64_t handleId;
  TraceFile* file;
};
QUARNBASTIL_EXPORT extern thread_local constinit ThreadSlot threadSlot
    __attribute__((tls_model("initial-exec")));

class FilePool;

}  // namespace Impl

/// The ring trace of a process, or of a part of it.
///
/// A single-threaded handle has one file, in which one thread at a time records. A multi-threaded
/// one gives every thread a file of its own, so that a record needs no lock; the file of a thread
/// that ended passes to the next new one.
/// I1. The first word is zero for a single-threaded handle, and for no other.
class QUARNBASTIL_EXPORT TraceHandle {
 public:
  struct Options {
    std::string directory;
    /// The files are DIRECTORY/NAME-0.blip, NAME-1.blip and so on. Those of an earlier run are kept
    /// with ".old" behind their name, those of the run before it go.
    std::string name;
    /// For each file. A record of three numbers takes 32 bytes or less.
    std::size_t ringBytes = std::size_t{1} << 20;
    bool multiThreaded = false;
  };

  /// Makes the first file, that of the calling thread. Throws `TraceFileException`.
  explicit TraceHandle(const Options& options);
  TraceHandle(const TraceHandle&) = delete;
  TraceHandle& operator=(const TraceHandle&) = delete;
  /// Takes itself off `defaultBliplineHandle`. REQUIRES: no thread is at a site of the handle.
  ~TraceHandle();

  /// The file in which the calling thread records; null when there is none.
  TraceFile* traceFile() {
    if (multiThreaded_ == 0) return &*file_;
    return mtTraceFile();
  }

  /// The calling thread's own file, made at its first call; null when it could not be made.
  /// REQUIRES: the handle is multi-threaded.
  TraceFile* mtTraceFile() {
    if (Impl::threadSlot.handleId == id_) [[likely]]
      return Impl::threadSlot.file;
    return threadFile();
  }

 private:
  TraceFile* threadFile() noexcept;

  /// 0 or 1; a word because sites read it directly.
  std::uintptr_t multiThreaded_;
  /// Never used twice in a process.
  const std::uint64_t id_;
  /// The file of a single-threaded handle.
  std::optional<TraceFile> file_;
  /// The files of a multi-threaded handle.
  std::shared_ptr<Impl::FilePool> pool_;
};

/// The handle of all ring traces of the system; null when the process has none. The process sets it
/// and keeps the object.
QUARNBASTIL_EXPORT extern std::atomic<TraceHandle*> defaultBliplineHandle;

}  // namespace Blipline
