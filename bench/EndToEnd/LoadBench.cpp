// Loads a file of rules with the programs as shipped.
#include <benchmark/benchmark.h>
#include <fmt/format.h>

#include <csignal>
#include <cstdio>
#include <fstream>
#include <string>

#include "Drift/Fixture.h"
#include "policy/Generate.h"
#include "policy/RuleFile.h"

namespace {

using namespace Bench;

/// Output of a program, line by line. The destructor terminates the program.
class Program {
 public:
  explicit Program(const std::string& command)
      : pipe_(::popen(("echo $$; exec " + command).c_str(), "r")) {
    pid_ = std::atoi(line().c_str());
  }
  ~Program() {
    ::kill(pid_, SIGTERM);
    ::pclose(pipe_);
  }
  Program(const Program&) = delete;
  Program& operator=(const Program&) = delete;

  /// The next line; empty at the end.
  std::string line() {
    char text[512] = "";
    return std::fgets(text, sizeof text, pipe_) == nullptr ? "" : text;
  }

 private:
  std::FILE* pipe_;
  pid_t pid_ = 0;
};

/// Measured by the agent: from the start of reading to the hardware's last acknowledgement.
void loadTenThousandRules(benchmark::State& state) {
  const ScratchDirectory scratch;
  const std::string rules = scratch.path() + "/rules";
  {
    std::ofstream file(rules);
    for (const Policy::Rule& rule : Policy::generate({.rules = 10'000, .networks = 400})) {
      file << Policy::lineOf(rule) << '\n';
    }
  }
  double rows = 0;
  unsigned number = 0;
  for (auto _ : state) {
    const std::string directory = fmt::format("{}/{}", scratch.path(), number++);
    Program writer(fmt::format("{} --batch 1024 --dir {}", BASTIL_HWWRITER, directory));
    Program agent(fmt::format("{} --dir {} {}", BASTIL_AGENT, directory, rules));
    unsigned written = 0;
    double milliseconds = 0;
    for (std::string line = agent.line(); !line.empty(); line = agent.line()) {
      const auto at = line.find("; ");
      if (line.starts_with("programmed") && at != std::string::npos) {
        std::sscanf(line.c_str() + at, "; %u rows", &written);
      }
      if (std::sscanf(line.c_str(), "acknowledged: the hardware has everything, %lf",
                      &milliseconds) == 1)
        break;
    }
    if (written == 0 || milliseconds == 0) return state.SkipWithError("nothing was loaded");
    rows += written;
    state.SetIterationTime(milliseconds / 1000);
  }
  state.counters["rows"] = benchmark::Counter(rows, benchmark::Counter::kAvgIterations);
  state.SetItemsProcessed(static_cast<std::int64_t>(rows));
}
BENCHMARK(loadTenThousandRules)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(5);

}  // namespace
