// What the library's own trace sites cost while they are off: a table's cycle by the library's
// objects, and by objects of the same sources whose sites have no code. Both stand in programs of
// their own, which have the same symbols.
#include <benchmark/benchmark.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstdint>

#include "Goals.h"
#include "OrderedTable/Must.h"

namespace {

/// A running program of bench/TableCycle.
class CycleProgram {
 public:
  explicit CycleProgram(const char* path) {
    std::array<int, 2> in;
    std::array<int, 2> out;
    Bench::must(::pipe(in.data()) == 0 && ::pipe(out.data()) == 0, "pipe");
    process_ = ::fork();
    Bench::must(process_ >= 0, "fork");
    if (process_ == 0) {
      ::dup2(in[0], STDIN_FILENO);
      ::dup2(out[1], STDOUT_FILENO);
      for (const int end : {in[0], in[1], out[0], out[1]}) ::close(end);
      ::execl(path, path, nullptr);
      ::_exit(1);
    }
    ::close(in[0]);
    ::close(out[1]);
    requests_ = in[1];
    answers_ = out[0];
  }
  ~CycleProgram() {
    ::close(requests_);
    ::close(answers_);
    ::waitpid(process_, nullptr, 0);
  }
  CycleProgram(const CycleProgram&) = delete;
  CycleProgram& operator=(const CycleProgram&) = delete;

  double seconds(std::uint64_t batches) {
    std::uint64_t nanoseconds = 0;
    Bench::must(::write(requests_, &batches, sizeof batches) == sizeof batches &&
                    ::read(answers_, &nanoseconds, sizeof nanoseconds) == sizeof nanoseconds,
                "the program of the cycle");
    return static_cast<double>(nanoseconds) * 1e-9;
  }

 private:
  pid_t process_;
  int requests_;
  int answers_;
};

/// A turn is as many batches as vanish beside the two system calls.
void cycle(benchmark::State& state, const char* path) {
  constexpr std::uint64_t kBatches = 20;
  CycleProgram program(path);
  program.seconds(kBatches);
  for (auto _ : state) state.SetIterationTime(program.seconds(kBatches));
}
void tableCycleTracesOff(benchmark::State& state) { cycle(state, BASTIL_TABLE_CYCLE); }
void tableCycleNoTraces(benchmark::State& state) { cycle(state, BASTIL_TABLE_CYCLE_UNTRACED); }
BENCHMARK(tableCycleTracesOff)->UseManualTime();
BENCHMARK(tableCycleNoTraces)->UseManualTime();
const Bench::Goal kTracesOff("trace: a table's cycle with all sites off / without any site",
                             "tableCycleTracesOff", "tableCycleNoTraces", 1.05);

}  // namespace
