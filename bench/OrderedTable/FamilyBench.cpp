// All families: each compared with the floor of its own records, all on one pump, and all brought
// up together.
#include <benchmark/benchmark.h>

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "Goals.h"
#include "OrderedTable/TableFixture.h"
#include "QuarnBastil/Families.h"
#include "Support/FamilyMemory.h"

namespace {

using namespace Bench;

/// An agent, and the hardware's side of its groups.
class Served {
 public:
  explicit Served(std::string path) : path_(std::move(path)), agent_(path_) {}

  Support::AgentRig& agent() { return agent_; }
  Support::ReporterRig& reporter(const Fenrik::String& canonicalGroup) {
    const auto [at, isNew] = reporters_.try_emplace(std::string(canonicalGroup.view()));
    if (isNew) at->second = std::make_unique<Support::ReporterRig>(path_, canonicalGroup);
    return *at->second;
  }

 private:
  std::string path_;
  Support::AgentRig agent_;
  std::map<std::string, std::unique_ptr<Support::ReporterRig>> reporters_;
};

/// Operations common to all families.
class AnyFamily {
 public:
  virtual ~AnyFamily() = default;
  /// Writes a random key in the next unit.
  virtual void write() = 0;
  /// Makes the hardware's next report.
  virtual void report() = 0;
};

/// The tables of a family, one per unit.
template <class Family>
class FamilyTables final : public AnyFamily {
 public:
  FamilyTables(Served& served, unsigned units, Word keys, Word lag)
      : rig_(served.agent()),
        agent_(served.agent()),
        reporter_(served.reporter(Family::Constants::canonicalGroupName())),
        random_(keys),
        lag_(lag) {
    for (unsigned unit = 0; unit < units; ++unit) units_.push_back(rig_.table(unit));
  }

  /// Writes every key once in every unit, and continues until the log has its final length.
  void fill(Word keys) {
    for (Word i = 0; i < std::max(keys, lag_) + kBatch; ++i) {
      for (const auto& table : units_) write(*table, i % keys);
      if (i % kBatch != 0) continue;
      agent_.pumpAll();
      report();
    }
    agent_.pumpAll();
    report();
    agent_.pumpAll();
  }

  void write() override { write(*units_[writes_ % units_.size()], random_.next()); }
  void report() override {
    const Word issued = rig_.log()->tableVersion().value();
    if (issued > lag_) reporter_.report(Family::kTableId, issued - lag_);
  }

 private:
  void write(typename Family::SwTable& table, Word number) {
    const auto entry = Support::entryOf<Family>(static_cast<Support::Key>(number),
                                                static_cast<Support::Value>(++writes_));
    table.entryWriteWithResponseHandler(entry.key, entry, nullptr, handler_);
  }

