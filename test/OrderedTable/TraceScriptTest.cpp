#include <regex>

#include "OrderedTable/TableFixture.h"

namespace {

using QuarnBastil::TcamEntryFamily;
using testing::ElementsAre;

/// A script of everything that a table does, each part beside the lines that it traces with all
/// levels on: people read them with other tools than this one.
struct TraceScript : TableFixture<TcamEntryFamily> {
  Entry hop(unsigned n, std::uint8_t limit) const {
    Entry made(key(n));
    made.hopLimit = limit;
    return made;
  }
  /// "T" stands for the table's handle, "L" for the log's, "I" for the walk's; "$K7" for a key and
  /// "$E7=5" for its entry with a hop limit of 5. "TPending" and "TNone" are the two lines that
  /// every operation, commit and report ends with.
  void expect(std::initializer_list<std::string> lines) {
    std::vector<std::string> expected;
    for (std::string line : lines) {
      if (line == "TPending" || line == "TNone") {
        expected.push_back("TcamEntrySwTable 8 hasPendingHwWrites|TcamEntrySwTable");
        expected.push_back(
            fmt::format("TcamEntrySwTable 3 hasPendingHwWrites| pendingHwWrites for swTable: "
                        "tableId: 04:08:0404, unitId3 is {}",
                        line == "TPending"));
        continue;
      }
      line.replace(0, 1,
                   line[0] == 'T'   ? "TcamEntrySwTable"
                   : line[0] == 'L' ? "TcamEntryEntryLog"
                                    : "SwTableIter");
      for (std::size_t at; (at = line.find("$E")) != std::string::npos;) {
        const std::string limit(1, line[at + 4]);
        line.replace(at, 5,
                     "{key: $K" + line.substr(at + 2, 1) + ", slices: 1" +
                         (limit == "0" ? "" : ", hopLimit: " + limit) + "}");
      }
      for (std::size_t at; (at = line.find("$K")) != std::string::npos;) {
        line.replace(at, 3, "{bank: 0, index: " + line.substr(at + 2, 1) + "}");
      }
      expected.push_back(line);
    }
    std::vector<std::string> seen = notes->taken();
    // A needed set is traced as the address of its object.
    static const std::regex address("0x[0-9a-f]{2,}");
    for (std::string& line : seen) line = std::regex_replace(line, address, "SET");
    ASSERT_EQ(seen.size(), expected.size()) << fmt::format("{}", fmt::join(seen, "\n"));
    for (std::size_t i = 0; i < seen.size(); ++i) ASSERT_EQ(seen[i], expected[i]) << "line " << i;
  }

