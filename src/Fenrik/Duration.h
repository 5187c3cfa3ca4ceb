#pragma once

#include <chrono>

namespace Fenrik {

/// A duration in nanoseconds.
using Duration = std::chrono::nanoseconds;

}  // namespace Fenrik