  Support::TableRig<Family> rig_;
  Support::AgentRig& agent_;
  Support::ReporterRig& reporter_;
  std::vector<Fenrik::Ptr<typename Family::SwTable>> units_;
  RandomKeys random_;
  Word lag_;
  Word writes_ = 0;
  Asic::ResponseHandler handler_ = [](const auto&) {};
};

template <class Family>
void familyFloor(benchmark::State& state) {
  Floor<sizeof(typename Family::ConfigDriftEntry)> floor;
  for (auto _ : state) {
    for (unsigned i = 0; i < kBatch; ++i) floor.operation();
  }
}

/// Complete cycles of writes, with the hardware lagging a tenth of the log behind.
template <class Family>
void familyCycle(benchmark::State& state) {
  const ScratchDirectory scratch;
  Served served(scratch.path());
  FamilyTables<Family> family(served, 1, kConfigRecords, kLogRecords / 10);
  family.fill(kConfigRecords);
  Asic::OrderedTableInterface& agent = served.agent().tables();
  for (auto _ : state) {
    for (unsigned i = 0; i < kBatch; ++i) family.write();
    agent.pump(kBatch);
    family.report();
    agent.pump(kBatch);
  }
}

/// Records below 150 bytes get a higher limit, because the fixed cost weighs more.
template <class Family>
Goal cycleGoal(const std::string& prefix) {
  constexpr bool kSmall = sizeof(typename Family::ConfigDriftEntry) < 150;
  return {"a cycle of " + prefix + " / its floor", "familyCycle<" + prefix + "Family>",
          "familyFloor<" + prefix + "Family>", kSmall ? 3.5 : 3.0};
}

using namespace QuarnBastil;
#define BENCH_FAMILY(Prefix)                       \
  BENCHMARK_TEMPLATE(familyFloor, Prefix##Family); \
  BENCHMARK_TEMPLATE(familyCycle, Prefix##Family); \
  const Goal k##Prefix##Cycle = cycleGoal<Prefix##Family>(#Prefix);
QUARNBASTIL_FAMILIES(BENCH_FAMILY)
#undef BENCH_FAMILY

template <class... Families>
struct All {
  static constexpr Word kCount = sizeof...(Families);

  /// Creates all families, each with its own agent, or all with one agent.
  static std::vector<std::unique_ptr<AnyFamily>> make(
      const std::vector<std::unique_ptr<Served>>& agents, unsigned units, Word keys, bool filled) {
    std::vector<std::unique_ptr<AnyFamily>> all;
    (add<Families>(all, *agents[all.size() % agents.size()], units, keys, filled), ...);
    return all;
  }

 private:
  template <class Family>
  static void add(std::vector<std::unique_ptr<AnyFamily>>& all, Served& served, unsigned units,
                  Word keys, bool filled) {
    auto family = std::make_unique<FamilyTables<Family>>(served, units, keys, 0);
    if (filled) family->fill(keys);
    all.push_back(std::move(family));
  }
};
using Nine = FamilyList<All>;

/// The same operations on the same number of entries: nine families of four units on one pump, or
/// nine families of one unit with a pump each.
void familiesCycle(benchmark::State& state) {
  const bool together = state.range(0) != 0;
  const unsigned units = together ? 4 : 1;
  const std::vector<ScratchDirectory> scratch(together ? 1 : Nine::kCount);
  std::vector<std::unique_ptr<Served>> agents;
  for (const auto& directory : scratch) {
    agents.push_back(std::make_unique<Served>(directory.path()));
  }
  const Word keys = kConfigRecords / (Nine::kCount * units);
  const auto families = Nine::make(agents, units, keys, true);
  const auto settle = [](Served& served) {
    served.agent().tables().pump(kBatch * static_cast<unsigned>(Nine::kCount));
  };
  for (auto _ : state) {
    if (together) {
      for (unsigned i = 0; i < kBatch; ++i) {
        for (const auto& family : families) family->write();
      }
      settle(*agents[0]);
      for (const auto& family : families) family->report();
      settle(*agents[0]);
      continue;
    }
    for (std::size_t at = 0; at < families.size(); ++at) {
      for (unsigned i = 0; i < kBatch; ++i) families[at]->write();
      settle(*agents[at]);
      families[at]->report();
      settle(*agents[at]);
    }
  }
}
BENCHMARK(familiesCycle)->ArgName("together")->Arg(0)->Arg(1);
const Goal kTogether("a cycle among nine families of four units / of a family alone",
                     "familiesCycle/together:1", "familiesCycle/together:0", 1.15);

/// From an agent's first call to the first write accepted by each table.
template <class Families>
void familiesBringUp(benchmark::State& state, unsigned units) {
  const ScratchDirectory scratch;
  const Word keys = kConfigRecords / (Families::kCount * units);
  const auto agents = [&] {
    std::vector<std::unique_ptr<Served>> one;
    one.push_back(std::make_unique<Served>(scratch.path()));
    return one;
  };
  Families::make(agents(), units, keys, true);
  for (auto _ : state) {
    const auto served = agents();
    const auto families = Families::make(served, units, keys, false);
    for (const auto& family : families) {
      for (unsigned unit = 0; unit < units; ++unit) family->write();
    }
  }
}
void familiesBringUpNine(benchmark::State& state) { familiesBringUp<Nine>(state, 4); }
void familiesBringUpOne(benchmark::State& state) { familiesBringUp<All<BigBbFamily>>(state, 1); }
BENCHMARK(familiesBringUpNine)->Unit(benchmark::kMicrosecond);
BENCHMARK(familiesBringUpOne)->Unit(benchmark::kMicrosecond);
const Goal kBringUp("bring-up of nine families of four units / of one with as many entries",
                    "familiesBringUpNine", "familiesBringUpOne", 1.3);

}  // namespace
