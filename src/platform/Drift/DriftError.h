#pragma once

#include "Fenrik/Exception.h"
#include "Fenrik/Export.h"

namespace Drift {

/// How an attempt to open a collection ended.
enum class MountStage {
  absent,       ///< no file of that name
  notReady,     ///< the file is still being made
  wrongFormat,  ///< the file is none of ours, of another version, or of another record or size
  damaged,      ///< the header was ours and does not prove itself any more
  refused,      ///< not a regular file of ours: a link, a directory, another owner or mode
  busy,         ///< another process writes it
  noSpace,      ///< the file system has no room for it
  systemError,  ///< a system call failed
  made,         ///< there was none: made anew and empty
  rebuilt,      ///< what was there could not be used: made anew and empty, `wiped` set
  ok,           ///< taken over as it was
};
QUARNBASTIL_EXPORT const char* mountStageName(MountStage stage) noexcept;

/// A collection could not be opened; the message names the path, what was found and what to do.
class QUARNBASTIL_EXPORT MountException final : public Fenrik::Exception {
 public:
  MountException(MountStage stage, Fenrik::String message)
      : Exception(std::move(message)), stage_(stage) {}
  ~MountException() override;

  MountStage stage() const noexcept { return stage_; }

 private:
  MountStage stage_;
};

/// A process that was forked from a collection's writer tried to write. Nothing was changed.
class QUARNBASTIL_EXPORT ForkedException final : public Fenrik::Exception {
 public:
  using Exception::Exception;
  ~ForkedException() override;
};

/// A collection holds as many records as it may. Nothing was changed.
class QUARNBASTIL_EXPORT CollectionFullException final : public Fenrik::Exception {
 public:
  using Exception::Exception;
  ~CollectionFullException() override;
};

/// The file system has no room for further records. Nothing was changed.
class QUARNBASTIL_EXPORT NoSpaceException final : public Fenrik::Exception {
 public:
  using Exception::Exception;
  ~NoSpaceException() override;
};

}  // namespace Drift
