#pragma once

#include <array>
#include <chrono>

#include "Drift/DenseCollection.h"
#include "Drift/RecordLayout.h"

namespace Drift {

/// Follows a dense collection from a given version, in any process with read access to its file.
///
///     Drift::LogFollower<Record> log(entity->file(), lastApplied + 1);
///     for (;;) {
///       switch (log.read(record)) {
///         case DenseRead::found: apply(record); break;
///         case DenseRead::notYet: log.wait(std::chrono::seconds(1)); break;
///         case DenseRead::gone: log.skip(); break;
///       }
///     }
///
/// Threads: one. Never blocks or delays the writer.
template <class R>
class LogFollower {
 public:
  /// REQUIRES: the file outlives the follower.
  LogFollower(const DriftFile& file, Word from) : file_(file), view_(file), position_(from) {}

  /// The version that the next read returns.
  Word position() const noexcept { return position_; }
  void positionIs(Word version) noexcept { position_ = version; }

  /// Copies the record at the position and advances. If the record is still to come or is gone, the
  /// position does not change. Throws `Fenrik::CorruptionDetectedException`.
  DenseRead read(R& record) {
    // Sampled before the read, so that a ring between read and wait is not missed.
    seen_ = file_.doorbell();
    std::array<Word, RecordLayout<R>::kWords> words;
    const DenseRead result = view_.find(position_, words);
    if (result != DenseRead::found) return result;
    RecordLayout<R>::fromWords(words.data(), record);
    ++position_;
    return result;
  }

  /// Skips removed versions, to the next one that exists or is still to come.
  void skip() {
    std::array<Word, RecordLayout<R>::kWords> words;
    if (!view_.findFrom(position_, words)) position_ = std::max(position_, view_.window().next);
  }

  /// Sleeps until the writer has rung since the last read, or until the timeout. Returns whether it
  /// rang.
  bool wait(std::chrono::nanoseconds timeout) const {
    // Before a long sleep, lets the writer free memory.
    constexpr std::chrono::nanoseconds kLong = std::chrono::milliseconds(10);
    if (timeout <= kLong) return file_.waitForRing(seen_, timeout);
    if (file_.waitForRing(seen_, kLong)) return true;
    view_.rest();
    return file_.waitForRing(seen_, timeout - kLong);
  }

 private:
  const DriftFile& file_;
  DenseView view_;
  Word position_;
  std::uint32_t seen_ = 0;
};

}  // namespace Drift
