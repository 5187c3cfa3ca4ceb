#pragma once

#include "Fenrik/Exception.h"
#include "Fenrik/Export.h"

namespace Drift {

/// Outcome of opening a collection.
enum class MountStage {
  absent,       ///< no file of that name
  notReady,     ///< the file is still being created
  wrongFormat,  ///< another program's file, another version, or another record type or size
  damaged,      ///< the header is of this format, but its checksum is wrong
  refused,      ///< not a regular file of the expected owner and mode
  busy,         ///< another process is writing it
  noSpace,      ///< the file system has no space for it
  systemError,  ///< a system call failed
  made,         ///< did not exist; created, empty
  rebuilt,      ///< was unusable; replaced by an empty one with `wiped` set
  ok,           ///< taken over unchanged
};
QUARNBASTIL_EXPORT const char* mountStageName(MountStage stage) noexcept;

/// A collection could not be opened. The message gives the path, the finding and a remedy.
class QUARNBASTIL_EXPORT MountException final : public Fenrik::Exception {
 public:
  MountException(MountStage stage, Fenrik::String message)
      : Exception(std::move(message)), stage_(stage) {}
  ~MountException() override;

  MountStage stage() const noexcept { return stage_; }

 private:
  MountStage stage_;
};

/// A process forked from a collection's writer tried to write. Nothing has changed.
class QUARNBASTIL_EXPORT ForkedException final : public Fenrik::Exception {
 public:
  using Exception::Exception;
  ~ForkedException() override;
};

/// A collection has reached its capacity. Nothing has changed.
class QUARNBASTIL_EXPORT CollectionFullException final : public Fenrik::Exception {
 public:
  using Exception::Exception;
  ~CollectionFullException() override;
};

/// The file system has no space for further records. Nothing has changed.
class QUARNBASTIL_EXPORT NoSpaceException final : public Fenrik::Exception {
 public:
  using Exception::Exception;
  ~NoSpaceException() override;
};

}  // namespace Drift
