#include <benchmark/benchmark.h>

#include "Goals.h"
#include "OrderedTable/TableFixture.h"
#ifdef BASTIL_BENCH_HIREDIS
#include "OrderedTable/RedisPeer.h"
#endif

namespace {

using namespace Bench;

/// The state left by a killed agent: entries of one unit, and unacknowledged log records.
class Estate {
 public:
  Estate(Word keys, Word records) {
    Support::AgentRig agent(scratch_.path());
    Support::TableRig<TcamFamily> rig(agent);
    const auto table = rig.table(0);
    const TcamEntry entry;
    for (Word i = 0; i < std::max(keys, records); ++i) {
      table->entryWrite(tcamKey(i % keys), entry, nullptr);
      if (i % kBatch == 0) agent.pumpAll();
    }
    agent.pumpAll();
  }
  const std::string& path() const { return scratch_.path(); }

 private:
  ScratchDirectory scratch_;
};

/// From an agent's first call to the first write accepted by a table.
void bringUp(benchmark::State& state) {
  const Estate estate(static_cast<Word>(state.range(0)), static_cast<Word>(state.range(1)));
  const auto acknowledged = static_cast<std::uint64_t>(state.range(2));
  Word written = 0;
  for (auto _ : state) {
    Support::AgentRig agent(estate.path());
    Support::TableRig<TcamFamily> rig(agent);
    const Word before = rig.log()->tableVersion().value();
    const auto table = rig.table(0, acknowledged);
    table->tableStatusVersion(Asic::LogVersion(acknowledged));
    written += rig.log()->tableVersion().value() - before;
    table->entryWrite(tcamKey(1), TcamEntry(), nullptr);
    state.PauseTiming();
    table->stats();
    state.ResumeTiming();
  }
  state.counters["log records written"] = static_cast<double>(written);
}
BENCHMARK(bringUp)
    ->ArgNames({"keys", "log", "acknowledged"})
    ->Args({65'536, 999'000, 0})
    ->Args({65'536, 999'000, 1})
    ->Args({65'536, 500'000, 0})
    ->Args({32'768, 999'000, 0})
    ->Unit(benchmark::kMicrosecond);
const Goal kBringUp("bring-up with 65,536 entries and 999,000 log records / touching the headers",
                    "bringUp/keys:65536/log:999000/acknowledged:0", "touchHeaders", 3.0);
const Goal kPurge(
    "the same with something acknowledged, which asks every entry / touching the headers",
    "bringUp/keys:65536/log:999000/acknowledged:1", "touchHeaders", 3.0);
const Goal kTwiceTheLog("bring-up with twice the log",
                        "bringUp/keys:65536/log:999000/acknowledged:0",
                        "bringUp/keys:65536/log:500000/acknowledged:0", 2.2);
const Goal kTwiceTheEntries("bring-up with twice the entries",
                            "bringUp/keys:65536/log:999000/acknowledged:0",
                            "bringUp/keys:32768/log:999000/acknowledged:0", 2.2);

#ifdef BASTIL_BENCH_HIREDIS
/// The same data in Redis, saved and loaded.
void bringUpRedis(benchmark::State& state) {
  const ScratchDirectory scratch;
  RedisStore store(scratch.path());
  store.start();
  for (const Word key : shuffledKeys()) store.operation(key, key + 1);
  for (Word version = kConfigRecords; version < kLogRecords; ++version) store.logged(version + 1);
  store.end();
  store.save();
  for (auto _ : state) {
    state.PauseTiming();
    store.stop();
    state.ResumeTiming();
    store.start();
  }
}
BENCHMARK(bringUpRedis)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(2);
const Goal kRedisRestart("bring-up / Redis restarted with the same data",
                         "bringUp/keys:65536/log:999000/acknowledged:0", "bringUpRedis", 0.01);
#endif

}  // namespace
