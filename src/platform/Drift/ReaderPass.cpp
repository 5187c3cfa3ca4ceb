#include "Drift/ReaderPass.h"

#include <algorithm>
#include <atomic>
#include <utility>

#include "Drift/DriftFile.h"

namespace Drift {

namespace {

/// No two passes of a process have the same byte: to drop the one would drop the other.
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
  // A child's copy of its parent's pass is the parent's to drop.
  if (held != 0 && mark_ == processMark()) file_->passDrop(held);
}

void ReaderPass::renew() noexcept {
  // What was taken later is held before the former one goes: there is no gap between two look-ups
  // that a walk takes for one.
  const Word own = ownMoment();
  const bool taken = file_->passTake(own);
  drop();
  if (taken) moment_ = own;
  mark_ = processMark();
  left_ = kLookUps;
}

}  // namespace Drift
