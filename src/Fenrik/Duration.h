#pragma once

#include <chrono>

namespace Fenrik {

/// A span of time, exact to the nanosecond.
using Duration = std::chrono::nanoseconds;

}  // namespace Fenrik
