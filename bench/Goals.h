#pragma once

#include <string>

namespace Bench {

/// A goal: "ours takes at most `limit` times the peer's time". It is checked and printed at the end
/// of a run that measured both benchmarks. Names are those of the benchmarks with their arguments,
/// as printed by Google Benchmark: "MapFind/65536".
///
/// Times are medians over the repetitions: CPU time, or wall-clock time for benchmarks with
/// `UseRealTime` or `UseManualTime`.
struct Goal {
  /// Registers the goal. Intended for static objects next to the benchmarks. The time of
  /// `baseline`, which is common to both sides but not compared, is first subtracted from both.
  Goal(std::string what, std::string ours, std::string peer, double limit,
       std::string baseline = {});
};

}  // namespace Bench
