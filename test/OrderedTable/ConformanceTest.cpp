#include <fcntl.h>
#include <unistd.h>

#include <cstring>

#include "OrderedTable/TableFixture.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using Needed = std::map<Asic::SwTableId, std::uint64_t>;

template <class Family>
struct Conformance : TableFixture<Family> {
  /// What is in flight on key 5 and what is configured under it, versions from `base` on.
  std::string view(unsigned unit, std::uint64_t base) {
    const auto& table = *this->table;
    const auto key = this->key(5);
    const auto number = [](const auto& version) {
      return version.valid() ? fmt::format("{}", version.value()) : "-";
    };
    const auto add = table.transientAddEntry(key);
    const auto remove = table.transientRemoveEntry(key);
    bool found = false;
    const auto& record = this->config(unit).map()->driftMapFind(key, found);
    return fmt::format(
        "add={} rm={} v={} all={} cfg={}@{}{}",
        add == nullptr ? "-" : fmt::format("{}", this->valueOf(add->entry())),
        remove == nullptr ? "-" : number(remove->entryHandle()->version().majorVersion()),
        number(table.transientVersionForKey(key).majorVersion()),
        number(table.transientRemoveAllVersion()), this->valueOf(record.logEntry),
        record.logVersion.value() - base, record.isDeleted ? "-" : "");
  }
};
TYPED_TEST_SUITE(Conformance, AllFamilies);

TYPED_TEST(Conformance, AnOperationIsQueuedAndSeenAtOnceAndTouchesNoSharedMemory) {
  const auto first = this->write(5, 1);
  const auto second =
      this->table->entryWrite(this->key(5), this->entry(6, 2), nullptr);  // another key within
  const auto removed = this->remove(8);
  EXPECT_EQ(first->version(), Asic::EntryVersion(Asic::MajorVersion(0), 0));
  EXPECT_EQ(second->version(), Asic::EntryVersion(Asic::MajorVersion(1), 0));
  EXPECT_EQ(first->key(), this->key(5));
  for (const auto& handle : {first, second, removed}) {
    EXPECT_EQ(handle->entryState(), Asic::EntryState::entryPending);
    EXPECT_EQ(handle->logVersion(), Asic::LogVersion(0));
    EXPECT_EQ(handle->tableId(), TypeParam::kTableId);
    EXPECT_EQ(handle->swTable(), &*this->table);
  }
  EXPECT_EQ(this->rig.resolver().length(), 3u);
  EXPECT_EQ(this->table->transientAddEntryCount(), 1u);
  EXPECT_EQ(this->valueOf(this->table->entryRead(this->key(5))), 2u);
  EXPECT_EQ(this->table->entryRead(this->key(5)).key, this->key(5));
  EXPECT_FALSE(this->table->entryHas(this->key(6)));
  EXPECT_TRUE(this->table->transientRemoveEntryHas(this->key(8)));
  EXPECT_FALSE(this->table->transientVersionForKey(this->key(6)).valid());
  EXPECT_FALSE(this->table->transientVersionForKeyGet(this->key(6)).has_value());
  this->removeAll();
  EXPECT_EQ(this->table->transientRemoveAllVersion(), Asic::MajorVersion(0));
  this->removeAll();
  EXPECT_EQ(this->table->transientRemoveAllVersion(), Asic::MajorVersion(1));
  EXPECT_EQ(this->table->transientAddEntryCount() + this->table->transientRemoveEntryCount(), 0u);
  EXPECT_EQ(this->table->transientVersionForKeyCount(), 2u);
  EXPECT_EQ(this->stats().entryWriteCnt(), 2u);
  EXPECT_EQ(this->stats().entryRemoveCnt(), 1u);
  EXPECT_EQ(this->stats().commitCnt(), 0u);
  EXPECT_EQ(this->logSize() + this->config().map()->driftMapSize() + this->announced(), 0u);
  EXPECT_TRUE(this->rig.status()->pendingHwWrites());
  EXPECT_THAT(this->calls, IsEmpty());
}

