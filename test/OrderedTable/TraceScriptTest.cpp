#include <regex>

#include "OrderedTable/TableFixture.h"
#include "Support/Running.h"

namespace {

using QuarnBastil::TcamEntryFamily;

/// Everything that is traced, beside the lines that are expected of it: people read them with other
/// tools than this one.
struct Script {
  /// A line begins with a letter for its handle: the interface, the table, the log or a walk. "@"
  /// stands for that handle's name once more, "$K7" for a key, "$E7=5" for its entry with a hop
  /// limit of 5, and "$W", "$D" and "$A" for what an operation is. "TPending" and "TNone", with a
  /// unit other than 3 behind them, are the two lines that operations, commits and reports end
  /// with.
  void expect(const std::vector<std::string>& lines) {
    std::vector<std::string> expected;
    for (const std::string& line : lines) {
      if (line.starts_with("TPending") || line.starts_with("TNone")) {
        const bool pending = line[1] == 'P';
        const std::string unit = line.substr(pending ? 8 : 5);
        expected.push_back(inFull("T 8 hasPendingHwWrites|@"));
        expected.push_back(
            inFull(fmt::format("T 3 hasPendingHwWrites| pendingHwWrites for swTable: tableId: "
                               "04:08:0404, unitId{} is {}",
                               unit.empty() ? "3" : unit, pending)));
      } else {
        expected.push_back(inFull(line));
      }
    }
    std::vector<std::string> seen = notes.taken();
    // A needed set is traced as the address of its object.
    static const std::regex address("0x[0-9a-f]{2,}");
    for (std::string& line : seen) line = std::regex_replace(line, address, "SET");
    EXPECT_EQ(seen, expected);
  }

  static std::string inFull(std::string line) {
    const std::string name = line[0] == 'I'   ? "TcamEntryInterface"
                             : line[0] == 'T' ? "TcamEntrySwTable"
                             : line[0] == 'L' ? "TcamEntryEntryLog"
                                              : "SwTableIter";
    line.replace(0, 1, name);
    const std::pair<const char*, std::string> words[] = {
        {"@", name},
        {"\\$E(.)=0", "{key: $$K$1, slices: 1}"},
        {"\\$E(.)=(.)", "{key: $$K$1, slices: 1, hopLimit: $2}"},
        {"\\$K(.)", "0:$1"},
        {"\\$W", "isEntryDeleted: false, isTableDeleted: false"},
        {"\\$D", "isEntryDeleted: true, isTableDeleted: false"},
        {"\\$A", "isEntryDeleted: false, isTableDeleted: true"}};
    for (const auto& [word, text] : words) {
      line = std::regex_replace(line, std::regex(word), text);
    }
    return line;
  }

  TraceNotes notes{"*/*"};
};

struct TraceScript : TableFixture<TcamEntryFamily> {
  Entry hop(unsigned n, std::uint8_t limit) const {
    Entry made(key(n));
    made.hopLimit = limit;
    return made;
  }

