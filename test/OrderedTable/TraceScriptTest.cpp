#include <functional>
#include <optional>
#include <regex>

#include "Blipline/RingReader.h"
#include "Blipline/TraceHandle.h"
#include "OrderedTable/TableFixture.h"
#include "Support/Ear.h"
#include "Support/Golden.h"
#include "Support/Running.h"

namespace {

using QuarnBastil::TcamEntryFamily;

/// Everything that is traced while it lives, step by step: people read it with other tools than
/// these.
struct Script {
  ~Script() { Support::expectGolden(Support::goldenName(), lines); }

  /// What is traced while a step is done, and nothing from before it.
  void step(const std::string& name, const std::function<void()>& act) {
    // A needed set is traced as the address of its object.
    static const std::regex address("0x[0-9a-f]{2,}");
    notes.taken();
    act();
    lines.push_back("# " + name);
    for (const std::string& line : notes.taken()) {
      lines.push_back(std::regex_replace(line, address, "SET"));
    }
  }

  TraceNotes notes{"*/*"};
  std::vector<std::string> lines;
};

struct TraceScript : TableFixture<TcamEntryFamily> {
  Entry hop(unsigned n, std::uint8_t limit) const {
    Entry made(key(n));
    made.hopLimit = limit;
    return made;
  }

