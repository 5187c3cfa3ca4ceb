#pragma once

#include <fcntl.h>
#include <sys/statvfs.h>

#include <cerrno>

#include "Drift/DriftError.h"
#include "Drift/Format.h"

/// Shared by the sources of `DriftFile`.
namespace Drift {

/// The writer locks the bytes from 0 up to here. Readers' passes lock bytes above, one per
/// nanosecond.
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

/// Free space of the file system in bytes, for messages.
inline Format::Word roomOf(int fd) {
  struct statvfs facts {};
  return ::fstatvfs(fd, &facts) == 0 ? Format::Word{facts.f_bavail} * facts.f_frsize : 0;
}

}  // namespace Drift
