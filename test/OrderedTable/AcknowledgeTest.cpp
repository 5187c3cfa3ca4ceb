#include "OrderedTable/TableFixture.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

template <class Family>
struct Acknowledge : TableFixture<Family> {
  /// Through the log alone, the way the table does it.
  std::uint64_t is(unsigned n, unsigned value, bool suppress) {
    const auto entry = this->entry(n, value);
    return this->log()
        .entryIs(entry.logEntry(), entry.rsrcKeys(), nullptr, this->kUnit, this->table->stats(),
                 suppress)
        .value();
  }
  void clean(std::uint64_t version) { this->log().cleanupEntryLog(Asic::LogVersion(version)); }
  void reported(std::uint64_t version) {
    this->table->tableStatusVersion(Asic::LogVersion(version));
  }
};
TYPED_TEST_SUITE(Acknowledge, AllFamilies);

TYPED_TEST(Acknowledge, AReportReleasesWhatItCoversInTheOrderOfTheLog) {
  for (unsigned n = 1; n <= 7; ++n) this->write(n, n);
  this->agent.pumpAll();
  this->report(4);
  EXPECT_THAT(this->calls,
              ElementsAre("W1 entryDone", "W2 entryDone", "W3 entryDone", "W4 entryDone"));
  this->calls.clear();
  this->report(6);
  EXPECT_THAT(this->calls, ElementsAre("W5 entryDone", "W6 entryDone"));
  EXPECT_EQ(this->table->entryHandleInLogFront()->logVersion(), Asic::LogVersion(7));
  EXPECT_TRUE(this->rig.status()->pendingHwWrites());
  // Once more, and a step back: nothing is released, nothing deleted.
  this->reported(6);
  this->report(2);
  EXPECT_EQ(this->log().tableStatusVersion(), Asic::LogVersion(2));
  EXPECT_THAT(this->logText(), ElementsAre("7:w3 K7=7"));
  EXPECT_EQ(this->calls.size(), 2u);
  EXPECT_TRUE(this->rig.status()->pendingHwWrites());
  this->report(7);
  EXPECT_THAT(this->logText(), IsEmpty());
  EXPECT_EQ(this->calls.back(), "W7 entryDone");
  EXPECT_FALSE(this->rig.status()->pendingHwWrites());
  // With nothing in the queue the flag and the resolver are told all the same.
  this->reported(3);
  EXPECT_TRUE(this->rig.status()->pendingHwWrites());
  this->reported(7);
  EXPECT_FALSE(this->rig.status()->pendingHwWrites());
}

