#include <benchmark/benchmark.h>
#include <unistd.h>

#include <cstdint>
#include <filesystem>
#include <string>

#include "Blipline/RingTrace.h"
#include "Goals.h"

#ifdef BASTIL_BENCH_LTTNG
#define LTTNG_UST_TRACEPOINT_DEFINE
#include "Blipline/RingTraceProvider.h"
#endif

// A record of three numbers through the whole of a site: the process's handle, the file, the test
// for the description, the ring. Beside it the reading of the clock that it holds, and the peer's
// tracepoint with the same numbers.

namespace {

/// A ring trace in a directory of its own, set as the process's for one benchmark.
class ProcessRing {
 public:
  explicit ProcessRing(bool multiThreaded)
      : directory_("/dev/shm/bastil-bench-" + std::to_string(::getpid())),
        made_(std::filesystem::create_directory(directory_)),
        handle_({directory_, "bench", std::size_t{1} << 20, multiThreaded}) {
    Blipline::defaultBliplineHandle = &handle_;
  }
  ProcessRing(const ProcessRing&) = delete;
  ProcessRing& operator=(const ProcessRing&) = delete;
  ~ProcessRing() {
    Blipline::defaultBliplineHandle = nullptr;
    std::filesystem::remove_all(directory_);
  }

 private:
  std::string directory_;
  bool made_;
  Blipline::TraceHandle handle_;
};

void ringClock(benchmark::State& state) {
  Blipline::RingClock::base();
  for (auto _ : state) benchmark::DoNotOptimize(Blipline::RingClock::tick());
}
BENCHMARK(ringClock);

void threeNumbers(benchmark::State& state) {
  int count = 0;
  std::uint16_t unitId = 3;
  std::uint64_t version = 7;
  for (auto _ : state) {
    benchmark::DoNotOptimize(count);
    benchmark::DoNotOptimize(unitId);
    benchmark::DoNotOptimize(version);
    BLIPLINE_TRACE("RingTraceBench", "count {}, unitId: {}, version {}", count, unitId, version);
  }
}

void ringRecord(benchmark::State& state) {
  const ProcessRing ring(false);
  threeNumbers(state);
}
BENCHMARK(ringRecord);

void ringRecordMultiThreaded(benchmark::State& state) {
  const ProcessRing ring(true);
  threeNumbers(state);
}
BENCHMARK(ringRecordMultiThreaded);

void ringNoHandle(benchmark::State& state) { threeNumbers(state); }
BENCHMARK(ringNoHandle);

const Bench::Goal kClock("ring record of 3 numbers / clock read in it", "ringRecord", "ringClock",
                         1.3);
const Bench::Goal kClockMt("the same, a file for each thread", "ringRecordMultiThreaded",
                           "ringClock", 1.3);

#ifdef BASTIL_BENCH_LTTNG

/// Measures only what records: without a session that has the event on, a tracepoint is a test of
/// one flag and says nothing. The session is made by whoever runs the benchmark:
///
///     lttng create bench --snapshot && lttng enable-event -u 'bastil_bench:*' && lttng start
void ringRecordLttng(benchmark::State& state) {
  if (!lttng_ust_tracepoint_enabled(bastil_bench, three_numbers)) {
    state.SkipWithError("no LTTng session has bastil_bench:three_numbers on");
    return;
  }
  int count = 0;
  std::uint16_t unitId = 3;
  std::uint64_t version = 7;
  for (auto _ : state) {
    benchmark::DoNotOptimize(count);
    benchmark::DoNotOptimize(unitId);
    benchmark::DoNotOptimize(version);
    lttng_ust_tracepoint(bastil_bench, three_numbers, count, unitId, version);
  }
}
BENCHMARK(ringRecordLttng);

const Bench::Goal kPeer("ring record of 3 numbers / LTTng-UST", "ringRecord", "ringRecordLttng",
                        1.0 / 8);

#endif

}  // namespace
