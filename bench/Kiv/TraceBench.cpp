#include <benchmark/benchmark.h>

#include <utility>

#include "Goals.h"
#include "Kiv/Trace.h"
#include "Kiv/TraceControl.h"

#ifdef BASTIL_BENCH_SPDLOG
#include <spdlog/sinks/null_sink.h>
#include <spdlog/spdlog.h>
#endif

// Disabled trace sites as in table code, compared with a logger of the peer whose level is off at
// run time. All get one number. The empty loop is the common part of both loops. Each turn has
// sixteen sites: a single one takes about a cycle, less than the effect of a loop's alignment.

namespace {

KIV_TRACE_ACCESSOR const Kiv::TraceHandle& _defaultTraceHandle() {
  static constinit const Kiv::TraceHandle handle(Kiv::kConstantHandle, "TraceBench");
  return handle;
}

template <class Site>
[[gnu::always_inline]] inline void sixteenSites(benchmark::State& state, Site site) {
  unsigned key = 0;
  const auto turn = [&]<int... number>(std::integer_sequence<int, number...>)
      __attribute__((always_inline)) {
    ((static_cast<void>(number), benchmark::DoNotOptimize(key), site(key)), ...);
  };
  for (auto _ : state) turn(std::make_integer_sequence<int, 16>());
}

void traceEmptyLoop(benchmark::State& state) {
  sixteenSites(state, [](unsigned) __attribute__((always_inline)){});
}
BENCHMARK(traceEmptyLoop);

void traceDisabled(benchmark::State& state) {
  sixteenSites(
      state, [](unsigned key) __attribute__((always_inline)) {
        // The function's name is of no matter here. NOLINTNEXTLINE(bugprone-lambda-function-name)
        KIV_TRACE(_defaultTraceHandle(), 8, "", "key: {}", key);
      });
}
BENCHMARK(traceDisabled);

/// Formats one line for a callback, without the system's write.
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
  sixteenSites(
      state, [&logger](unsigned key)
                 __attribute__((always_inline)) { logger.debug("key: {}", key); });
}
BENCHMARK(traceDisabledSpdlog);

const Bench::Goal kDisabled("trace: disabled sites above an empty loop / spdlog", "traceDisabled",
                            "traceDisabledSpdlog", 1.0 / 30, "traceEmptyLoop");

#endif

}  // namespace
