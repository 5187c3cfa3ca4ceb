// What an entry that follows a resource costs over one that does not, and what a change of its
// resource costs over the updates of its users.
#include <benchmark/benchmark.h>

#include <memory>
#include <string>
#include <vector>

#include "Goals.h"
#include "OrderedTable/TableFixture.h"
#include "OrderedTable/TwinFamily.h"
#include "QuarnBastil/TcamAction.h"
#include "Support/FamilyMemory.h"

namespace {

using namespace Bench;
using Action = QuarnBastil::TcamActionFamily;
using Plain = Twin::TwinFamily;
using Linkage = Action::ResourceLinkage;
using RequestId = Linkage::ResourceKey;

constexpr Word kResources = 1024;

/// 65,536 entries of one table, and resources that they may use.
template <class Family>
class Rows {
 public:
  explicit Rows(const std::string& path)
      : agent_(path), reporter_(path, Family::Constants::canonicalGroupName()), rig_(agent_) {}

  /// Gives every resource a destination, before the table is made.
  void resourcesAre(Word count) {
    for (Word id = 1; id <= count; ++id) give(id);
  }
  /// The resource's next destination.
  void give(Word id) { agent_.resources().valueIs(RequestId(id), ++lastDestId_, nullptr); }
  void fail(Word id) { agent_.resources().failureIs(RequestId(id)); }

  void write(Word number, [[maybe_unused]] Word requestId) {
    auto entry = Support::entryOf<Family>(static_cast<Support::Key>(number),
                                          static_cast<Support::Value>(++writes_));
    if constexpr (!std::is_void_v<typename Family::ResourceLinkage>) {
      entry.requestId = RequestId(requestId);
    }
    table().entryWriteWithResponseHandler(entry.key, entry, nullptr, handler_);
  }
  /// Writes every key once; the entry of key n uses the resource `requestIdOf(n)`.
  template <class RequestIdOf>
  void fill(RequestIdOf&& requestIdOf) {
    for (Word n = 0; n < kConfigRecords; ++n) {
      write(n, requestIdOf(n));
      if (n % kBatch == 0) settle();
    }
    settle();
  }

  void pump() { agent_.tables().pump(kBatch); }
  void report() { reporter_.report(Family::kTableId, version()); }
  /// Everything is committed and in hardware.
  void settle() {
    agent_.pumpAll();
    report();
    agent_.pumpAll();
  }

  typename Family::SwTable& table() {
    if (table_ == nullptr) table_ = rig_.table(0, version());
    return *table_;
  }
  Support::AgentRig& agent() { return agent_; }
  Support::TableRig<Family>& rig() { return rig_; }
  Word version() const { return rig_.log()->tableVersion().value(); }
  Linkage& linkage() { return *table().requestIdToFecLinkage(); }
  Word acknowledged(Word id) {
    const auto users = agent_.resources().users(RequestId(id));
    return users.empty() ? 0 : users.front().updateNumber;
  }