TYPED_TEST(Conformance, OperationsOnOneKeyOvertakeEachOtherInTheViewAndNeverInTheLog) {
  struct Row {
    const char* operations;
    const char* stages[3];
  };
  const Row rows[] = {
      {"WW",
       {"add=2 rm=- v=1 all=- cfg=9@1", "add=2 rm=- v=1 all=- cfg=1@2",
        "add=- rm=- v=- all=- cfg=2@3"}},
      {"WR",
       {"add=- rm=1 v=1 all=- cfg=9@1", "add=- rm=1 v=1 all=- cfg=1@2",
        "add=- rm=- v=- all=- cfg=1@3-"}},
      {"RW",
       {"add=2 rm=- v=1 all=- cfg=9@1", "add=2 rm=- v=1 all=- cfg=9@2-",
        "add=- rm=- v=- all=- cfg=2@3"}},
      {"RR",
       {"add=- rm=1 v=1 all=- cfg=9@1", "add=- rm=1 v=1 all=- cfg=9@2-",
        "add=- rm=- v=- all=- cfg=9@3-"}},
      {"WA",
       {"add=- rm=- v=0 all=0 cfg=9@1", "add=- rm=- v=0 all=0 cfg=1@2",
        "add=- rm=- v=0 all=- cfg=1@3-"}},
      {"RA",
       {"add=- rm=- v=0 all=0 cfg=9@1", "add=- rm=- v=0 all=0 cfg=9@2-",
        "add=- rm=- v=0 all=- cfg=9@2-"}},
      {"AW",
       {"add=2 rm=- v=0 all=0 cfg=9@1", "add=2 rm=- v=0 all=- cfg=9@2-",
        "add=- rm=- v=- all=- cfg=2@3"}},
      {"AR",
       {"add=- rm=0 v=0 all=0 cfg=9@1", "add=- rm=0 v=0 all=- cfg=9@2-",
        "add=- rm=- v=- all=- cfg=9@3-"}},
      {"AA",
       {"add=- rm=- v=- all=1 cfg=9@1", "add=- rm=- v=- all=0 cfg=9@2-",
        "add=- rm=- v=- all=- cfg=9@2-"}},
  };
  unsigned unit = 10;
  for (const Row& row : rows) {
    SCOPED_TRACE(row.operations);
    this->table = this->rig.table(++unit);
    const auto base = this->log().tableVersion().value();
    this->write(5, 9);
    this->agent.pumpAll();
    for (unsigned i = 0; i < 2; ++i) {
      if (row.operations[i] == 'W') this->write(5, i + 1);
      if (row.operations[i] == 'R') this->remove(5);
      if (row.operations[i] == 'A') this->removeAll();
    }
    EXPECT_EQ(this->view(unit, base), row.stages[0]);
    EXPECT_EQ(this->pumpOne(), 1u);
    EXPECT_EQ(this->view(unit, base), row.stages[1]);
    EXPECT_EQ(this->pumpOne(), 1u);
    EXPECT_EQ(this->view(unit, base), row.stages[2]);
    EXPECT_EQ(this->log().tableVersion().value(), base + 3);
    EXPECT_EQ(this->announced(), base + 3);
    if (!this->table->transientVersionForKeyHas(this->key(5))) continue;
    // A version that stayed behind has no effect but a higher count, and goes with the next commit.
    EXPECT_FALSE(this->table->hasPendingHwWrites() &&
                 this->log().tableVersion() == this->log().tableStatusVersion());
    EXPECT_EQ(this->write(5, 3)->version().majorVersion(), Asic::MajorVersion(1));
    this->agent.pumpAll();
    EXPECT_EQ(this->table->transientVersionForKeyCount(), 0u);
  }
}

