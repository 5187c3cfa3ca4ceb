#include "OrderedTable/TableFixture.h"

#include <benchmark/benchmark.h>

#include <chrono>

#include "Goals.h"

namespace {

using namespace Bench;

/// Duration of the stages of a cycle in nanoseconds, as counters per operation.
class Stages {
 public:
  explicit Stages(benchmark::State& state) : state_(state) {}
  ~Stages() {
    for (const auto& [name, total] : totals_) {
      state_.counters[name] =
          benchmark::Counter(std::chrono::duration<double, std::nano>(total).count() / kBatch,
                             benchmark::Counter::kAvgIterations);
    }
  }

  void begin() { last_ = std::chrono::steady_clock::now(); }
  void end(const char* name) {
    const auto now = std::chrono::steady_clock::now();
    totals_[name] += now - last_;
    last_ = now;
  }

 private:
  benchmark::State& state_;
  std::map<std::string, std::chrono::nanoseconds> totals_;
  std::chrono::steady_clock::time_point last_;
};

void tableFloor(benchmark::State& state) {
  Floor<kConfigRecord> floor;
  for (auto _ : state) {
    for (unsigned i = 0; i < kBatch; ++i) floor.operation();
  }
}
BENCHMARK(tableFloor);

/// The complete cycle of a write: queued, read back immediately, resolved and committed, reported,
/// its handler called.
void tableCycle(benchmark::State& state, bool random) {
  const auto lag = static_cast<Word>(state.range(1)) * (kLogRecords / 100);
  LoadedTable loaded(static_cast<Word>(state.range(0)), lag);
  std::array<TcamKey, kBatch> keys;
  auto& table = loaded.table();
  std::uint64_t called = 0;
  const Asic::ResponseHandler handler = [&called](const auto&) { ++called; };
  Stages stages(state);
  Word at = 0;
  for (auto _ : state) {
    for (unsigned i = 0; i < kBatch; ++i) {
      keys[i] = random ? loaded.randomKey() : loaded.key(at + i);
    }
    stages.begin();
    for (unsigned i = 0; i < kBatch; ++i) {
      loaded.entry().hopLimit = static_cast<std::uint8_t>(at + i);
      table.entryWriteWithResponseHandler(keys[i], loaded.entry(), nullptr, handler);
    }
    stages.end("1 write");
    for (const TcamKey& key : keys) benchmark::DoNotOptimize(table.entryHas(key));
    stages.end("2 overlay");
    loaded.agent().pump(kBatch);
    stages.end("3 commit");
    loaded.report();
    loaded.agent().pump(kBatch);
    stages.end("4 report");
    at += kBatch;
  }
  if (at > lag + kBatch && called + lag + 2 * kBatch < at)
    state.SkipWithError("handlers are missing");
}
void tableCycle(benchmark::State& state) { tableCycle(state, true); }
void tableCycleInOrder(benchmark::State& state) { tableCycle(state, false); }
BENCHMARK(tableCycle)
    ->ArgNames({"keys", "fill"})
    ->Args({65'536, 10})
    ->Args({1'000, 10})
    ->Args({65'536, 95});
BENCHMARK(tableCycleInOrder)->ArgNames({"keys", "fill"})->Args({65'536, 10});
const Goal kCycle("write, overlay, commit, report, handler / two records stored and a word",
                  "tableCycle/keys:65536/fill:10", "tableFloor", 3.0);
const Goal kCycleInOrder("the same with the keys in one order",
                         "tableCycleInOrder/keys:65536/fill:10", "tableFloor", 2.5);
const Goal kKeys("the same at 64 k keys / at 1 k keys", "tableCycle/keys:65536/fill:10",
                 "tableCycle/keys:1000/fill:10", 1.15);
const Goal kFill("the same with the log filled to 95 % / to 10 %", "tableCycle/keys:65536/fill:95",
                 "tableCycle/keys:65536/fill:10", 1.15);

/// Commits operations that were queued after a blocked head, once it is released.
void tableDrain(benchmark::State& state) {
  constexpr unsigned kQueued = 100'000;
  LoadedTable loaded(kConfigRecords, 0);
  auto& table = loaded.table();
  auto& resolver = loaded.rig().resolver();
  std::uint64_t idleLooks = 0;
  for (auto _ : state) {
    state.PauseTiming();
    // A handle that is never committed blocks the head until its state is set here.
    const auto gate = Fenrik::ptrIsImpl<TcamFamily::EntryHandle>(
        Asic::EntryVersion(Asic::MajorVersion(0), 0), tcamKey(0), &table);
    table.entryWrite(tcamKey(0), loaded.entry(), gate);
    for (unsigned i = 1; i < kQueued; ++i) table.entryWrite(loaded.key(i), loaded.entry(), nullptr);
    loaded.agent().pump(kBatch);
    const std::uint64_t before = resolver.looks();
    for (unsigned i = 0; i < 1000; ++i) loaded.agent().pump(kBatch);
    idleLooks += resolver.looks() - before;
    gate->entryStateIs(Asic::EntryState::entryDone);
    state.ResumeTiming();
    for (unsigned done = 0; done < kQueued;) done += loaded.agent().pump(kQueued).commits;
    state.PauseTiming();
    loaded.settle();
    state.ResumeTiming();
  }
  state.counters["looks in vain"] = static_cast<double>(idleLooks);
  state.SetItemsProcessed(state.iterations() * kQueued);
}
BENCHMARK(tableDrain)->Unit(benchmark::kMillisecond)->Iterations(5);

/// Commits as many operations of a queue that was never blocked.
void tableCommit(benchmark::State& state) {
  constexpr unsigned kQueued = 100'000;
  LoadedTable loaded(kConfigRecords, 0);
  for (auto _ : state) {
    state.PauseTiming();
    for (unsigned i = 0; i < kQueued; ++i) {
      loaded.table().entryWrite(loaded.key(i), loaded.entry(), nullptr);
    }
    state.ResumeTiming();
    for (unsigned done = 0; done < kQueued;) done += loaded.agent().pump(kQueued).commits;
    state.PauseTiming();
    loaded.settle();
    state.ResumeTiming();
  }
  state.SetItemsProcessed(state.iterations() * kQueued);
}
BENCHMARK(tableCommit)->Unit(benchmark::kMillisecond)->Iterations(5);
const Goal kDrain("100,000 commits behind a head that was held up / behind none", "tableDrain",
                  "tableCommit", 1.1);

/// A report that reaches every unit of the table, and that one operation of one unit awaits.
void tableReport(benchmark::State& state) {
  const ScratchDirectory scratch;
  Support::AgentRig agent(scratch.path());
  Support::TableRig<TcamFamily> rig(agent);
  Support::ReporterRig reporter(scratch.path(), TcamFamily::Constants::canonicalGroupName());
  for (unsigned unit = 0; unit < state.range(0); ++unit) rig.table(unit);
  const auto table = rig.table(0);
  TcamEntry entry;
  for (auto _ : state) {
    ++entry.hopLimit;
    table->entryWrite(tcamKey(0), entry, nullptr);
    agent.pumpAll();
    const auto before = std::chrono::steady_clock::now();
    reporter.report(TcamFamily::kTableId, rig.log()->tableVersion().value());
    agent.pumpAll();
    state.SetIterationTime(
        std::chrono::duration<double>(std::chrono::steady_clock::now() - before).count());
  }
}
BENCHMARK(tableReport)->ArgName("units")->Arg(1)->Arg(256)->UseManualTime();
const Goal kReport("a report to 256 units / to one", "tableReport/units:256", "tableReport/units:1",
                   1.15);

/// A pump that finds nothing to do in any of the groups.
void tableIdlePump(benchmark::State& state) {
  const ScratchDirectory scratch;
  Support::AgentRig agent(scratch.path());
  for (unsigned short group = 0; group < state.range(0); ++group) {
    agent.tables().makeGroupIntf("Bench", Fenrik::formatString("Group{}", group), group);
  }
  for (auto _ : state) benchmark::DoNotOptimize(agent.tables().pump(kBatch));
}
BENCHMARK(tableIdlePump)->ArgName("groups")->Arg(1)->Arg(64);
const Goal kIdlePump("an idle pump of 64 groups / of one", "tableIdlePump/groups:64",
                     "tableIdlePump/groups:1", 4.0);

/// Reads back the newest write while it is in flight.
void tableReadInFlight(benchmark::State& state) {
  LoadedTable loaded(kConfigRecords, 0);
  for (Word i = 0; i < 1000; ++i) {
    loaded.table().entryWrite(loaded.key(i), loaded.entry(), nullptr);
  }
  Word at = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(loaded.table().entryHas(loaded.key(at++ % 1000)));
  }
}
BENCHMARK(tableReadInFlight);

void tableTwoMapFinds(benchmark::State& state) {
  LoadedTable loaded(kConfigRecords, 0);
  for (Word i = 0; i < 1000; ++i) {
    loaded.table().entryWrite(loaded.key(i), loaded.entry(), nullptr);
  }
  Word at = 0;
  for (auto _ : state) {
    const TcamKey key = loaded.key(at++ % 1000);
    benchmark::DoNotOptimize(loaded.table().transientAddEntryHas(key));
    benchmark::DoNotOptimize(loaded.table().transientAddEntryHas(key));
  }
}
BENCHMARK(tableTwoMapFinds);
const Goal kOverlay("overlay read in flight / two finds in a map", "tableReadInFlight",
                    "tableTwoMapFinds", 1.0);

void tableReadConfigured(benchmark::State& state) {
  LoadedTable loaded(kConfigRecords, 0);
  Word at = 0;
  for (auto _ : state) benchmark::DoNotOptimize(loaded.table().entryRead(loaded.key(at++)));
}
BENCHMARK(tableReadConfigured);

void tableReadCollection(benchmark::State& state) {
  LoadedTable loaded(kConfigRecords, 0);
  const auto map = loaded.rig().log()->tableConfigDrift(Asic::UnitId(0))->map();
  Word at = 0;
  for (auto _ : state) {
    bool found = false;
    const TcamFamily::ConfigDriftEntry record = map->driftMapFind(loaded.key(at++), found);
    benchmark::DoNotOptimize(&record);
  }
}
BENCHMARK(tableReadCollection);
const Goal kConfigured("read of a configured key / the collection's read", "tableReadConfigured",
                       "tableReadCollection", 1.3);

void tableIterate(benchmark::State& state) {
  LoadedTable loaded(kConfigRecords, 0);
  for (auto _ : state) {
    Word count = 0;
    for (auto it = loaded.table().entryIteratorConst(); it; ++it) count += it->slices;
    if (count != kConfigRecords) state.SkipWithError("an entry was lost");
  }
}
BENCHMARK(tableIterate)->Unit(benchmark::kMillisecond);

void tableWalkCollection(benchmark::State& state) {
  LoadedTable loaded(kConfigRecords, 0);
  const auto map = loaded.rig().log()->tableConfigDrift(Asic::UnitId(0))->map();
  for (auto _ : state) {
    std::remove_reference_t<decltype(*map)>::Cursor cursor;
    Word count = 0;
    for (bool more = map->driftMapIterBegin(cursor); more;
         more = map->driftMapIterNext(cursor.record.logEntry.key, cursor)) {
      count += cursor.record.logEntry.slices;
    }
    if (count != kConfigRecords) state.SkipWithError("a record was lost");
  }
}
BENCHMARK(tableWalkCollection)->Unit(benchmark::kMillisecond);
const Goal kIterate("iteration of 65,536 entries / walk of the collection, both with copies",
                    "tableIterate", "tableWalkCollection", 2.0);

}  // namespace
