#include "Drift/DriftFile.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>

#include "Drift/FileFacts.h"

#include "Fenrik/Format.h"

namespace Drift {

DriftFile::~DriftFile() {
  if (data_ != nullptr) ::munmap(data_, header_.fileSize);
}

void DriftFile::reserve(Word offset, Word size) {
  if (options_.reserveAll) return;
  if (::fallocate(fd_.get(), 0, static_cast<off_t>(offset), static_cast<off_t>(size)) == 0) {
    // Best effort, as when the file is created.
    const Word within = offset % Format::kPageSize;
    ::madvise(data_ + offset - within, size + within, MADV_POPULATE_WRITE);
    return;
  }
  const int error = errno;
  if (stageOf(error) != MountStage::noSpace) {
    throw MountException(
        MountStage::systemError,
        Fenrik::formatString("{}: cannot reserve memory: {}", path_, std::strerror(error)));
  }
  throw NoSpaceException(Fenrik::formatString(
      "{}: no space: {} bytes are needed for further records, {} are free; make room", path_, size,
      roomOf(fd_.get())));
}

bool DriftFile::read(Word offset, void* out, Word size) const noexcept {
  return ::pread(fd_.get(), out, size, static_cast<off_t>(offset)) == static_cast<ssize_t>(size);
}

bool DriftFile::giveBack(Word offset, Word size) noexcept {
  if (options_.reserveAll || size == 0) return false;
  return ::fallocate(fd_.get(), FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE,
                     static_cast<off_t>(offset), static_cast<off_t>(size)) == 0;
}

Word DriftFile::moment() noexcept {
  timespec now{};
  ::clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<Word>(now.tv_sec) * 1'000'000'000 + static_cast<Word>(now.tv_nsec);
}

bool DriftFile::leftSince(Word moment) const noexcept {
  // Upper limit of the difference between two processors' clocks, in nanoseconds.
  constexpr Word kMargin = 1'000'000;
  struct flock passes = lockOf(F_WRLCK, kWriterBytes, static_cast<off_t>(moment + kMargin));
  return ::fcntl(fd_.get(), F_OFD_GETLK, &passes) == 0 && passes.l_type == F_UNLCK;
}

/// The writer takes no pass: it frees memory only between its own look-ups.
bool DriftFile::passTake(Word moment) const noexcept {
  if (writable_ && mark_ == processMark()) return false;
  if (lockMark_ != processMark()) {
    // Opens the file anew: parent and child share the open file description, and a lock taken
    // through it would outlive the child.
    fd_ = Descriptor(
        ::open(fmt::format("/proc/self/fd/{}", fd_.get()).c_str(), O_RDONLY | O_CLOEXEC));
    lockMark_ = processMark();
  }
  struct flock pass = lockOf(F_RDLCK, kWriterBytes + static_cast<off_t>(moment), 1);
  return ::fcntl(fd_.get(), F_OFD_SETLK, &pass) == 0;
}

void DriftFile::passDrop(Word moment) const noexcept {
  struct flock pass = lockOf(F_UNLCK, kWriterBytes + static_cast<off_t>(moment), 1);
  ::fcntl(fd_.get(), F_OFD_SETLK, &pass);
}

void DriftFile::refuseChild() const {
  throw ForkedException(
      Fenrik::formatString("{}: process {} was forked from the one that writes it; write there, or "
                           "mount it in the child "
                           "once that one has let go of it",
                           path_, ::getpid()));
}

bool DriftFile::replaced() const {
  struct stat mine {};
  struct stat named {};
  if (::fstat(fd_.get(), &mine) != 0) return true;
  if (::fstatat(directory_->get(), fileName_.c_str(), &named, AT_SYMLINK_NOFOLLOW) != 0)
    return true;
  return mine.st_ino != named.st_ino || mine.st_dev != named.st_dev;
}

}  // namespace Drift