TYPED_TEST(Conformance, TheLogTellsWhatHappenedInOneSequenceOverAllUnits) {
  const auto other = this->rig.table(4);
  this->write(1, 7);
  other->entryWrite(this->key(1), this->entry(1, 8), nullptr);
  const auto removed = this->remove(1);
  this->removeAll();
  this->write(2, 6);
  other->entryRemoveAll(nullptr);
  this->agent.pumpAll();
  EXPECT_THAT(this->logText(), ElementsAre("1:w3 K1=7", "2:w4 K1=8", "3:d3 K1=7", "4:t3 K0=0",
                                           "5:w3 K2=6", "6:t4 K0=0"));
  // What was in deletion keeps the version of its own delete.
  EXPECT_THAT(this->configText(), ElementsAre("K1=7@3-", "K2=6@5"));
  EXPECT_THAT(this->configText(4), ElementsAre("K1=8@6-"));
  EXPECT_EQ(removed->logVersion(), Asic::LogVersion(3));
  EXPECT_EQ(this->log().tableEntryLog()->collectionControl()->scratchpad(), 6u);
  EXPECT_EQ(this->announced(), 6u);
  EXPECT_EQ(this->stats().tableClearCnt(), 1u);
  EXPECT_EQ(this->stats().commitCnt(), 4u);
  EXPECT_NEAR(this->stats().lastCommitTime(), static_cast<double>(time(nullptr)), 5.0);
}

TYPED_TEST(Conformance, ACommitThatFindsNothingToWriteIsDoneAtOnce) {
  // A remove of a key that is nowhere.
  const auto absent = this->remove(5);
  this->agent.pumpAll();
  EXPECT_EQ(absent->entryState(), Asic::EntryState::entryDone);
  EXPECT_EQ(absent->logVersion(), Asic::LogVersion(0));
  // A remove-all of an empty table: no record, no counter, but it is taken back.
  this->removeAll();
  this->agent.pumpAll();
  EXPECT_FALSE(this->table->transientRemoveAllVersion().valid());
  EXPECT_EQ(this->logSize(), 0u);
  EXPECT_EQ(this->stats().tableClearCnt(), 0u);
  EXPECT_EQ(this->stats().commitCnt(), 2u);
  EXPECT_FALSE(this->rig.status()->pendingHwWrites());
  // A record that was removed is deleted once more, unless the cleaning has taken it.
  this->write(5, 1);
  this->remove(5);
  this->remove(5);
  const auto last = this->remove(5);
  this->agent.tables().pump(3);
  EXPECT_EQ(this->versionOf(5), 3u);
  this->report(3);
  EXPECT_EQ(last->entryState(), Asic::EntryState::entryDone);
  EXPECT_EQ(this->log().tableVersion(), Asic::LogVersion(3));
  // A version that the hardware has reported already.
  this->report(100);
  const auto early = this->write(6, 1);
  this->agent.pumpAll();
  EXPECT_EQ(early->entryState(), Asic::EntryState::entryDone);
  EXPECT_EQ(early->logVersion(), Asic::LogVersion(4));
  EXPECT_EQ(this->table->entryHandleInLogCount(), 0u);
  EXPECT_THAT(this->calls, ElementsAre("R5 entryDone", "W5 entryDone", "R5 entryDone",
                                       "R5 entryDone", "R5 entryDone", "W6 entryDone"));
}

TYPED_TEST(Conformance, ARemoveAllTellsItsOutcomeToNobodyUnlessItFails) {
  using Item = typename TypeParam::ResolverEntry;
  using Wrapper = typename TypeParam::EntryWrapper;
  const auto commit = [&] {
    const auto handle = this->looseHandle(Asic::EntryState::entryPending);
    handle->responseHandlerIs(this->noting("A"));
    const auto wrapper =
        Fenrik::ptrIsImpl<Wrapper>(typename TypeParam::Entry(this->key(0)), handle);
    this->table->transientRemoveAllVersionIs(Asic::MajorVersion(0));
    this->table->commitEntry(Fenrik::ptrIsImpl<Item>(
        nullptr, Asic::EntryFlags(Asic::EntryFlags::kTableDelete), &*this->table, wrapper));
    return handle;
  };
  EXPECT_EQ(commit()->entryState(), Asic::EntryState::entryPending);
  this->write(5, 1);
  this->agent.pumpAll();
  const auto logged = commit();
  this->report(2);
  EXPECT_EQ(logged->entryState(), Asic::EntryState::entryInLog);
  EXPECT_EQ(logged->logVersion(), Asic::LogVersion(2));
  EXPECT_EQ(this->table->entryHandleInLogCount(), 0u);
  this->removeAll(this->looseHandle(Asic::EntryState::entryRejected));
  this->agent.pumpAll();
  EXPECT_THAT(this->calls, ElementsAre("W5 entryDone", "A entryDependencyFailed"));
}

