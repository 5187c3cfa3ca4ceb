#pragma once

#include "Drift/ProcessMark.h"

namespace Drift {

class DriftFile;

/// What a view holds while it may be within a look-up, so that no memory is taken from under it: a
/// shared lock on one byte of the file's lock range, at the time at which the lock was taken
/// (`DriftFile::leftSince` asks for it). It goes with the process, however that ends.
///
/// Cost: two system calls in 4,096 look-ups. A view that is not used any more keeps memory from
/// being given back, never more than the file's whole size; `drop` avoids that.
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

  /// Call at the beginning of each look-up.
  void show() noexcept {
    if (--left_ == 0 || mark_ != processMark()) renew();
  }
  /// No look-up is going on, and perhaps none follows.
  QUARNBASTIL_EXPORT void drop() noexcept;

 private:
  /// Makes the system calls vanish among the look-ups.
  static constexpr Format::Word kLookUps = 4096;

  QUARNBASTIL_EXPORT void renew() noexcept;

  const DriftFile* file_;
  Format::Word left_ = 1;
  Format::Word moment_ = 0;  ///< the byte that is held; 0: none
  Format::Word mark_ = 0;    ///< of the process that holds it
};

}  // namespace Drift
