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

  /// Ends a step: what was traced since the last one.
  void traced(const std::string& step) {
    lines.push_back("# " + step);
    // A needed set is traced as the address of its object.
    static const std::regex address("0x[0-9a-f]{2,}");
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
  const auto first = table->entryWrite(key(7), hop(7, 5), nullptr);
  script.traced("the first write of key 7");
  table->entryWriteWithResponseHandler(key(7), hop(7, 6), first, {});
  script.traced("a write over it that depends on it");
  table->entryRemove(key(8), first);
  script.traced("a remove of a key that is not there");
  agent.tables().pump(1);
  script.traced("the first write is committed");
  agent.tables().pump(2);
  script.traced("the other two are committed");
  const auto cause = looseHandle(State::entryPending);
  table->entryRemove(key(7), cause);
  script.notes.taken();
  agent.pumpAll();
  script.traced("a dependency is pending");
  cause->entryStateIs(State::entryResourceFailed);
  agent.pumpAll();
  script.traced("the dependency failed");
  hw.report(TcamEntryFamily::kTableId, 2);
  agent.pumpAll();
  script.traced("a report");
  EXPECT_EQ(first->tableName(), "OrderedSwTable.QuarnBastilGroup.TcamEntry");
  script.traced("a handle's table");
}

TEST_F(TraceScript, RemoveAllsUpdatesAndClears) {
  table->entryWrite(key(7), hop(7, 5), nullptr);
  agent.pumpAll();
  table->entryWrite(key(7), hop(7, 6), nullptr);
  table->entryRemove(key(5), nullptr);
  script.notes.taken();
  table->entryRemoveAll(nullptr);
  script.traced("a remove-all, with a write and a remove in flight");
  table->entryRemoveAllWithResponseHandler(looseHandle(State::entryRejected), {});
  script.traced("another one, which depends on a failed operation");
  agent.pumpAll();
  script.traced("both are committed");
  table->clearTable(false);
  script.traced("a clear");
  table->tableStatusVersion(Asic::LogVersion(4));
  script.traced("a report of it");
  table->transientRemoveAllVersionIs(Asic::MajorVersion());
  table->clearTable(true);
  script.traced("a clear of an empty table");
  table->tableStatusVersion(Asic::LogVersion(4));
  script.traced("the same report");

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
  script.notes.taken();
  table->updateEntry(key(6));
  script.traced("an update of a key that is not there");
  table->updateEntry(key(7));
  script.traced("an update");
  table->updateEntry(key(8));
  script.traced("an update that the helper does not want logged");
  const auto wrapper = Fenrik::ptrIsImpl<Wrapper>(hop(8, 5), looseHandle(State::entryPending));
  EXPECT_FALSE(wrapper->finalizeOnFailure(table, true));
  script.traced("a failure is finalized");
}

TEST_F(TraceScript, ReadsWalksAndTheIdenticalWrite) {
  table->entryWrite(key(7), hop(7, 5), nullptr);
  agent.pumpAll();
  table->entryWrite(key(8), hop(8, 6), nullptr);
  script.notes.taken();
  table->entryHas(key(8));
  script.traced("has, in flight");
  table->entryHas(key(7));
  script.traced("has, configured");
  table->entry(key(8));
  script.traced("entry, in flight");
  table->entryRead(key(7));
  script.traced("read, configured");
  table->entryRead(key(9));
  script.traced("read, absent");
  table->entrys();
  script.traced("count");

  auto walk = table->entryIteratorConst();
  script.traced("a walk begins");
  ++walk;
  script.traced("its second entry");
  ++walk;
  script.traced("its end");
  table->initIterStateFromKey(key(8));
  script.traced("a walk from a key in flight");
  const auto state = table->initIterStateFromKey(key(9));
  script.traced("a walk from an absent key");
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
  is(5);
  script.traced("an identical write");
  is(4);
  script.traced("another write");
  static_cast<void>(log().entry(key(7), kUnit));
  static_cast<void>(log().entryRsrcKeys(key(7), kUnit));
  script.traced("reads of the log");
}

/// What the interface traces while it brings its family up, and what it leaves in the ring.
TEST(InterfaceTrace, OfAFirstStartARestartAndAUnitThatIsNotThereAnyMore) {
  const Support::TempDir dir, ring;
  Script script;
  Blipline::TraceHandle handle({ring.path(), "t", Blipline::kRingBytesMin, false});
  Blipline::defaultBliplineHandle = &handle;
  {
    Support::Running agent(dir.path());
    const auto interface = agent.interface<TcamEntryFamily>();
    script.traced("the first start");
    const auto table = agent.table<TcamEntryFamily>(3);
    script.traced("a table");
    interface->reconcile();
    script.traced("a reconciliation");
    for (const unsigned n : {1U, 2U, 3U}) {
      const auto entry = Support::entryOf<TcamEntryFamily>(n, 1);
      table->entryWrite(entry.key, entry, nullptr);
      if (n != 3) table->entryRemove(entry.key, nullptr);
    }
    agent.pumpAll();
    Support::ReporterRig(dir.path(), "QuarnBastilGroup").report(TcamEntryFamily::kTableId, 2);
  }
  script.notes.taken();
  Support::Running agent(dir.path());
  const auto interface = agent.interface<TcamEntryFamily>();
  script.traced("a restart");
  agent.table<TcamEntryFamily>(5);
  script.traced("a table of another unit");
  interface->reconcile();
  script.traced("a reconciliation that finds unit 3 inactive");
  interface->reconcile();
  script.traced("a second one, which finds all units active");
  interface->makeSwTable(Asic::UnitId(3),
                         Fenrik::ptrIsImpl<QuarnBastil::TcamEntrySwTableHelperBase>(), true);
  script.traced("a table that exists is made with another helper, cleared");
  EXPECT_EQ(interface->entryLog()->tableVersion().value(), 7U);
  agent.table<TcamEntryFamily>(7, true);
  script.traced("a table of a new unit is cleared");
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