TYPED_TEST(Conformance, ADependencyIsWaitedForAndItsVersionReachesTheHardwareWriter) {
  using Other = typename Facts<TypeParam>::Other;
  Support::TableRig<Other> others(this->agent);
  const auto other = others.table(7);
  const auto otherKey = Facts<Other>::key(1);
  const auto absent = other->entryRemove(otherKey, nullptr);
  this->agent.pumpAll();

  const auto first = other->entryWrite(otherKey, typename Other::Entry(otherKey), nullptr);
  const auto second = other->entryWrite(otherKey, typename Other::Entry(otherKey), nullptr);
  const auto across = this->write(1, 1, second);
  const auto within = this->write(2, 2, across);
  this->remove(1, within);
  this->removeAll(absent);
  this->write(3, 3, this->looseHandle(Asic::EntryState::entryInLog));
  // The group alone cannot go on, and nothing passes its head.
  EXPECT_EQ(this->rig.group()->pump(100), 0u);
  EXPECT_EQ(this->rig.resolver().length(), 5u);
  EXPECT_EQ(others.group()->pump(1), 1u);
  EXPECT_EQ(this->rig.group()->pump(100), 0u);
  EXPECT_EQ(others.group()->pump(1), 1u);
  // In the log is enough, whatever the hardware says.
  EXPECT_EQ(second->entryState(), Asic::EntryState::entryInLog);
  EXPECT_EQ(this->rig.group()->pump(100), 5u);
  EXPECT_EQ(this->needed(1), (Needed{{Other::kTableId, 2}}));
  EXPECT_EQ(this->needed(2), (Needed{{TypeParam::kTableId, 1}}));
  EXPECT_EQ(this->needed(3), (Needed{{TypeParam::kTableId, 2}}));
  // Version 0 is a version of the table too.
  EXPECT_EQ(absent->entryState(), Asic::EntryState::entryDone);
  EXPECT_EQ(this->needed(4), (Needed{{Other::kTableId, 0}}));
  EXPECT_EQ(this->needed(5), (Needed{{TypeParam::kTableId, 0}}));
  EXPECT_EQ(this->announced(), 5u);
  // What was needed is forgotten with the versions that needed it.
  this->report(3);
  EXPECT_THAT(this->needed(3), IsEmpty());
  EXPECT_EQ(this->needed(4).size(), 1u);
  // Done is resolved as well.
  EXPECT_EQ(across->entryState(), Asic::EntryState::entryDone);
  this->write(4, 4, across);
  this->agent.pumpAll();
  EXPECT_EQ(this->needed(6), (Needed{{TypeParam::kTableId, 1}}));
}

