#include "Drift/ReaderPass.h"

#include <algorithm>
#include <atomic>
#include <utility>

#include "Drift/DriftFile.h"

namespace Drift {

namespace {

/// Unique within the process: two passes on one byte would be released together.
Word ownMoment() noexcept {
  static std::atomic<Word> last{0};
  Word former = last.load(std::memory_order_relaxed);
  Word own = 0;
  do {
    own = std::max(former + 1, DriftFile::moment());
  } while (!last.compare_exchange_weak(former, own, std::memory_order_relaxed));
  return own;
}

}  // namespace

void ReaderPass::drop() noexcept {
  left_ = 1;
  const Word held = std::exchange(moment_, 0);
  // An inherited pass is released by the parent, not by its child.
  if (held != 0 && mark_ == processMark()) file_->passDrop(held);
}

void ReaderPass::renew() noexcept {
  // Takes the new pass before releasing the old one, so that a walk is covered without a gap.
  const Word own = ownMoment();
  const bool taken = file_->passTake(own);
  drop();
  if (taken) moment_ = own;
  mark_ = processMark();
  left_ = kLookUps;
}

}  // namespace Drift