 private:
  Support::AgentRig agent_;
  Support::ReporterRig reporter_;
  Support::TableRig<Family> rig_;
  Fenrik::Ptr<typename Family::SwTable> table_;
  Asic::ResponseHandler handler_ = [](const auto&) {};
  Word writes_ = 0;
  unsigned lastDestId_ = 0;
};

Word none(Word) { return 0; }
Word shared(Word number) { return 1 + number % kResources; }

/// Complete cycles of writes of random keys; `requestIdOf` gives the resource of each.
template <class Family, class RequestIdOf>
void cycle(benchmark::State& state, RequestIdOf&& requestIdOf) {
  const ScratchDirectory scratch;
  Rows<Family> rows(scratch.path());
  rows.resourcesAre(kResources);
  rows.fill(requestIdOf);
  RandomKeys keys;
  for (auto _ : state) {
    for (unsigned i = 0; i < kBatch; ++i) {
      const Word key = keys.next();
      rows.write(key, requestIdOf(key));
    }
    rows.pump();
    rows.report();
    rows.pump();
  }
}
void cycleOfPlainFamily(benchmark::State& state) { cycle<Plain>(state, none); }
void cycleWithoutResource(benchmark::State& state) { cycle<Action>(state, none); }
void cycleWithResource(benchmark::State& state) { cycle<Action>(state, shared); }
/// Each write takes another resource than the one before it.
void cycleWithOtherResource(benchmark::State& state) {
  cycle<Action>(state, [turn = Word{0}](Word) mutable { return 1 + turn++ % kResources; });
}
BENCHMARK(cycleOfPlainFamily);
BENCHMARK(cycleWithoutResource);
BENCHMARK(cycleWithResource);
BENCHMARK(cycleWithOtherResource);
const Goal kWith("a cycle of an entry with a resource / with request id 0", "cycleWithResource",
                 "cycleWithoutResource", 1.25);
const Goal kWithout("a cycle with request id 0 / of a family without resources",
                    "cycleWithoutResource", "cycleOfPlainFamily", 1.05);

enum class Users : std::uint8_t { all, one };
enum class Differs : bool { no, yes };

/// A change of one resource that all entries use, or of each of 100 resources with one user among
/// 4,096; counted by the user.
void change(benchmark::State& state, Users users, Differs differs) {
  const ScratchDirectory scratch;
  Rows<Action> rows(scratch.path());
  const Word changes = users == Users::all ? 1 : kBatch;
  rows.resourcesAre(4096);
  rows.fill([&](Word n) {
    if (users == Users::all) return Word{1};
    return n < kBatch ? n + 1 : kBatch + 1 + n % (4096 - kBatch);
  });
  const Word usersEach = users == Users::all ? kConfigRecords : 1;
  Word rounds = 0, records = 0, acks = 0;
  for (auto _ : state) {
    state.PauseTiming();
    // The same destination again, once the resource has failed: nothing differs.
    for (Word id = 1; id <= changes && differs == Differs::no; ++id) rows.fail(id);
    rows.settle();
    const Word before = rows.version(), acknowledged = rows.acknowledged(1);
    const unsigned destId = rows.agent().resources().destId(RequestId(1));
    state.ResumeTiming();
    for (Word id = 1; id <= changes; ++id) {
      if (differs == Differs::yes) {
        rows.give(id);
      } else {
        rows.agent().resources().valueIs(RequestId(id), destId + static_cast<unsigned>(id) - 1,
                                         nullptr);
      }
    }
    state.PauseTiming();
    ++rounds;
    records += rows.version() - before;
    acks += rows.acknowledged(1) - acknowledged;
    state.ResumeTiming();
  }
  state.counters["records of a change"] =
      static_cast<double>(records) / static_cast<double>(rounds * changes);
  state.counters["updates acknowledged"] = static_cast<double>(acks) / static_cast<double>(rounds);
  state.SetItemsProcessed(static_cast<std::int64_t>(rounds * changes * usersEach));
}
void changeOfAll(benchmark::State& state) { change(state, Users::all, Differs::yes); }
void changeOfAllToTheSame(benchmark::State& state) { change(state, Users::all, Differs::no); }
void changeOfOne(benchmark::State& state) { change(state, Users::one, Differs::yes); }

/// `updateEntry` called in a loop by somebody to whom the resources' changes were not announced.
void updates(benchmark::State& state, Users users) {
  const ScratchDirectory scratch;
  Rows<Action> rows(scratch.path());
  const Word resources = users == Users::all ? 1 : 4096;
  const Word keys = users == Users::all ? kConfigRecords : kBatch;
  rows.resourcesAre(resources);
  rows.fill([&](Word n) { return 1 + n % resources; });
  for (auto it = rows.linkage().entryUsageSmIterator(); it; ++it) {
    it->value()->hasNotificationActiveIs(false);
  }
  for (auto _ : state) {
    state.PauseTiming();
    for (Word id = 1; id <= std::min(resources, keys); ++id) rows.give(id);
    rows.settle();
    const Word before = rows.version();
    state.ResumeTiming();
    for (Word n = 0; n < keys; ++n) {
      rows.table().updateEntry(Support::Numbers<Action>::key(static_cast<Support::Key>(n)));
    }
    if (rows.version() - before != keys) state.SkipWithError("an entry was not logged");
  }
}
void updatesOfAll(benchmark::State& state) { updates(state, Users::all); }
void updatesOfOne(benchmark::State& state) { updates(state, Users::one); }
BENCHMARK(changeOfAll)->Unit(benchmark::kMillisecond);
BENCHMARK(changeOfAllToTheSame)->Unit(benchmark::kMillisecond);
BENCHMARK(changeOfOne)->Unit(benchmark::kMicrosecond);
BENCHMARK(updatesOfAll)->Unit(benchmark::kMillisecond);
BENCHMARK(updatesOfOne)->Unit(benchmark::kMicrosecond);
const Goal kAll("a change of one resource with 65,536 users / that many updates", "changeOfAll",
                "updatesOfAll", 1.1);
const Goal kSame("a change of which nothing follows / one that logs 65,536 records",
                 "changeOfAllToTheSame", "changeOfAll", 0.5);
const Goal kOne("a change of a resource with one user among 4,096 resources / one update",
                "changeOfOne", "updatesOfOne", 2.0);

/// A remove-all of all entries, with the releases of their resources.
template <class Family>
void clear(benchmark::State& state, Word (*requestIdOf)(Word)) {
  const ScratchDirectory scratch;
  Rows<Family> rows(scratch.path());
  rows.resourcesAre(kResources);
  for (auto _ : state) {
    state.PauseTiming();
    rows.fill(requestIdOf);
    state.ResumeTiming();
    rows.table().entryRemoveAll(nullptr);
    rows.pump();
  }
  if constexpr (!std::is_void_v<typename Family::ResourceLinkage>) {
    state.counters["resources still in use"] = rows.linkage().entryUsageSmCount();
  }
}
void removeAllOfPlainFamily(benchmark::State& state) { clear<Plain>(state, none); }
void removeAllWithResources(benchmark::State& state) { clear<Action>(state, shared); }
BENCHMARK(removeAllOfPlainFamily)->Unit(benchmark::kMicrosecond)->Iterations(5);
BENCHMARK(removeAllWithResources)->Unit(benchmark::kMicrosecond)->Iterations(5);
const Goal kClear("a remove-all of 65,536 entries on 1,024 resources / without resources",
                  "removeAllWithResources", "removeAllOfPlainFamily", 2.0);

/// A new agent, up to the first write that its table accepts.
template <class Family>
void restart(benchmark::State& state, Word (*requestIdOf)(Word)) {
  const ScratchDirectory scratch;
  {
    Rows<Family> rows(scratch.path());
    rows.resourcesAre(kResources);
    rows.fill(requestIdOf);
  }
  Word written = 0, acknowledged = 0;
  for (auto _ : state) {
    auto rows = std::make_unique<Rows<Family>>(scratch.path());
    const Word before = rows->version();
    rows->table();
    written += rows->version() - before;
    rows->write(1, requestIdOf(1));
    state.PauseTiming();
    if constexpr (!std::is_void_v<typename Family::ResourceLinkage>) {
      acknowledged = 0;
      for (Word id = 1; id <= kResources; ++id) acknowledged += rows->acknowledged(id) == 1;
    }
    rows.reset();
    state.ResumeTiming();
  }
  state.counters["log records written"] = static_cast<double>(written);
  state.counters["resources acknowledged"] = static_cast<double>(acknowledged);
}
void restartOfPlainFamily(benchmark::State& state) { restart<Plain>(state, none); }
void restartWithResources(benchmark::State& state) { restart<Action>(state, shared); }
BENCHMARK(restartOfPlainFamily)->Unit(benchmark::kMicrosecond);
BENCHMARK(restartWithResources)->Unit(benchmark::kMicrosecond);
const Goal kRestart("bring-up with 65,536 entries on 1,024 resources / without resources",
                    "restartWithResources", "restartOfPlainFamily", 2.5);

/// 100,000 operations wait behind one that waits for its resource, while others change.
void changeWhileOthersWait(benchmark::State& state) {
  const ScratchDirectory scratch;
  Rows<Action> rows(scratch.path());
  rows.resourcesAre(kResources);
  rows.write(0, kResources + 1);
  for (Word n = 1; n <= 100'000; ++n) rows.write(n % kConfigRecords, 0);
  rows.pump();
  const Asic::GroupResolver& resolver = rows.rig().resolver();
  const auto looks = resolver.looks();
  for (auto _ : state) {
    for (Word id = 1; id <= kBatch; ++id) {
      rows.give(id);
      rows.pump();
    }
  }
  state.counters["looks at the head"] = static_cast<double>(resolver.looks() - looks);
  rows.give(kResources + 1);
  rows.agent().tables().pump(1);
  state.counters["looks for its own"] = static_cast<double>(resolver.looks() - looks);
}
BENCHMARK(changeWhileOthersWait)->Unit(benchmark::kMicrosecond);

}  // namespace