TYPED_TEST(Conformance, AFailedDependencyFailsWhoDependsAndLeavesTheViewAsItWas) {
  this->write(1, 7);
  this->write(2, 7);
  this->agent.pumpAll();
  this->report(2);
  this->calls.clear();
  using enum Asic::EntryState;
  for (const auto state : {entryRejected, entryDependencyFailed, entryResourceFailed}) {
    SCOPED_TRACE(fmt::format("{}", state));
    const auto cause = this->looseHandle(state);
    const auto write = this->write(1, 8, cause);
    const auto remove = this->remove(2, cause);
    this->removeAll(write);
    const auto next = this->write(3, 1, remove);
    const auto commits = this->stats().commitCnt();
    TraceNotes notes("*/1");
    this->agent.pumpAll();
    EXPECT_THAT(this->calls, ElementsAre("W1 entryDependencyFailed", "R2 entryDependencyFailed",
                                         "A entryDependencyFailed", "W3 entryDependencyFailed"));
    const std::string tracer(Kiv::bareTypeName<typename TypeParam::SwTable>());
    const auto line = [&](std::string_view text, const std::string& key) {
      return fmt::format("{} 1 commitEntry|{}{}", tracer, text, key);
    };
    const auto keyText = [&](unsigned n) { return fmt::format("{}", this->key(n)); };
    EXPECT_THAT(notes.lines, ElementsAre(line("Failed dependent entry for key: ", keyText(1)),
                                         line("Failed to commit entry key: ", keyText(1)),
                                         line("Failed dependent entry for key: ", keyText(2)),
                                         line("Failed to commit entry key: ", keyText(2)),
                                         line("Failed dependent entry for remove all", ""),
                                         line("Failed to commit entry remove all operation", ""),
                                         line("Failed dependent entry for key: ", keyText(3)),
                                         line("Failed to commit entry key: ", keyText(3))));
    EXPECT_EQ(this->stats().commitCnt(), commits + 4);
    EXPECT_EQ(this->logSize(), 0u);
    // The failed remove-all leaves its marker for good; it had emptied the view of the first two.
    EXPECT_TRUE(this->table->transientRemoveAllVersion().valid());
    EXPECT_TRUE(this->table->entryHas(this->key(3)));
    EXPECT_EQ(next->logVersion(), Asic::LogVersion(0));
    EXPECT_TRUE(this->rig.status()->pendingHwWrites());
    this->calls.clear();
    this->table->transientRemoveAllVersionIs(Asic::MajorVersion());
  }
  // A later operation on the key clears what stayed, its own commit only.
  EXPECT_EQ(this->table->transientVersionForKeyCount(), 3u);
  this->remove(3);
  this->agent.pumpAll();
  EXPECT_FALSE(this->table->transientVersionForKeyHas(this->key(3)));
  EXPECT_EQ(this->table->transientAddEntryCount() + this->table->transientRemoveEntryCount(), 0u);
}

TYPED_TEST(Conformance, AClearLogsOneRecordForWhateverStandsInTheConfiguration) {
  this->table->clearTable(true);
  EXPECT_EQ(this->log().tableVersion(), Asic::LogVersion(0));
  EXPECT_EQ(this->stats().tableClearCnt(), 0u);
  this->write(5, 1);
  this->write(6, 1);
  this->remove(6);
  this->agent.pumpAll();
  this->table->clearTable(true);
  EXPECT_THAT(this->configText(), ElementsAre("K5=1@4-", "K6=1@3-"));
  // Records in deletion are records.
  this->table->clearTable(false);
  EXPECT_EQ(this->log().tableVersion(), Asic::LogVersion(5));
  EXPECT_EQ(this->stats().tableClearCnt(), 2u);
  EXPECT_EQ(this->announced(), 5u);
  this->report(5);
  EXPECT_EQ(this->config().map()->driftMapSize(), 0u);
  EXPECT_FALSE(this->rig.status()->pendingHwWrites());
}

TYPED_TEST(Conformance, AKeyAtTheLimitsOfItsTypeIsAKeyLikeAnyOther) {
  typename TypeParam::Key highest;
  std::memset(static_cast<void*>(&highest), 0xff, sizeof highest);
  for (const auto& key : {typename TypeParam::Key(), highest}) {
    this->table->entryWrite(key, typename TypeParam::Entry(key), nullptr);
    this->agent.pumpAll();
    EXPECT_TRUE(this->table->entryHas(key));
    EXPECT_EQ(this->table->entryFromConfig(key).key, key);
  }
  EXPECT_EQ(this->table->entrys(), 2u);
  this->removeAll();
  this->agent.pumpAll();
  this->report(3);
  EXPECT_EQ(this->config().map()->driftMapSize(), 0u);
}

