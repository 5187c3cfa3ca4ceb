#pragma once

#include <array>
#include <chrono>

#include "Drift/DenseCollection.h"
#include "Drift/RecordLayout.h"

namespace Drift {

/// Follows a dense collection from a version on, in any process that may read its file.
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
/// Threads: one. It never blocks or slows the writer.
template <class R>
class LogFollower {
 public:
  /// The file outlives the follower.
  LogFollower(const DriftFile& file, Word from) : file_(file), view_(file), position_(from) {}

  /// The version that the next read asks for.
  Word position() const noexcept { return position_; }
  void positionIs(Word version) noexcept { position_ = version; }

  /// Copies the record at the position and moves on; otherwise the position stays, and the answer
  /// says whether the record is still to come or has gone. Throws
  /// `Fenrik::CorruptionDetectedException`.
  DenseRead read(R& record) {
    // Taken before the look, so that no ring between look and wait is missed.
    seen_ = file_.doorbell();
    std::array<Word, RecordLayout<R>::kWords> words;
    const DenseRead result = view_.find(position_, words);
    if (result != DenseRead::found) return result;
    RecordLayout<R>::fromWords(words.data(), record);
    ++position_;
    return result;
  }

  /// Moves over versions that have gone, to the next one that is there or still to come.
  void skip() {
    std::array<Word, RecordLayout<R>::kWords> words;
    if (!view_.findFrom(position_, words)) position_ = std::max(position_, view_.window().next);
  }

  /// Sleeps until the writer rings after the last read, or the time is over; true if it rang.
  bool wait(std::chrono::nanoseconds timeout) const {
    // A reader that sleeps for long does not keep the writer from giving memory back.
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