  std::unique_ptr<TraceNotes> notes = std::make_unique<TraceNotes>("*/*");
};

TEST_F(TraceScript, WritesRemovesAndTheirCommits) {
  const auto first = table->entryWrite(key(7), hop(7, 5), nullptr);
  expect({"T 8 entryWrite|TcamEntrySwTable key: $K7",
          "T 8 entryWriteWithResponseHandler|TcamEntrySwTable key: $K7",
          "T 8 entryWriteGeneric|key: $K7",
          "T 8 entryWriteGeneric| Key: $K7 not found in entry version collection",
          "T 2 entryWriteGeneric|Done processing write for key: $K7 ", "TPending"});
  table->entryWriteWithResponseHandler(key(7), hop(7, 6), first, {});
  expect({"T 8 entryWriteWithResponseHandler|TcamEntrySwTable key: $K7",
          "T 8 entryWriteGeneric|key: $K7",
          "T 2 entryWriteGeneric|Done processing write for key: $K7 ", "TPending"});
  table->entryRemove(key(8), first);
  expect({"T 8 entryRemove|TcamEntrySwTable key: $K8",
          "T 8 entryRemoveWithResponseHandler|TcamEntrySwTable key: $K8",
          "T 8 entryRemoveGeneric| Key: $K8 ",
          "T 8 entryRemoveGeneric| Key: $K8 not found in entry version collection",
          "T 2 entryRemoveGeneric| Done processing remove for key: $K8 ", "TPending"});
  agent.tables().pump(1);
  expect({"T 8 setRsrcPtrs|TcamEntrySwTablekey: $K7, refresh: true",
          "T 3 isResolverEntryResolved|key: $K7, isEntryDeleted: false, isTableDeleted: false, "
          "resolved: true",
          "T 8 commitEntry|Entry: $E7=5, isEntryDeleted: false, isTableDeleted: false",
          "T 8 finalizeOnSuccess|TcamEntryEntryWrapper key: $K7 isDeleted: false",
          "T 8 getNeededEntrySet|TcamEntrySwTablekey: $K7", "T 8 entryFromConfig|key: $K7",
          "L 8 entryIs|TcamEntryEntryLog logEntry: $E7=5 neededEntry: SET version: 1 unitId: 3 "
          "suppressIdenticalWrites: false",
          "TPending"});
  agent.tables().pump(2);
  expect({"T 3 isResolverEntryResolved|key: $K7 dependant entry is resolved",
          "T 8 setRsrcPtrs|TcamEntrySwTablekey: $K7, refresh: true",
          "T 3 isResolverEntryResolved|key: $K7, isEntryDeleted: false, isTableDeleted: false, "
          "resolved: true",
          "T 8 commitEntry|Entry: $E7=6, isEntryDeleted: false, isTableDeleted: false",
          "T 8 finalizeOnSuccess|TcamEntryEntryWrapper key: $K7 isDeleted: false",
          "T 8 getNeededEntrySet|TcamEntrySwTablekey: $K7", "T 8 entryFromConfig|key: $K7",
          "T 8 tableId|EntryHandle",
          "L 8 entryIs|TcamEntryEntryLog logEntry: $E7=6 neededEntry: SET version: 2 "
          "unitId: 3 suppressIdenticalWrites: false",
          "TPending", "T 3 isResolverEntryResolved|key: $K8 dependant entry is resolved",
          "T 3 isResolverEntryResolved|key: $K8, isEntryDeleted: true, isTableDeleted: false, "
          "resolved: true",
          "T 8 commitEntry|Entry: $E8=0, isEntryDeleted: true, isTableDeleted: false",
          "T 8 entryFromConfig|key: $K8", "T 8 tableId|EntryHandle",
          "T 8 finalizeOnSuccess|TcamEntryEntryWrapper key: $K8 isDeleted: true",
          "L 8 entryDel|TcamEntryEntryLog key:$K8 neededEntry: SET unitId: 3",
          "L 3 entryDel|TcamEntryEntryLog key: $K8 entry does not exist. So ignoring delete",
          "TPending"});
  const auto cause = looseHandle(State::entryPending);
  table->entryRemove(key(7), cause);
  notes->taken();
  agent.pumpAll();
  expect({"T 3 isResolverEntryResolved|key: $K7 dependant entry not yet resolved"});
  cause->entryStateIs(State::entryResourceFailed);
  agent.pumpAll();
  expect({"T 3 isResolverEntryResolved|key: $K7 dependant entry is resolved",
          "T 3 isResolverEntryResolved|key: $K7, isEntryDeleted: true, isTableDeleted: false, "
          "resolved: true",
          "T 8 commitEntry|Entry: $E7=0, isEntryDeleted: true, isTableDeleted: false",
          "T 1 commitEntry|Failed dependent entry for key: $K7",
          "T 1 commitEntry|Failed to commit entry key: $K7", "TPending"});
  hw.report(TcamEntryFamily::kTableId, 2);
  agent.pumpAll();
  expect({"T 8 tableStatusVersion|tableVersion: 2",
          "L 8 cleanupEntryLog|TcamEntryEntryLog version 2",
          "T 3 tableStatusVersion|Processing version: 1, key: $K7",
          "T 3 tableStatusVersion|Processing version: 2, key: $K7", "TPending"});
  EXPECT_EQ(first->tableName(), "OrderedSwTable.QuarnBastilGroup.TcamEntry");
  expect({"T 8 tableName|EntryHandle"});
}

TEST_F(TraceScript, RemoveAllsUpdatesAndClears) {
  table->entryWrite(key(7), hop(7, 5), nullptr);
  agent.pumpAll();
  notes->taken();
  table->entryRemoveAll(nullptr);
  expect({"T 8 entryRemoveAll|TcamEntrySwTable",
          "T 8 entryRemoveAllWithResponseHandler|TcamEntrySwTable", "T 8 entryRemoveAllGeneric|",
          "T 8 entryRemoveAllGeneric|No remove all operation currently enqueued",
          "T 2 entryRemoveAllGeneric|Done processing remove all ", "TPending"});
  table->entryRemoveAllWithResponseHandler(looseHandle(State::entryRejected), {});
  expect({"T 8 entryRemoveAllWithResponseHandler|TcamEntrySwTable", "T 8 entryRemoveAllGeneric|",
          "T 8 entryRemoveAllGeneric|Found valid table remove all version: 0",
          "T 2 entryRemoveAllGeneric|Done processing remove all ", "TPending"});
  agent.pumpAll();
  expect({"T 8 setRsrcPtrs|TcamEntrySwTablekey: $K0, refresh: true",
          "T 3 isResolverEntryResolved|key: $K0, isEntryDeleted: false, isTableDeleted: true, "
          "resolved: true",
          "T 8 commitEntry|Entry: $E0=0, isEntryDeleted: false, isTableDeleted: true",
          "T 8 commitEntry|Committing table delete for version: 1",
          "T 8 getNeededEntrySet|TcamEntrySwTablekey: $K0",
          "T 8 delAllEntries| releaseResources: true, neededEntry:SET ",
          "T 8 entryWrapperFromConfig|key: $K7, refreshRsrcPtrs: false",
          "T 8 entryFromConfig|key: $K7",
          "T 8 setRsrcPtrs|TcamEntrySwTablekey: $K7, refresh: false",
          "L 8 tableDel|TcamEntryEntryLog neededEntry:SET, unitId: 3", "TPending",
          "T 3 isResolverEntryResolved|key: $K0 dependant entry is resolved",
          "T 8 setRsrcPtrs|TcamEntrySwTablekey: $K0, refresh: true",
          "T 3 isResolverEntryResolved|key: $K0, isEntryDeleted: false, isTableDeleted: true, "
          "resolved: true",
          "T 8 commitEntry|Entry: $E0=0, isEntryDeleted: false, isTableDeleted: true",
          "T 1 commitEntry|Failed dependent entry for remove all",
          "T 1 commitEntry|Failed to commit entry remove all operation", "TPending"});
  table->clearTable(false);
  expect({"T 8 clearTable|", "T 8 delAllEntries| releaseResources: false, neededEntry:0x0 ",
          "L 8 tableDel|TcamEntryEntryLog neededEntry:0x0, unitId: 3"});
  table->tableStatusVersion(Asic::LogVersion(3));
  expect({"T 8 tableStatusVersion|tableVersion: 3",
          "L 8 cleanupEntryLog|TcamEntryEntryLog version 3",
          "L 3 cleanupEntryLog|TcamEntryEntryLog deleteing all entries for unitId: 3",
          "L 3 cleanupEntryLog|TcamEntryEntryLog deleteing all entries for unitId: 3",
          "T 3 tableStatusVersion|Processing version: 1, key: $K7", "TPending"});
  table->transientRemoveAllVersionIs(Asic::MajorVersion());
  table->clearTable(true);
  expect({"T 8 clearTable|", "T 8 delAllEntries| releaseResources: true, neededEntry:0x0 "});
  table->tableStatusVersion(Asic::LogVersion(3));
  expect({"T 8 tableStatusVersion|tableVersion: 3",
          "L 8 cleanupEntryLog|TcamEntryEntryLog version 3", "TNone"});

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
  notes->taken();
  table->updateEntry(key(6));
  expect({"L 8 entryHas|TcamEntryEntryLog key: $K6 unitId:3",
          "T 3 updateEntry| key: $K6 entry does not exist "});
  table->updateEntry(key(7));
  expect({"L 8 entryHas|TcamEntryEntryLog key: $K7 unitId:3",
          "T 8 entryWrapperFromConfig|key: $K7, refreshRsrcPtrs: false",
          "T 8 entryFromConfig|key: $K7",
          "T 8 setRsrcPtrs|TcamEntrySwTablekey: $K7, refresh: false",
          "T 8 getNeededEntrySet|TcamEntrySwTablekey: $K7",
          "L 8 entryIs|TcamEntryEntryLog logEntry: $E7=9 neededEntry: SET version: 6 unitId: 3 "
          "suppressIdenticalWrites: false",
          "T 3 updateEntry| key: $K7, neededEntry: SET, entryLogVersion: 6 "});
  table->updateEntry(key(8));
  expect({"L 8 entryHas|TcamEntryEntryLog key: $K8 unitId:3",
          "T 8 entryWrapperFromConfig|key: $K8, refreshRsrcPtrs: false",
          "T 8 entryFromConfig|key: $K8",
          "T 8 setRsrcPtrs|TcamEntrySwTablekey: $K8, refresh: false",
          "T 3 updateEntry| key: $K8, commitToLog: false, no change in logEntry or don't commit to "
          "log",
          "L 8 entryLogVersion|TcamEntryEntryLog key: $K8 unitId:3"});
  const auto wrapper = Fenrik::ptrIsImpl<Wrapper>(hop(8, 5), looseHandle(State::entryPending));
  EXPECT_FALSE(wrapper->finalizeOnFailure(table, true));
  expect({"T 8 finalizeOnFailure|TcamEntryEntryWrapper key: $K8 isDeleted: true",
          "T 3 finalizeOnFailure|TcamEntryEntryWrapper retVal: false"});
}

TEST_F(TraceScript, ReadsWalksAndTheIdenticalWrite) {
  table->entryWrite(key(7), hop(7, 5), nullptr);
  agent.pumpAll();
  table->entryWrite(key(8), hop(8, 6), nullptr);
  notes->taken();
  table->entryHas(key(8));
  expect({"T 8 entryHas|key: $K8"});
  table->entryHas(key(7));
  expect({"T 8 entryHas|key: $K7", "L 8 entryHas|TcamEntryEntryLog key: $K7 unitId:3"});
  table->entry(key(8));
  expect({"T 8 entryRead|TcamEntrySwTable key: $K8", "T 8 entryReadGeneric|key: $K8"});
  table->entryRead(key(7));
  expect({"T 8 entryRead|TcamEntrySwTable key: $K7", "T 8 entryReadGeneric|key: $K7",
          "L 8 entryHas|TcamEntryEntryLog key: $K7 unitId:3", "T 8 entryFromConfig|key: $K7"});
  table->entryRead(key(9));
  expect({"T 8 entryRead|TcamEntrySwTable key: $K9", "T 8 entryReadGeneric|key: $K9",
          "L 8 entryHas|TcamEntryEntryLog key: $K9 unitId:3",
          "T 1 entryReadGeneric|Failed to find entry for key: $K9"});
  table->entrys();
  expect({"L 8 entrys|TcamEntryEntryLog unitId:3",
          "L 8 entrysInDeletion|TcamEntryEntryLog unitId:3",
          "L 8 entryHas|TcamEntryEntryLog key: $K8 unitId:3"});

  auto walk = table->entryIteratorConst();
  expect({"I 8 maybeUpdateCurrentEntry|",
          "I 9 maybeUpdateCurrentEntry|  in transientAdd collection",
          "I 9 maybeUpdateCurrentEntry|  found entry: $K8", "I 9 operator()|  done with transAdd"});
  ++walk;
  expect({"I 8 maybeUpdateCurrentEntry|", "I 9 maybeUpdateCurrentEntry|  in cfgDrift collection",
          "I 9 maybeUpdateCurrentEntry|  found entry: $K7",
          "I 9 maybeUpdateCurrentEntry|  done with cfgDrift"});
  ++walk;
  expect({"I 8 maybeUpdateCurrentEntry|", "I 9 maybeUpdateCurrentEntry|  no more entries"});
  table->initIterStateFromKey(key(8));
  expect({"T 8 initIterStateFromKey|TcamEntrySwTable key: $K8"});
  const auto state = table->initIterStateFromKey(key(9));
  expect({"T 8 initIterStateFromKey|TcamEntrySwTable key: $K9",
          "L 8 entryHas|TcamEntryEntryLog key: $K9 unitId:3"});
  // The bookmark among the adds has gone, and so has everything else.
  agent.pumpAll();
  state->stateIs(state->state().withInAddColl(true));
  notes->taken();
  state->maybeUpdateCurrentEntry();
  auto seen = notes->taken();
  EXPECT_EQ(seen.at(2), "SwTableIter 9 operator()|  done with transAdd");
  EXPECT_EQ(seen.at(3), "SwTableIter 9 maybeUpdateCurrentEntry|  in cfgDrift collection");

  const auto is = [&](std::uint8_t limit) {
    log().entryIs(hop(7, limit).logEntry(), {}, nullptr, kUnit, table->stats(), true);
  };
  is(5);
  expect({"L 3 entryIs|TcamEntryEntryLogSuppressing identical write for key: $K7"});
  is(4);
  expect(
      {"L 3 entryIs|TcamEntryEntryLogNot Suppressing write because entry or resource key is "
       "different  for key: $K7",
       "L 8 entryIs|TcamEntryEntryLog logEntry: $E7=4 neededEntry: 0x0 version: 3 unitId: 3 "
       "suppressIdenticalWrites: true"});
  static_cast<void>(log().entry(key(7), kUnit));
  static_cast<void>(log().entryRsrcKeys(key(7), kUnit));
  expect({"L 8 entry|TcamEntryEntryLog key: $K7 unitId:3",
          "L 8 entryRsrcKeys|TcamEntryEntryLog key: $K7 unitId:3"});
}

TEST_F(TraceScript, ATableIsMade) {
  log().mountDriftConfig(Asic::UnitId(5), Asic::LogVersion(0));
  notes->taken();
  const auto made =
      Fenrik::ptrIsImpl<SwTable>(table->canonicalName(), table->tableId(), Asic::UnitId(5),
                                 rig.set().get(), rig.log(), table->groupResolver());
  expect({"T 8 handleInitialized|TcamEntrySwTabledoesMarkSweep: False hwErrorHandling: False"});
  EXPECT_NE(made->swTableHelper(), nullptr);
}

}  // namespace
