// What an agent's loop costs that has little to do: pumps in vain, and reports.
#include <benchmark/benchmark.h>

#include <string>

#include "Goals.h"
#include "OrderedTable/TableFixture.h"

namespace {

using namespace Bench;

void idlePump(benchmark::State& state) {
  const ScratchDirectory scratch;
  Support::AgentRig agent(scratch.path());
  for (std::int64_t group = 0; group < state.range(0); ++group) {
    agent.tables().makeGroupIntf("agent", Fenrik::String("group" + std::to_string(group)),
                                 static_cast<std::uint16_t>(group + 1));
  }
  agent.pumpAll();
  for (auto _ : state) benchmark::DoNotOptimize(agent.tables().pump(kBatch).more);
}
BENCHMARK(idlePump)->ArgName("groups")->Arg(1)->Arg(64);
const Goal kIdle("an idle pump of 64 groups / of one", "idlePump/groups:64", "idlePump/groups:1",
                 4.0);

/// A report of one write, in a family with so many tables.
void report(benchmark::State& state) {
  const ScratchDirectory scratch;
  Support::AgentRig agent(scratch.path());
  Support::TableRig<TcamFamily> rig(agent);
  Support::ReporterRig reporter(scratch.path(), TcamFamily::Constants::canonicalGroupName());
  for (std::int64_t unit = 0; unit < state.range(0); ++unit) {
    rig.table(static_cast<unsigned>(unit));
  }
  const TcamEntry entry = wholeEntry();
  for (auto _ : state) {
    state.PauseTiming();
    for (unsigned i = 0; i < kBatch; ++i) rig.table(0)->entryWrite(tcamKey(i), entry, nullptr);
    agent.pumpAll();
    const Word issued = rig.log()->tableVersion().value();
    state.ResumeTiming();
    for (unsigned i = kBatch; i-- > 0;) {
      reporter.report(TcamFamily::kTableId, issued - i);
      agent.tables().pump(kBatch);
    }
  }
}
BENCHMARK(report)->ArgName("units")->Arg(1)->Arg(256);
const Goal kReport("a report to a family of 256 units / of one", "report/units:256",
                   "report/units:1", 1.15);

}  // namespace
