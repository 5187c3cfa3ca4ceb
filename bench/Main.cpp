#include <benchmark/benchmark.h>
#include <fmt/format.h>

#include <algorithm>
#include <map>
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
  std::string base;
};

std::vector<GoalFacts>& goals() {
  static std::vector<GoalFacts> all;
  return all;
}

/// Prints as usual and keeps the times of every run by name.
class KeepingReporter final : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& run : runs) {
      if (run.run_type != Run::RT_Iteration || run.error_occurred) continue;
      const std::string name =
          run.run_name.function_name + (run.run_name.args.empty() ? "" : "/" + run.run_name.args);
      times_[name].push_back(run.GetAdjustedRealTime());
    }
    ConsoleReporter::ReportRuns(runs);
  }

  /// The middle of the repetitions; 0 for a benchmark that did not run.
  double median(const std::string& name) const {
    const auto found = times_.find(name);
    if (found == times_.end()) return 0;
    std::vector<double> times = found->second;
    std::ranges::sort(times);
    return times[times.size() / 2];
  }

 private:
  std::map<std::string, std::vector<double>> times_;
};

void printGoals(const KeepingReporter& reporter) {
  bool head = false;
  for (const GoalFacts& goal : goals()) {
    double ours = reporter.median(goal.ours);
    double peer = reporter.median(goal.peer);
    const double base = goal.base.empty() ? 0 : reporter.median(goal.base);
    if (ours == 0 || peer == 0 || (!goal.base.empty() && base == 0)) continue;
    ours -= base;
    peer -= base;
    if (!std::exchange(head, true))
      fmt::print("\n{:<8}{:>8}{:>8}  {}\n", "goal", "limit", "ratio", "what");
    fmt::print("{:<8}{:>8.3f}{:>8.3f}  {}\n", ours / peer <= goal.limit ? "met" : "MISSED",
               goal.limit, ours / peer, goal.what);
  }
}

}  // namespace

Goal::Goal(std::string what, std::string ours, std::string peer, double limit, std::string base) {
  goals().push_back({std::move(what), std::move(ours), std::move(peer), limit, std::move(base)});
}

}  // namespace Bench

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 2;
  Bench::KeepingReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  Bench::printGoals(reporter);
  benchmark::Shutdown();
}
