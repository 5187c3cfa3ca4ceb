#include <benchmark/benchmark.h>
#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "Goals.h"

namespace Bench {
namespace {

struct GoalFacts {
  std::string what;
  std::string ours;
  std::string peer;
  double limit;
  std::string baseline;
};

std::vector<GoalFacts>& goals() {
  static std::vector<GoalFacts> all;
  return all;
}

/// Prints the median and the variation of each benchmark's repetitions, and keeps the times of all
/// runs by name.
class KeepingReporter final : public benchmark::ConsoleReporter {
 public:
  KeepingReporter() : ConsoleReporter(isatty(STDOUT_FILENO) == 1 ? OO_ColorTabular : OO_Tabular) {}

  void ReportRuns(const std::vector<Run>& runs) override {
    std::vector<Run> shown;
    for (const Run& run : runs) {
      if (run.run_type == Run::RT_Iteration) keep(run);
      if (run.repetitions == 1 || run.error_occurred || run.aggregate_name == "median" ||
          run.aggregate_name == "cv") {
        shown.push_back(run);
      }
    }
    ConsoleReporter::ReportRuns(shown);
  }

  /// The median of the repetitions, or nullopt if the benchmark did not run.
  std::optional<double> median(const std::string& name) const {
    const auto found = times_.find(name);
    if (found == times_.end()) return std::nullopt;
    std::vector<double> times = found->second;
    std::ranges::sort(times);
    const std::size_t middle = times.size() / 2;
    return times.size() % 2 == 1 ? times[middle] : (times[middle - 1] + times[middle]) / 2;
  }

 private:
  void keep(const Run& run) {
    if (run.error_occurred) return;
    const bool byProcessor = run.run_name.time_type.empty();
    // The sides of a ratio may use different time units.
    times_[nameOf(run)].push_back(
        (byProcessor ? run.GetAdjustedCPUTime() : run.GetAdjustedRealTime()) /
        benchmark::GetTimeUnitMultiplier(run.time_unit));
  }

  /// Function and arguments, without the mode of measurement.
  static std::string nameOf(const Run& run) {
    const auto& name = run.run_name;
    return name.args.empty() ? name.function_name : name.function_name + "/" + name.args;
  }

  std::map<std::string, std::vector<double>> times_;
};

void goalPrint(std::string_view result, const GoalFacts& goal, std::string_view ratio) {
  static bool headed = false;
  if (!std::exchange(headed, true))
    fmt::print("\n{:<8}{:>8}{:>8}  {}\n", "goal", "limit", "ratio", "what");
  fmt::print("{:<8}{:>8.3f}{:>8}  {}\n", result, goal.limit, ratio, goal.what);
}

/// Prints one goal. False if it was missed, or if its names are unknown. Prints nothing if the
/// filter excluded its benchmarks.
bool goalCheck(const KeepingReporter& reporter, const GoalFacts& goal, bool filtered) {
  const auto ours = reporter.median(goal.ours);
  const auto peer = reporter.median(goal.peer);
  const auto baseline = goal.baseline.empty() ? 0.0 : reporter.median(goal.baseline);
  if (!ours || !baseline) {
    if (!filtered) goalPrint("UNKNOWN", goal, "-");
    return filtered;
  }
  if (!peer) {
    if (!filtered) goalPrint("no peer", goal, "-");
    return true;
  }
  // A time below the baseline, caused by noise, counts as zero; the divisor is at least a
  // picosecond.
  const double ratio = std::max(*ours - *baseline, 0.0) / std::max(*peer - *baseline, 1e-12);
  const bool met = ratio <= goal.limit;
  goalPrint(met ? "met" : "MISSED", goal, fmt::format("{:.3f}", ratio));
  return met;
}

/// Prints the table of goals. False if one was missed.
bool goalsCheck(const KeepingReporter& reporter, bool filtered) {
  bool allMet = true;
  for (const GoalFacts& goal : goals()) allMet &= goalCheck(reporter, goal, filtered);
  return allMet;
}

}  // namespace

Goal::Goal(std::string what, std::string ours, std::string peer, double limit,
           std::string baseline) {
  goals().push_back(
      {std::move(what), std::move(ours), std::move(peer), limit, std::move(baseline)});
}

}  // namespace Bench

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 2;
  Bench::KeepingReporter reporter;
  if (benchmark::RunSpecifiedBenchmarks(&reporter) == 0) return 2;
  const std::string filter = benchmark::GetBenchmarkFilter();
  const bool met = Bench::goalsCheck(reporter, !filter.empty() && filter != "all");
  benchmark::Shutdown();
  return met ? 0 : 1;
}
