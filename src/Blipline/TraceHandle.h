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

/// The file last used by the calling thread, and the id of its handle; id 0 belongs to no handle.
struct ThreadSlot {
  std::uint64_t handleId;
  TraceFile* file;
};
QUARNBASTIL_EXPORT extern thread_local constinit ThreadSlot threadSlot
    __attribute__((tls_model("initial-exec")));

class FilePool;

}  // namespace Impl

/// The ring trace of a process or of a part of it.
///
/// A single-threaded handle has one file, in which one thread at a time records. A multi-threaded
/// handle gives each thread its own file, so that records need no lock; when a thread ends, its
/// file is passed to the next new thread.
/// I1. The first word is zero if and only if the handle is single-threaded.
class QUARNBASTIL_EXPORT TraceHandle {
 public:
  struct Options {
    /// Directory of the files.
    std::string directory;
    /// The files are DIRECTORY/NAME-0.blip, NAME-1.blip and so on. Files of the previous run are
    /// kept with the suffix ".old"; older ones are removed.
    std::string name;
    /// Size of each ring. A record with three numbers takes at most 32 bytes.
    std::size_t ringBytes = std::size_t{1} << 20;
    /// Whether each thread gets its own file.
    bool multiThreaded = false;
  };

  /// Creates the first file, that of the calling thread. Throws `TraceFileException`.
  explicit TraceHandle(const Options& options);
  TraceHandle(const TraceHandle&) = delete;
  TraceHandle& operator=(const TraceHandle&) = delete;
  /// Resets `defaultBliplineHandle` if it refers to this handle. REQUIRES: no thread is at a trace
  /// site of the handle.
  ~TraceHandle();

  /// The file in which the calling thread records, or null.
  TraceFile* traceFile() {
    if (multiThreaded_ == 0) return &*file_;
    return mtTraceFile();
  }

  /// The calling thread's file, created at its first call; null if it could not be created.
  /// REQUIRES: the handle is multi-threaded.
  TraceFile* mtTraceFile() {
    if (Impl::threadSlot.handleId == id_) [[likely]]
      return Impl::threadSlot.file;
    return threadFile();
  }

 private:
  TraceFile* threadFile() noexcept;

  /// 0 or 1; a word, because sites read it directly.
  std::uintptr_t multiThreaded_;
  /// Unique in the process.
  const std::uint64_t id_;
  /// File of a single-threaded handle.
  std::optional<TraceFile> file_;
  /// Files of a multi-threaded handle.
  std::shared_ptr<Impl::FilePool> pool_;
};

/// The handle of all ring traces of the system, or null. Set by the process, which owns the object.
QUARNBASTIL_EXPORT extern std::atomic<TraceHandle*> defaultBliplineHandle;

}  // namespace Blipline
