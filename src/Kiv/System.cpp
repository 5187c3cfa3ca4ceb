#include "Kiv/System.h"

#include <ctime>

namespace Kiv {

/// The coarse clock: it is read at every commit, and milliseconds suffice.
double System::currentTimeUtc() noexcept {
  timespec now{};
  ::clock_gettime(CLOCK_REALTIME_COARSE, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

}  // namespace Kiv