  Script script;
  /// What subscribers hear stands where they hear it.
  const Support::Ear ear{
      *table->publisher(), [this](const Fenrik::Change& change) {
        std::string what;
        if (change.key != nullptr) {
          what = fmt::format(" of {}{}", *static_cast<const Key*>(change.key),
                             change.value == nullptr ? ", which goes" : "");
        } else if (change.fieldId.number() == 662) {
          what = fmt::format(" {}", *static_cast<const unsigned*>(change.value));
        }
        script.notes.lines.push_back(fmt::format("change of {}{}", change.fieldId.number(), what));
      }};
};

TEST_F(TraceScript, WritesRemovesAndTheirCommits) {
  HandlePtr first;
  const auto cause = looseHandle(State::entryPending);
  script.step("the first write of key 7",
              [&] { first = table->entryWrite(key(7), hop(7, 5), nullptr); });
  script.step("a write over it that depends on it",
              [&] { table->entryWriteWithResponseHandler(key(7), hop(7, 6), first, {}); });
  script.step("a remove of a key that is not there", [&] { table->entryRemove(key(8), first); });
  script.step("the first write is committed", [&] { agent.tables().pump(1); });
  script.step("the other two are committed", [&] { agent.tables().pump(2); });
  table->entryRemove(key(7), cause);
  script.step("a dependency is pending", [&] { agent.pumpAll(); });
  script.step("the dependency failed", [&] {
    cause->entryStateIs(State::entryResourceFailed);
    agent.pumpAll();
  });
  script.step("a report", [&] { report(2); });
  script.step("a handle's table",
              [&] { EXPECT_EQ(first->tableName(), "OrderedSwTable.QuarnBastilGroup.TcamEntry"); });
}

TEST_F(TraceScript, RemoveAllsUpdatesAndClears) {
  table->entryWrite(key(7), hop(7, 5), nullptr);
  agent.pumpAll();
  table->entryWrite(key(7), hop(7, 6), nullptr);
  table->entryRemove(key(5), nullptr);
  script.step("a remove-all, with a write and a remove in flight",
              [&] { table->entryRemoveAll(nullptr); });
  script.step("another one, which depends on a failed operation", [&] {
    table->entryRemoveAllWithResponseHandler(looseHandle(State::entryRejected), {});
  });
  script.step("both are committed", [&] { agent.pumpAll(); });
  script.step("a clear", [&] { table->clearTable(false); });
  script.step("a report of it", [&] { table->tableStatusVersion(Asic::LogVersion(4)); });
  script.step("a clear of an empty table", [&] {
    table->transientRemoveAllVersionIs(Asic::MajorVersion());
    table->clearTable(true);
  });
  script.step("the same report", [&] { table->tableStatusVersion(Asic::LogVersion(4)); });

  struct Setter : Fenrik::NodeClass<Setter, Helper> {
    bool finalizeOnResourceUpdate(const Fenrik::Ptr<Wrapper>& wrapper, const Fenrik::Ptr<SwTable>&,
                                  bool) override {
      wrapper->mutableEntry().hopLimit = 9;
      return wrapper->key().index != 8;
    }
  };
  table->entryWrite(key(7), hop(7, 5), nullptr);
  table->entryWrite(key(8), hop(8, 5), nullptr);
  agent.pumpAll();
  table->swTableHelperIs(Fenrik::ptrIsImpl<Setter>());
  script.step("an update of a key that is not there", [&] { table->updateEntry(key(6)); });
  script.step("an update", [&] { table->updateEntry(key(7)); });
  script.step("an update that the helper does not want logged",
              [&] { table->updateEntry(key(8)); });
  const auto wrapper = Fenrik::ptrIsImpl<Wrapper>(hop(8, 5), looseHandle(State::entryPending));
  script.step("a failure is finalized",
              [&] { EXPECT_FALSE(wrapper->finalizeOnFailure(table, true)); });
}

TEST_F(TraceScript, ReadsWalksAndTheIdenticalWrite) {
  table->entryWrite(key(7), hop(7, 5), nullptr);
  agent.pumpAll();
  table->entryWrite(key(8), hop(8, 6), nullptr);
  script.step("has, in flight", [&] { table->entryHas(key(8)); });
  script.step("has, configured", [&] { table->entryHas(key(7)); });
  script.step("entry, in flight", [&] { table->entry(key(8)); });
  script.step("read, configured", [&] { table->entryRead(key(7)); });
  script.step("read, absent", [&] { table->entryRead(key(9)); });
  script.step("count", [&] { table->entrys(); });

  std::optional<decltype(table->entryIteratorConst())> walk;
  decltype(table->initIterState()) state;
  script.step("a walk begins", [&] { walk.emplace(table->entryIteratorConst()); });
  script.step("its second entry", [&] { ++*walk; });
  script.step("its end", [&] { ++*walk; });
  script.step("a walk from a key in flight", [&] { table->initIterStateFromKey(key(8)); });
  script.step("a walk from an absent key", [&] { state = table->initIterStateFromKey(key(9)); });
  // The bookmark among the adds has gone, and so has everything else.
  agent.pumpAll();
  state->stateIs(state->state().withInAddColl(true));
  script.notes.taken();
  state->maybeUpdateCurrentEntry();
  // What it finds is up to the order of the hashed keys.
  const auto seen = script.notes.taken();
  EXPECT_EQ(seen.at(2), "SwTableIter 9 operator()|  done with transAdd");
  EXPECT_EQ(seen.at(3), "SwTableIter 9 maybeUpdateCurrentEntry|  in cfgDrift collection");

  const auto is = [&](std::uint8_t limit) {
    log().entryIs(hop(7, limit).logEntry(), {}, nullptr, kUnit, table->stats(), true);
  };
  script.step("an identical write", [&] { is(5); });
  script.step("another write", [&] { is(4); });
  script.step("reads of the log", [&] {
    static_cast<void>(log().entry(key(7), kUnit));
    static_cast<void>(log().entryRsrcKeys(key(7), kUnit));
  });
}

/// What the interface traces while it brings its family up, and what it leaves in the ring.
TEST(InterfaceTrace, OfAFirstStartARestartAndAUnitThatIsNotThereAnyMore) {
  const Support::TempDir dir, ring;
  Script script;
  Blipline::TraceHandle handle({ring.path(), "t", Blipline::kRingBytesMin, false});
  Blipline::defaultBliplineHandle = &handle;
  std::optional<Support::Running> agent;
  const auto interface = [&] { return agent->interface<TcamEntryFamily>(); };
  script.step("the first start", [&] { agent.emplace(dir.path()), interface(); });
  script.step("a table", [&] { agent->table<TcamEntryFamily>(3); });
  script.step("a reconciliation", [&] { interface()->reconcile(); });
  for (const unsigned n : {1U, 2U, 3U}) {
    const auto entry = Support::entryOf<TcamEntryFamily>(n, 1);
    agent->write<TcamEntryFamily>(3, n, 1);
    if (n != 3) agent->table<TcamEntryFamily>(3)->entryRemove(entry.key, nullptr);
  }
  agent->pumpAll();
  Support::ReporterRig(dir.path(), "QuarnBastilGroup").report(TcamEntryFamily::kTableId, 2);
  agent.reset();
  script.step("a restart", [&] { agent.emplace(dir.path()), interface(); });
  script.step("a table of another unit", [&] { agent->table<TcamEntryFamily>(5); });
  script.step("a reconciliation that finds unit 3 inactive", [&] { interface()->reconcile(); });
  script.step("a second one, which finds all units active", [&] { interface()->reconcile(); });
  script.step("a table that exists is made with another helper, cleared", [&] {
    const auto helper = Fenrik::ptrIsImpl<QuarnBastil::TcamEntrySwTableHelperBase>();
    interface()->makeSwTable(Asic::UnitId(3), helper, true);
  });
  EXPECT_EQ(interface()->entryLog()->tableVersion().value(), 7U);
  script.step("a table of a new unit is cleared", [&] { agent->table<TcamEntryFamily>(7, true); });
  Blipline::defaultBliplineHandle = nullptr;
  const Blipline::RingFile file(ring.path() + "/t-0.blip");
  script.lines.push_back("# the ring");
  for (const auto& record : file.records()) {
    const auto& site = file.descriptions().at(record.msgId);
    script.lines.push_back(site.letters + " " + site.className + " " + site.function +
                           file.text(record));
  }
}

}  // namespace
