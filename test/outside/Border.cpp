#include "Border.h"

#include <fmt/core.h>

// One record of allocations serves a class on both sides of a library's border.
int main() {
  Stone::Ptr own = Fenrik::ptrIsImpl<Stone>();
  Stone::Ptr other = stoneOfLibrary();
  const bool one = Stone::memAllocationTracker_ == stoneTrackerOfLibrary();
  fmt::print("{} tracker, {} stones\n", one ? "one" : "more than one",
             Stone::memAllocationTracker_->liveCount());
}
