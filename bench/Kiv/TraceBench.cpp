#include <benchmark/benchmark.h>

#include "Goals.h"
#include "Kiv/Trace.h"
#include "Kiv/TraceControl.h"

#ifdef BASTIL_BENCH_SPDLOG
#include <spdlog/sinks/null_sink.h>
#include <spdlog/spdlog.h>
#endif

// A site as table code has it, with its level off, beside a logger of the peer whose level is off
// at run time. Both are handed one number. The empty loop is what both loops hold beside the site.

namespace {

const Kiv::TraceHandle& _defaultTraceHandle() {
  static const Kiv::TraceHandle handle("TraceBench", false);
  return handle;
}

void traceEmptyLoop(benchmark::State& state) {
  unsigned key = 0;
  for (auto _ : state) benchmark::DoNotOptimize(key);
}
BENCHMARK(traceEmptyLoop);

void traceDisabled(benchmark::State& state) {
  unsigned key = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(key);
    KIV_TRACE(_defaultTraceHandle(), 8, "", "key: {}", key);
  }
}
BENCHMARK(traceDisabled);

/// One formatted line for a callback, without the system's write.
void traceEnabled(benchmark::State& state) {
  static const Kiv::TraceHandle handle("TraceBenchEnabled", true);
  std::size_t bytes = 0;
  Kiv::TraceControl::sinkIs(
      [&bytes](const Kiv::TraceLine& line) { bytes += line.rendered.size(); });
  unsigned key = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(key);
    KIV_TRACE(handle, 8, "", "key: {}", key);
  }
  Kiv::TraceControl::sinkDel();
  benchmark::DoNotOptimize(bytes);
}
BENCHMARK(traceEnabled);

#ifdef BASTIL_BENCH_SPDLOG

void traceDisabledSpdlog(benchmark::State& state) {
  spdlog::logger logger("TraceBench", std::make_shared<spdlog::sinks::null_sink_mt>());
  logger.set_level(spdlog::level::info);
  unsigned key = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(key);
    logger.debug("key: {}", key);
  }
}
BENCHMARK(traceDisabledSpdlog);

const Bench::Goal kDisabled("trace: disabled site above an empty loop / spdlog", "traceDisabled",
                            "traceDisabledSpdlog", 1.0 / 30, "traceEmptyLoop");

#endif

}  // namespace