TYPED_TEST(Acknowledge, NoReportHoweverWildTakesLong) {
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

TYPED_TEST(Acknowledge, ARemovedEntryGoesWithTheRecordOfItsOwnRemoval) {
  this->clean(0);
  // Removed and written anew: the record stays with its last version.
  this->write(1, 1);
  this->remove(1);
  this->write(1, 2);
  this->agent.pumpAll();
  this->clean(2);
  EXPECT_THAT(this->configText(), ElementsAre("K1=2@3"));
  this->clean(3);
  this->clean(3);
  EXPECT_THAT(this->configText(), ElementsAre("K1=2@3"));
  // Removed, then everything removed: each by its own record.
  this->write(2, 1);  // 4
  this->remove(2);    // 5
  this->removeAll();  // 6
  this->write(1, 3);  // 7
  this->remove(3);    // nothing
  this->agent.pumpAll();
  EXPECT_THAT(this->configText(), ElementsAre("K1=3@7", "K2=1@5-"));
  this->clean(4);
  EXPECT_THAT(this->configText(), ElementsAre("K1=3@7", "K2=1@5-"));
  this->clean(5);
  EXPECT_THAT(this->configText(), ElementsAre("K1=3@7"));
  // Back and forth: nothing is lost, and what was removed twice waits for the second removal.
  this->clean(1);
  this->remove(1);  // 8
  this->remove(1);  // 9
  this->agent.pumpAll();
  this->clean(6);
  EXPECT_THAT(this->logText(), ElementsAre("7:w3 K1=3", "8:d3 K1=3", "9:d3 K1=3"));
  EXPECT_THAT(this->configText(), ElementsAre("K1=3@9-"));
  this->clean(3);
  this->clean(8);
  EXPECT_THAT(this->configText(), ElementsAre("K1=3@9-"));
  this->clean(100);
  EXPECT_EQ(this->logSize() + this->config().map()->driftMapSize(), 0u);
  EXPECT_EQ(this->log().tableVersion(), Asic::LogVersion(9));
}

TYPED_TEST(Acknowledge, AnIdenticalWriteIsSuppressedWhereThatIsAskedFor) {
  using Record = typename TypeParam::ConfigDriftEntry;
  const auto& stats = this->stats();
  EXPECT_EQ(this->is(1, 5, true), 1u);
  EXPECT_EQ(this->is(1, 5, true), 1u);
  EXPECT_EQ(stats.suppressedWriteCnt(), 1u);
  EXPECT_EQ(this->logSize(), 1u);
  EXPECT_EQ(this->announced(), 1u);
  EXPECT_EQ(this->is(1, 5, false), 2u);
  EXPECT_EQ(this->is(1, 6, true), 3u);
  EXPECT_EQ(stats.suppressCheckDiffCnt(), 1u);
  // Over a removed entry the same value is a real write.
  EXPECT_EQ(this->log().entryDel(this->key(1), nullptr, this->kUnit), Asic::LogVersion(4));
  EXPECT_EQ(this->log().entryDel(this->key(1), nullptr, this->kUnit), Asic::LogVersion(5));
  EXPECT_EQ(this->versionOf(1), 5u);
  EXPECT_EQ(this->is(1, 6, true), 6u);
  EXPECT_TRUE(this->table->entryHas(this->key(1)));
  EXPECT_EQ(this->log().entryDel(this->key(2), nullptr, this->kUnit), Asic::LogVersion(0));
  EXPECT_EQ(stats.suppressedWriteCnt() + stats.suppressCheckDiffCnt(), 2u);
  // A record that is all default counts as none; one without a version is written, but counted.
  this->config().swTableEntriesIs(Record());
  EXPECT_EQ(this->is(0, 0, true), 7u);
  EXPECT_EQ(stats.suppressedWriteCnt(), 1u);
  this->config().swTableEntriesIs(
      Record(this->entry(2, 8).logEntry(), {}, Asic::LogVersion(0), false));
  EXPECT_EQ(this->is(2, 8, true), 8u);
  EXPECT_EQ(stats.suppressedWriteCnt(), 2u);
  EXPECT_EQ(this->is(2, 8, true), 8u);
  EXPECT_EQ(stats.suppressedWriteCnt(), 3u);
  // A table delete is a version and a record, whatever the unit holds.
  this->rig.table(4);
  EXPECT_EQ(this->log().tableDel(nullptr, Asic::UnitId(4)), Asic::LogVersion(9));
  EXPECT_EQ(this->logText().back(), "9:t4 K0=0");
}

TEST(AcknowledgeAfterRestart, RecordsOfAUnitThatIsNotThereGoAllTheSame) {
  const Support::TempDir dir;
  const auto key = [](unsigned n) { return Toy::Key(n); };
  {
    Support::AgentRig agent(dir.path());
    Support::TableRig<ToyFamily> rig(agent);
    for (const unsigned unit : {3u, 4u}) {
      const auto table = rig.table(unit);
      table->entryWrite(key(unit), Toy::Entry(key(unit)), nullptr);
      table->entryRemove(key(unit), nullptr);
    }
    agent.pumpAll();
  }
  Support::AgentRig agent(dir.path());
  Support::TableRig<ToyFamily> rig(agent);
  const auto table = rig.table(4);
  const TraceNotes notes("*/3");
  rig.log()->cleanupEntryLog(Asic::LogVersion(3));
  EXPECT_EQ(notes.lines.size(), 2u);
  EXPECT_THAT(notes.lines.front(), testing::EndsWith(" configDrift not found for unitId: 3"));
  EXPECT_EQ(rig.log()->tableEntryLog()->map()->driftMapSize(), 1u);
  EXPECT_EQ(rig.log()->entrysInDeletion(Asic::UnitId(4)), 1u);
  EXPECT_EQ(rig.log()->tableVersion(), Asic::LogVersion(4));
}

}  // namespace
