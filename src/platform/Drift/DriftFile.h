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
/// A writer holds an exclusive lock on it for as long as the object lives; the lock goes with the
/// process, however that ends. A reader maps it `PROT_READ` and needs no right beyond reading.
///
/// After a fork the child may read through what it inherited; the parent's lock stays the parent's.
/// A write is refused with `ForkedException`: the child opens the collection itself, once the
/// parent has let go of it.
///
/// I1. Type, owner, mode, link count, exact size and header are verified on the descriptor before
///     the first access through the mapping.
/// I2. A file appears under its name only when it is whole.
/// I3. A failed call leaves the files as they were.
class QUARNBASTIL_EXPORT DriftFile {
 public:
  struct Options {
    /// Memory for all records is reserved and mapped at once, and never given back.
    bool reserveAll = false;
    /// In a shared directory any member of its group may write the collection, one at a time.
    bool groupWrites = false;
  };

  /// Opens the entity's collection for writing: takes over what is there, makes it if it is absent,
  /// or makes it anew with `wiped` set if what is there is damaged or of another format. `stage()`
  /// says which. Throws `MountException`.
  static std::unique_ptr<DriftFile> openForWriting(const Directory& directory,
                                                   std::string_view entityPath,
                                                   const Geometry& geometry, Options options);

  /// Opens it for reading. `geometry` may be null: then the file's own is used, once it has proved
  /// to be consistent. Throws `MountException`.
  static std::unique_ptr<DriftFile> openForReading(const Directory& directory,
                                                   std::string_view entityPath,
                                                   const Geometry* geometry);

  ~DriftFile();
  DriftFile(const DriftFile&) = delete;
  DriftFile& operator=(const DriftFile&) = delete;

  bool writable() const noexcept { return writable_; }
  MountStage stage() const noexcept { return stage_; }
  /// Why the collection was rebuilt: the path and what was found. Empty otherwise.
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

  /// Reserves memory behind a part of the file; throws `NoSpaceException`, with nothing changed,
  /// when the file system has none.
  void reserve(Word offset, Word size);
  /// Copies a part of the file by a system call, for which a hole stays one; false if that fails.
  bool read(Word offset, void* out, Word size) const noexcept;
  /// Gives the memory behind a part of the file back; its bytes then read as zero. False where all
  /// is reserved for good or the file system cannot do it: nothing has changed then. REQUIRES:
  /// `leftSince` a moment at which nothing led there any more.
  bool giveBack(Word offset, Word size) noexcept;

  /// The present moment, in nanoseconds, the same for all processes.
  static Word moment() noexcept;
  /// Whether every look-up has ended that a reader, in any process, had begun by that moment. A
  /// reader that touched memory that was given back would allocate it anew, and die of a bus error
  /// where the file system is full. Costs a system call.
  bool leftSince(Word moment) const noexcept;

  /// Throws `ForkedException` in a process that inherited the file from its writer.
  void requireOwner() const {
    if (mark_ != processMark()) refuseChild();
  }

  /// True when the name leads to another file by now: this one was rebuilt or removed.
  bool replaced() const;

  /// Moves the doorbell and wakes who sleeps on it. With one listener in mind, the writer of
  /// `listener`, the system call that wakes is left out while that one says that it is awake;
  /// others that sleep here notice within 20 ms then.
  void ring(const DriftFile* listener = nullptr) noexcept;
  std::uint32_t doorbell() const noexcept;
  /// The number in the file that moves, to be read with acquire order; stays for the object's life.
  const std::uint32_t* doorbellWord() const noexcept;
  /// Sleeps until the doorbell differs from `seen` or the time is over; true if it differs.
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
  Word mark_ = processMark();              ///< of the process that opened the file
  mutable Word lockMark_ = processMark();  ///< of the process to which the locks of `fd_` belong
  Options options_;
  bool writable_ = false;
  MountStage stage_ = MountStage::ok;
  Fenrik::String reason_;
  Format::FixedHeader header_{};
  std::byte* data_ = nullptr;
};

/// A doorbell, and the number that it had when its owner last looked behind it.
struct BellSeen {
  const DriftFile* file;
  std::uint32_t seen;
};

/// Sleeps until one of the doorbells has moved or the time is over; true if one has moved. Those of
/// `own`, files that this process writes, say so meanwhile, so that others ring without a system
/// call while it is awake.
QUARNBASTIL_EXPORT bool waitForAnyRing(std::span<const BellSeen> bells,
                                       std::chrono::nanoseconds timeout,
                                       std::span<const DriftFile* const> own = {});

}  // namespace Drift
