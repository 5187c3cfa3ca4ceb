#pragma once

#include "Drift/ProcessMark.h"

namespace Drift {

class DriftFile;

/// Held by a view while a look-up may be in progress, so that the memory being read is not freed: a
/// shared lock on one byte of the file's lock range, whose offset is the time at which the lock was
/// taken (`DriftFile::leftSince` checks for it). The kernel releases it when the process ends.
///
/// Cost: two system calls per 4,096 look-ups. An idle view that still holds its pass prevents
/// memory from being freed, at most the file's full size; `drop` avoids that.
class ReaderPass {
 public:
  explicit ReaderPass(const DriftFile& file) noexcept : file_(&file) {}
  ReaderPass(const ReaderPass& other) noexcept : file_(other.file_) {}
  ReaderPass& operator=(const ReaderPass& other) noexcept {
    drop();
    file_ = other.file_;
    return *this;
  }
  ~ReaderPass() { drop(); }

  /// Call at the start of each look-up.
  void show() noexcept {
    if (--left_ == 0 || mark_ != processMark()) renew();
  }
  /// No look-up is in progress, and possibly none follows.
  QUARNBASTIL_EXPORT void drop() noexcept;

 private:
  /// Look-ups per renewal: enough to make the cost of the system calls negligible.
  static constexpr Format::Word kLookUps = 4096;

  QUARNBASTIL_EXPORT void renew() noexcept;

  const DriftFile* file_;
  Format::Word left_ = 1;
  Format::Word moment_ = 0;  ///< the locked byte; 0: none
  Format::Word mark_ = 0;    ///< mark of the process that holds it
};

}  // namespace Drift
