#pragma once

#include <string>

namespace Bench {

/// A goal of the form "ours takes at most `limit` times the peer's time", checked and printed at
/// the end of a run in which both benchmarks were measured. Names are those of the benchmarks with
/// their arguments, as Google Benchmark prints them. With `base`, the time of that benchmark is
/// first taken off both, such as that of an empty loop.
struct Goal {
  /// Registers the goal. Meant for objects of static storage beside the benchmarks.
  Goal(std::string what, std::string ours, std::string peer, double limit, std::string base = {});
};

}  // namespace Bench