TYPED_TEST(Conformance, NoReportHoweverWildTakesLong) {
  const auto begin = std::chrono::steady_clock::now();
  constexpr std::uint64_t kHalf = std::uint64_t{1} << 63;
  unsigned n = 0;
  const auto writeNext = [&] {
    ++n;
    return this->write(n, n);
  };
  for (const std::uint64_t wild : {std::uint64_t{1000}, kHalf, ~std::uint64_t{0}, kHalf + 5}) {
    SCOPED_TRACE(wild);
    this->calls.clear();
    writeNext();
    const auto last = writeNext();
    this->agent.pumpAll();
    this->report(wild);
    EXPECT_EQ(this->logSize(), 0u);
    EXPECT_EQ(this->log().tableStatusVersion().value(), wild);
    EXPECT_TRUE(this->rig.status()->pendingHwWrites());
    EXPECT_EQ(this->calls.size(), 2u);
    // What the hardware says to have already is done by the commit, and its record stays for now.
    writeNext();
    this->agent.pumpAll();
    EXPECT_EQ(this->calls.size(), 3u);
    EXPECT_EQ(this->logSize(), 1u);
    // Back to the truth: the walk of numbers begins there.
    this->report(last->logVersion().value());
    EXPECT_EQ(this->logSize(), 1u);
    this->report(this->log().tableVersion().value());
    EXPECT_EQ(this->logSize(), 0u);
    EXPECT_FALSE(this->rig.status()->pendingHwWrites());
    // To nothing and to everything.
    writeNext();
    this->agent.pumpAll();
    this->report(0);
    EXPECT_EQ(this->logSize(), 1u);
    this->report(wild);
    EXPECT_EQ(this->logSize(), 0u);
    this->report(this->log().tableVersion().value());
  }
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(5));
}

/// Makes some slots of a collection unreadable.
void damage(const Drift::DriftFile& file, std::size_t slot, std::size_t count) {
  const auto& header = file.header();
  const int fd = ::open(file.path().c_str(), O_RDWR);
  const std::string garbage(header.slotStride * count, '\x5a');
  EXPECT_EQ(::pwrite(fd, garbage.data(), garbage.size(),
                     static_cast<off_t>(header.slotsOffset + slot * header.slotStride)),
            static_cast<ssize_t>(garbage.size()));
  ::close(fd);
}

TYPED_TEST(Conformance, DamageReadsAsNothingAndIsNotedWithTheCollection) {
  this->write(1, 1);
  this->write(2, 2);
  this->agent.pumpAll();
  damage(this->config().file(), 0, 2);
  const auto noted = [&] { return this->config().map()->corruption().count; };
  EXPECT_EQ(this->table->entryFromConfig(this->key(1)), typename TypeParam::Entry());
  EXPECT_GT(noted(), 0u);
  const auto before = noted();
  EXPECT_EQ(this->table->entryRead(this->key(1)), typename TypeParam::Entry());
  EXPECT_FALSE(this->table->entryHas(this->key(2)));
  EXPECT_FALSE(this->table->entryIteratorConst());
  EXPECT_EQ(this->log().entrysInDeletion(this->kUnit), 0u);
  EXPECT_GT(noted(), before + 3);
  // The work goes on, and what is written again can be read again.
  this->write(1, 11);
  this->write(3, 3);
  this->agent.pumpAll();
  EXPECT_EQ(this->table->entryRead(this->key(1)), this->entry(1, 11));
  // A log record that cannot be read holds no other back.
  damage(this->log().tableEntryLog()->file(), 2, 1);
  this->report(4);
  EXPECT_THAT(this->calls,
              ElementsAre("W1 entryDone", "W2 entryDone", "W1 entryDone", "W3 entryDone"));
  EXPECT_GT(this->log().tableEntryLog()->map()->corruption().count, 0u);
}

using SmallLog = TableFixture<SmallToyFamily>;

TEST_F(SmallLog, MovesOnPastARecordThatCannotBeRead) {
  write(1, 1);
  agent.pumpAll();
  const auto& file = log().tableEntryLog()->file();
  damage(file, 1, 1);
  const Drift::Word round = 3 * file.header().slotCount;
  for (unsigned n = 2; n <= round; ++n) {
    write(1, n);
    agent.pumpAll();
    report(n);
  }
  EXPECT_THAT(calls, testing::SizeIs(round));
  EXPECT_THAT(calls, testing::Each(testing::EndsWith("entryDone")));
  EXPECT_EQ(logSize(), 0u);
}

}  // namespace
