#pragma once

#include <chrono>
#include <memory>
#include <span>
#include <string>
#include <string_view>

#include "Drift/Directory.h"
#include "Drift/Header.h"
#include "Drift/ProcessMark.h"
#include "Fenrik/Export.h"

namespace Drift {

/// The mapped file of one collection.
///
/// A writer holds an exclusive lock for the lifetime of the object; the kernel releases it when the
/// process ends in any way. A reader maps the file `PROT_READ` and needs only read permission.
///
/// After a fork the child may read through the inherited object; the lock remains the parent's. A
/// write by the child is refused with `ForkedException`: it must open the collection itself, after
/// the parent has closed it.
///
/// I1. Type, owner, mode, link count, exact size and header are verified through the descriptor
///     before the mapping is first accessed.
/// I2. A file is visible under its name only when it is complete.
/// I3. A failed call leaves all files unchanged.
class QUARNBASTIL_EXPORT DriftFile {
 public:
  struct Options {
    /// Reserve and map memory for all records at once, and never free it.
    bool reserveAll = false;
    /// In a shared directory, let any member of the group write the collection, one at a time.
    bool groupWrites = false;
  };

  /// Opens the entity's collection for writing: takes over an existing one, creates it if it is
  /// absent, or replaces it by an empty one with `wiped` set if it is damaged or of another format.
  /// `stage()` tells which. Throws `MountException`.
  static std::unique_ptr<DriftFile> openForWriting(const Directory& directory,
                                                   std::string_view entityPath,
                                                   const Geometry& geometry, Options options);

  /// Opens it for reading. If `geometry` is null, the geometry in the file is used, after it has
  /// been found consistent. Throws `MountException`.
  static std::unique_ptr<DriftFile> openForReading(const Directory& directory,
                                                   std::string_view entityPath,
                                                   const Geometry* geometry);

  ~DriftFile();
  DriftFile(const DriftFile&) = delete;
  DriftFile& operator=(const DriftFile&) = delete;

  bool writable() const noexcept { return writable_; }
  MountStage stage() const noexcept { return stage_; }
  /// Why the collection was rebuilt: path and finding. Empty otherwise.
  const Fenrik::String& reason() const noexcept { return reason_; }
  const std::string& path() const noexcept { return path_; }
  const Format::FixedHeader& header() const noexcept { return header_; }
  const Options& options() const noexcept { return options_; }

  const std::byte* data() const noexcept { return data_; }
  std::byte* data() noexcept { return data_; }
  const Word* words(Word offset) const noexcept {
    return reinterpret_cast<const Word*>(data_ + offset);
  }
  Word* words(Word offset) noexcept { return reinterpret_cast<Word*>(data_ + offset); }

  /// Reserves memory for a part of the file. Throws `NoSpaceException` if the file system has none;
  /// nothing has changed then.
  void reserve(Word offset, Word size);
  /// Copies a part of the file by a system call, which does not allocate memory for holes. False on
  /// failure.
  bool read(Word offset, void* out, Word size) const noexcept;
  /// Frees the memory of a part of the file, which then reads as zero. False, with nothing changed,
  /// if all memory is reserved permanently or the file system does not support it. REQUIRES:
  /// `leftSince` is true for a time at which nothing referred to the part.
  bool giveBack(Word offset, Word size) noexcept;

  /// The current time in nanoseconds, comparable between processes.
  static Word moment() noexcept;
  /// Whether all look-ups that readers in any process had begun by that time have ended. A reader
  /// touching freed memory would allocate it again, and would die of a bus error on a full file
  /// system. Costs a system call.
  bool leftSince(Word moment) const noexcept;

  /// Throws `ForkedException` in a process that inherited the file from the writer.
  void requireOwner() const {
    if (mark_ != processMark()) refuseChild();
  }

  /// Whether the name now refers to another file, or none: this file was rebuilt or removed.
  bool replaced() const;

  /// Rings the doorbell and wakes the processes sleeping on it. `listener`, if given, is a file
  /// whose writer is the intended listener: while that writer is marked awake, the wake-up system
  /// call is omitted, and other sleepers notice the ring within 20 ms.
  void ring(const DriftFile* listener = nullptr) noexcept;
  std::uint32_t doorbell() const noexcept;
  /// The doorbell's count in the file, for an acquire load. Valid while this object lives.
  const std::uint32_t* doorbellWord() const noexcept;
  /// Sleeps until the doorbell differs from `seen` or the timeout. Returns whether it differs.
  bool waitForRing(std::uint32_t seen, std::chrono::nanoseconds timeout) const;

 private:
  friend class DriftFileOpener;
  friend class ReaderPass;
  DriftFile() = default;

  bool passTake(Word moment) const noexcept;
  void passDrop(Word moment) const noexcept;
  [[noreturn]] void refuseChild() const;

  std::shared_ptr<const Descriptor> directory_;
  std::string fileName_;
  std::string path_;
  mutable Descriptor fd_;
  Word mark_ = processMark();              ///< mark of the process that opened the file
  mutable Word lockMark_ = processMark();  ///< mark of the process that owns the locks of `fd_`
  Options options_;
  bool writable_ = false;
  MountStage stage_ = MountStage::ok;
  Fenrik::String reason_;
  Format::FixedHeader header_{};
  std::byte* data_ = nullptr;
};

/// A doorbell, and its count when its owner last read what it announces.
struct BellSeen {
  const DriftFile* file;  ///< file of the doorbell; null: none
  std::uint32_t seen;     ///< count at that time
};

/// Sleeps until one of the doorbells has been rung or the timeout; returns whether one has.
/// Meanwhile this process is marked asleep in the files of `own`, which it writes, so that others
/// can omit the wake-up call while it is awake.
QUARNBASTIL_EXPORT bool waitForAnyRing(std::span<const BellSeen> bells,
                                       std::chrono::nanoseconds timeout,
                                       std::span<const DriftFile* const> own = {});

}  // namespace Drift
