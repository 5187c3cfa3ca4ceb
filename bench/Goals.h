#pragma once

#include <string>

namespace Bench {

/// A goal of the form "ours takes at most `limit` times the peer's time", checked and printed at
/// the end of a run in which both benchmarks were measured. Names are those of the benchmarks with
/// their arguments, as Google Benchmark prints them: "MapFind/65536".
///
/// The times are medians over the repetitions: of the processor, or of the clock for benchmarks
/// that ask for it (`UseRealTime`, `UseManualTime`).
struct Goal {
  /// Registers the goal. Meant for objects of static storage beside the benchmarks. The time of
  /// `baseline`, what both do beside what is compared, is taken off either side first: "ours above
  /// an empty loop".
  Goal(std::string what, std::string ours, std::string peer, double limit,
       std::string baseline = {});
};

}  // namespace Bench