  Script script;
};

TEST_F(TraceScript, WritesRemovesAndTheirCommits) {
  const auto first = table->entryWrite(key(7), hop(7, 5), nullptr);
  script.expect({"T 8 entryWrite|@ key: $K7", "T 8 entryWriteWithResponseHandler|@ key: $K7",
                 "T 8 entryWriteGeneric|key: $K7",
                 "T 8 entryWriteGeneric| Key: $K7 not found in entry version collection",
                 "T 2 entryWriteGeneric|Done processing write for key: $K7 ", "TPending"});
  table->entryWriteWithResponseHandler(key(7), hop(7, 6), first, {});
  script.expect({"T 8 entryWriteWithResponseHandler|@ key: $K7", "T 8 entryWriteGeneric|key: $K7",
                 "T 2 entryWriteGeneric|Done processing write for key: $K7 ", "TPending"});
  table->entryRemove(key(8), first);
  script.expect({"T 8 entryRemove|@ key: $K8", "T 8 entryRemoveWithResponseHandler|@ key: $K8",
                 "T 8 entryRemoveGeneric| Key: $K8 ",
                 "T 8 entryRemoveGeneric| Key: $K8 not found in entry version collection",
                 "T 2 entryRemoveGeneric| Done processing remove for key: $K8 ", "TPending"});
  agent.tables().pump(1);
  script.expect({"T 8 setRsrcPtrs|@key: $K7, refresh: true",
                 "T 3 isResolverEntryResolved|key: $K7, $W, resolved: true",
                 "T 8 commitEntry|Entry: $E7=5, $W",
                 "T 8 finalizeOnSuccess|TcamEntryEntryWrapper key: $K7 isDeleted: false",
                 "T 8 getNeededEntrySet|@key: $K7", "T 8 entryFromConfig|key: $K7",
                 "L 8 entryIs|@ logEntry: $E7=5 neededEntry: SET version: 1 unitId: 3 "
                 "suppressIdenticalWrites: false",
                 "TPending"});
  agent.tables().pump(2);
  script.expect({"T 3 isResolverEntryResolved|key: $K7 dependant entry is resolved",
                 "T 8 setRsrcPtrs|@key: $K7, refresh: true",
                 "T 3 isResolverEntryResolved|key: $K7, $W, resolved: true",
                 "T 8 commitEntry|Entry: $E7=6, $W",
                 "T 8 finalizeOnSuccess|TcamEntryEntryWrapper key: $K7 isDeleted: false",
                 "T 8 getNeededEntrySet|@key: $K7", "T 8 entryFromConfig|key: $K7",
                 "T 8 tableId|EntryHandle",
                 "L 8 entryIs|@ logEntry: $E7=6 neededEntry: SET version: 2 unitId: 3 "
                 "suppressIdenticalWrites: false",
                 "TPending", "T 3 isResolverEntryResolved|key: $K8 dependant entry is resolved",
                 "T 3 isResolverEntryResolved|key: $K8, $D, resolved: true",
                 "T 8 commitEntry|Entry: $E8=0, $D", "T 8 entryFromConfig|key: $K8",
                 "T 8 tableId|EntryHandle",
                 "T 8 finalizeOnSuccess|TcamEntryEntryWrapper key: $K8 isDeleted: true",
                 "L 8 entryDel|@ key:$K8 neededEntry: SET unitId: 3",
                 "L 3 entryDel|@ key: $K8 entry does not exist. So ignoring delete", "TPending"});
  const auto cause = looseHandle(State::entryPending);
  table->entryRemove(key(7), cause);
  script.notes.taken();
  agent.pumpAll();
  script.expect({"T 3 isResolverEntryResolved|key: $K7 dependant entry not yet resolved"});
  cause->entryStateIs(State::entryResourceFailed);
  agent.pumpAll();
  script.expect({"T 3 isResolverEntryResolved|key: $K7 dependant entry is resolved",
                 "T 3 isResolverEntryResolved|key: $K7, $D, resolved: true",
                 "T 8 commitEntry|Entry: $E7=0, $D",
                 "T 1 commitEntry|Failed dependent entry for key: $K7",
                 "T 1 commitEntry|Failed to commit entry key: $K7", "TPending"});
  hw.report(TcamEntryFamily::kTableId, 2);
  agent.pumpAll();
  script.expect({"T 8 tableStatusVersion|tableVersion: 2", "L 8 cleanupEntryLog|@ version 2",
                 "T 3 tableStatusVersion|Processing version: 1, key: $K7",
                 "T 3 tableStatusVersion|Processing version: 2, key: $K7", "TPending"});
  EXPECT_EQ(first->tableName(), "OrderedSwTable.QuarnBastilGroup.TcamEntry");
  script.expect({"T 8 tableName|EntryHandle"});
}

TEST_F(TraceScript, RemoveAllsUpdatesAndClears) {
  table->entryWrite(key(7), hop(7, 5), nullptr);
  agent.pumpAll();
  script.notes.taken();
  table->entryRemoveAll(nullptr);
  script.expect({"T 8 entryRemoveAll|@", "T 8 entryRemoveAllWithResponseHandler|@",
                 "T 8 entryRemoveAllGeneric|",
                 "T 8 entryRemoveAllGeneric|No remove all operation currently enqueued",
                 "T 2 entryRemoveAllGeneric|Done processing remove all ", "TPending"});
  table->entryRemoveAllWithResponseHandler(looseHandle(State::entryRejected), {});
  script.expect({"T 8 entryRemoveAllWithResponseHandler|@", "T 8 entryRemoveAllGeneric|",
                 "T 8 entryRemoveAllGeneric|Found valid table remove all version: 0",
                 "T 2 entryRemoveAllGeneric|Done processing remove all ", "TPending"});
  agent.pumpAll();
  script.expect(
      {"T 8 setRsrcPtrs|@key: $K0, refresh: true",
       "T 3 isResolverEntryResolved|key: $K0, $A, resolved: true",
       "T 8 commitEntry|Entry: $E0=0, $A", "T 8 commitEntry|Committing table delete for version: 1",
       "T 8 getNeededEntrySet|@key: $K0",
       "T 8 delAllEntries| releaseResources: true, neededEntry:SET ",
       "T 8 entryWrapperFromConfig|key: $K7, refreshRsrcPtrs: false",
       "T 8 entryFromConfig|key: $K7", "T 8 setRsrcPtrs|@key: $K7, refresh: false",
       "L 8 tableDel|@ neededEntry:SET, unitId: 3", "TPending",
       "T 3 isResolverEntryResolved|key: $K0 dependant entry is resolved",
       "T 8 setRsrcPtrs|@key: $K0, refresh: true",
       "T 3 isResolverEntryResolved|key: $K0, $A, resolved: true",
       "T 8 commitEntry|Entry: $E0=0, $A", "T 1 commitEntry|Failed dependent entry for remove all",
       "T 1 commitEntry|Failed to commit entry remove all operation", "TPending"});
  table->clearTable(false);
  script.expect({"T 8 clearTable|", "T 8 delAllEntries| releaseResources: false, neededEntry:0x0 ",
                 "L 8 tableDel|@ neededEntry:0x0, unitId: 3"});
  table->tableStatusVersion(Asic::LogVersion(3));
  script.expect({"T 8 tableStatusVersion|tableVersion: 3", "L 8 cleanupEntryLog|@ version 3",
                 "L 3 cleanupEntryLog|@ deleteing all entries for unitId: 3",
                 "L 3 cleanupEntryLog|@ deleteing all entries for unitId: 3",
                 "T 3 tableStatusVersion|Processing version: 1, key: $K7", "TPending"});
  table->transientRemoveAllVersionIs(Asic::MajorVersion());
  table->clearTable(true);
  script.expect({"T 8 clearTable|", "T 8 delAllEntries| releaseResources: true, neededEntry:0x0 "});
  table->tableStatusVersion(Asic::LogVersion(3));
  script.expect(
      {"T 8 tableStatusVersion|tableVersion: 3", "L 8 cleanupEntryLog|@ version 3", "TNone"});

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
  script.expect(
      {"L 8 entryHas|@ key: $K6 unitId:3", "T 3 updateEntry| key: $K6 entry does not exist "});
  table->updateEntry(key(7));
  script.expect({"L 8 entryHas|@ key: $K7 unitId:3",
                 "T 8 entryWrapperFromConfig|key: $K7, refreshRsrcPtrs: false",
                 "T 8 entryFromConfig|key: $K7", "T 8 setRsrcPtrs|@key: $K7, refresh: false",
                 "T 8 getNeededEntrySet|@key: $K7",
                 "L 8 entryIs|@ logEntry: $E7=9 neededEntry: SET version: 6 unitId: 3 "
                 "suppressIdenticalWrites: false",
                 "T 3 updateEntry| key: $K7, neededEntry: SET, entryLogVersion: 6 "});
  table->updateEntry(key(8));
  script.expect({"L 8 entryHas|@ key: $K8 unitId:3",
                 "T 8 entryWrapperFromConfig|key: $K8, refreshRsrcPtrs: false",
                 "T 8 entryFromConfig|key: $K8", "T 8 setRsrcPtrs|@key: $K8, refresh: false",
                 "T 3 updateEntry| key: $K8, commitToLog: false, no change in logEntry or don't "
                 "commit to log",
                 "L 8 entryLogVersion|@ key: $K8 unitId:3"});
  const auto wrapper = Fenrik::ptrIsImpl<Wrapper>(hop(8, 5), looseHandle(State::entryPending));
  EXPECT_FALSE(wrapper->finalizeOnFailure(table, true));
  script.expect({"T 8 finalizeOnFailure|TcamEntryEntryWrapper key: $K8 isDeleted: true",
                 "T 3 finalizeOnFailure|TcamEntryEntryWrapper retVal: false"});
}

TEST_F(TraceScript, ReadsWalksAndTheIdenticalWrite) {
  table->entryWrite(key(7), hop(7, 5), nullptr);
  agent.pumpAll();
  table->entryWrite(key(8), hop(8, 6), nullptr);
  script.notes.taken();
  table->entryHas(key(8));
  script.expect({"T 8 entryHas|key: $K8"});
  table->entryHas(key(7));
  script.expect({"T 8 entryHas|key: $K7", "L 8 entryHas|@ key: $K7 unitId:3"});
  table->entry(key(8));
  script.expect({"T 8 entryRead|@ key: $K8", "T 8 entryReadGeneric|key: $K8"});
  table->entryRead(key(7));
  script.expect({"T 8 entryRead|@ key: $K7", "T 8 entryReadGeneric|key: $K7",
                 "L 8 entryHas|@ key: $K7 unitId:3", "T 8 entryFromConfig|key: $K7"});
  table->entryRead(key(9));
  script.expect({"T 8 entryRead|@ key: $K9", "T 8 entryReadGeneric|key: $K9",
                 "L 8 entryHas|@ key: $K9 unitId:3",
                 "T 1 entryReadGeneric|Failed to find entry for key: $K9"});
  table->entrys();
  script.expect({"L 8 entrys|@ unitId:3", "L 8 entrysInDeletion|@ unitId:3",
                 "L 8 entryHas|@ key: $K8 unitId:3"});

  auto walk = table->entryIteratorConst();
  script.expect(
      {"W 8 maybeUpdateCurrentEntry|", "W 9 maybeUpdateCurrentEntry|  in transientAdd collection",
       "W 9 maybeUpdateCurrentEntry|  found entry: $K8", "W 9 operator()|  done with transAdd"});
  ++walk;
  script.expect({"W 8 maybeUpdateCurrentEntry|",
                 "W 9 maybeUpdateCurrentEntry|  in cfgDrift collection",
                 "W 9 maybeUpdateCurrentEntry|  found entry: $K7",
                 "W 9 maybeUpdateCurrentEntry|  done with cfgDrift"});
  ++walk;
  script.expect({"W 8 maybeUpdateCurrentEntry|", "W 9 maybeUpdateCurrentEntry|  no more entries"});
  table->initIterStateFromKey(key(8));
  script.expect({"T 8 initIterStateFromKey|@ key: $K8"});
  const auto state = table->initIterStateFromKey(key(9));
  script.expect({"T 8 initIterStateFromKey|@ key: $K9", "L 8 entryHas|@ key: $K9 unitId:3"});
  // The bookmark among the adds has gone, and so has everything else.
  agent.pumpAll();
  state->stateIs(state->state().withInAddColl(true));
  script.notes.taken();
  state->maybeUpdateCurrentEntry();
  auto seen = script.notes.taken();
  EXPECT_EQ(seen.at(2), "SwTableIter 9 operator()|  done with transAdd");
  EXPECT_EQ(seen.at(3), "SwTableIter 9 maybeUpdateCurrentEntry|  in cfgDrift collection");

  const auto is = [&](std::uint8_t limit) {
    log().entryIs(hop(7, limit).logEntry(), {}, nullptr, kUnit, table->stats(), true);
  };
  is(5);
  script.expect({"L 3 entryIs|@Suppressing identical write for key: $K7"});
  is(4);
  script.expect(
      {"L 3 entryIs|@Not Suppressing write because entry or resource key is different  for key: "
       "$K7",
       "L 8 entryIs|@ logEntry: $E7=4 neededEntry: 0x0 version: 3 unitId: 3 "
       "suppressIdenticalWrites: true"});
  static_cast<void>(log().entry(key(7), kUnit));
  static_cast<void>(log().entryRsrcKeys(key(7), kUnit));
  script.expect({"L 8 entry|@ key: $K7 unitId:3", "L 8 entryRsrcKeys|@ key: $K7 unitId:3"});
}

TEST_F(TraceScript, ATableIsMade) {
  log().mountDriftConfig(Asic::UnitId(5), Asic::LogVersion(0));
  script.notes.taken();
  const auto made =
      Fenrik::ptrIsImpl<SwTable>(table->canonicalName(), table->tableId(), Asic::UnitId(5),
                                 rig.set().get(), rig.log(), table->groupResolver());
  script.expect({"T 8 handleInitialized|@doesMarkSweep: False hwErrorHandling: False"});
  EXPECT_NE(made->swTableHelper(), nullptr);
}

/// What the interface traces while it brings its family up.
TEST(InterfaceTrace, OfAFirstStartARestartAndAUnitThatIsNotThereAnyMore) {
  using Lines = std::vector<std::string>;
  const std::string path = "hardware/QuarnBastilGroup/QuarnBastil::TcamEntry/";
  const auto mounted = [&](const std::string& unit, const std::string& version) {
    return Lines{"I 8 makeSwTable|@ unitId: " + unit,
                 "L 8 mountDriftConfig|@ unitId:" + unit + ", logVersion: " + version,
                 "L 2 mountDriftConfig|@ Mounted config for unitId: " + unit + " at " + path +
                     "config/" + unit,
                 "T 8 handleInitialized|@doesMarkSweep: False hwErrorHandling: False"};
  };
  const auto restored = [](const std::string& unit) {
    return Lines{"L 8 entrys|@ unitId:" + unit, "L 8 entrysInDeletion|@ unitId:" + unit,
                 "I 2 makeSwTable|@ Restored 0 entries for table: TcamEntry, unitId: " + unit};
  };
  /// What the report brings that every new table begins with.
  const auto begun = [](const std::string& version, const char* pending) {
    return Lines{"T 8 tableStatusVersion|tableVersion: " + version,
                 "L 8 cleanupEntryLog|@ version " + version, pending};
  };
  const auto joined = [](const std::vector<Lines>& parts) {
    Lines all;
    for (const Lines& part : parts) all.insert(all.end(), part.begin(), part.end());
    return all;
  };
  const Lines cleared = {"T 8 clearTable|",
                         "T 8 delAllEntries| releaseResources: false, neededEntry:0x0 ",
                         "L 8 tableDel|@ neededEntry:0x0, unitId: 3"};
  const std::string mountedLog =
      "L 2 mountDriftChangeLog|@ Mounted entryLog: " + path + "entryLog/04080404, tableVersion: ";
  const std::string madeLog =
      "I 2 handleInitialized|@ Entry log created for table id: 04:08:0404 at version: ";
  const auto foundConfigs = [&](const char* count) {
    return Lines{"I 8 reconcile|@", std::string("I 3 reconcile|@ No. of config entities found: ") +
                                        count + ", in drift path: " + path + "config/"};
  };
  const Lines logMounting = {"I 3 handleInitialized|@ Creating entry log for 04:08:0404",
                             "L 8 handleInitialized|@", "L 8 mountDriftChangeLog|@"};
  const Support::TempDir dir;
  {
    Support::Running agent(dir.path());
    Script script;
    const auto interface = agent.interface<TcamEntryFamily>();
    script.expect(joined({logMounting, {mountedLog + "0", madeLog + "0"}}));
    const auto table = agent.table<TcamEntryFamily>(3);
    script.expect(joined({mounted("3", "0"), restored("3"), begun("0", "TNone")}));
    interface->reconcile();
    script.expect(foundConfigs("1"));
    for (const unsigned n : {1U, 2U, 3U}) {
      const auto entry = Support::entryOf<TcamEntryFamily>(n, 1);
      table->entryWrite(entry.key, entry, nullptr);
      if (n != 3) table->entryRemove(entry.key, nullptr);
    }
    agent.pumpAll();
    Support::ReporterRig(dir.path(), "QuarnBastilGroup").report(TcamEntryFamily::kTableId, 2);
  }
  Support::Running agent(dir.path());
  Script script;
  const auto interface = agent.interface<TcamEntryFamily>();
  script.expect(joined({logMounting,
                        {mountedLog + "5", "L 8 cleanupEntryLog|@ version 2",
                         "L 3 cleanupEntryLog|@ configDrift not found for unitId: 3",
                         "L 3 cleanupEntryLog|@ configDrift not found for unitId: 3",
                         "I 3 handleInitialized|@ Cleaned entry log until table version: 2",
                         "I 2 handleInitialized|@ Turning ON pendingHwWrites", madeLog + "5"}}));
  agent.table<TcamEntryFamily>(5);
  script.expect(joined({mounted("5", "2"), restored("5"), begun("2", "TPending5")}));
  interface->reconcile();
  script.expect(joined({foundConfigs("2"),
                        {"I 3 reconcile|@ Found inactive unit id: 3 "},
                        mounted("3", "2"),
                        {"I 2 makeSwTable|@ Clearing entries for table: TcamEntry, unitId: 3"},
                        cleared,
                        begun("2", "TPending5")}));
  interface->reconcile();
  EXPECT_EQ(script.notes.taken().size(), 2U) << "the second one finds all units active";
  interface->makeSwTable(Asic::UnitId(3),
                         Fenrik::ptrIsImpl<QuarnBastil::TcamEntrySwTableHelperBase>(), true);
  script.expect(
      joined({{"I 8 makeSwTable|@ unitId: 3", "I 3 makeSwTable|@swTable with unitId: 3 exists",
               "I 2 makeSwTable|@Update software table helper",
               "I 2 makeSwTable|@ Clearing entries for table id: 04:08:0404"},
              cleared}));
  EXPECT_EQ(interface->entryLog()->tableVersion().value(), 7U);
}

}  // namespace
