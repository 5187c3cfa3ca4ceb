#pragma once

#include <fcntl.h>
#include <sys/statvfs.h>

#include <cerrno>

#include "Drift/DriftError.h"
#include "Drift/Format.h"

/// What the sources of `DriftFile` share.
namespace Drift {

/// The bytes that a writer locks, from 0 on; behind them lie those of the readers' passes, one for
/// each nanosecond.
inline constexpr off_t kWriterBytes = off_t{1} << 62;

inline struct flock lockOf(short type, off_t start, off_t size) {
  struct flock range {};
  range.l_type = type;
  range.l_whence = SEEK_SET;
  range.l_start = start;
  range.l_len = size;
  return range;
}

inline MountStage stageOf(int error) {
  switch (error) {
    case ENOENT:
      return MountStage::absent;
    case ENOSPC:
    case EDQUOT:
      return MountStage::noSpace;
    case ELOOP:
    case EISDIR:
    case EACCES:
    case ENXIO:
      return MountStage::refused;
    default:
      return MountStage::systemError;
  }
}

/// The room that the file system has, for messages.
inline Format::Word roomOf(int fd) {
  struct statvfs facts {};
  return ::fstatvfs(fd, &facts) == 0 ? Format::Word{facts.f_bavail} * facts.f_frsize : 0;
}

}  // namespace Drift
