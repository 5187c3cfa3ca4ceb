#include <thread>

#include "OrderedTable/TableFixture.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using enum Asic::EntryState;

struct Resolver : TableFixture<SmallToyFamily> {
  const Asic::GroupResolver& resolver() const { return rig.resolver(); }
  Fenrik::String reason() const { return resolver().head().waiting.reason; }
  /// Looks at the head that a piece of work and the pumps behind it bring about.
  std::uint64_t looksOf(const std::function<void()>& work) {
    const auto before = resolver().looks();
    work();
    for (int i = 0; i < 3; ++i) agent.pumpAll();
    return resolver().looks() - before;
  }
  /// Everything that a client or the hardware writer can see of the table.
  std::string everything() const {
    const auto& s = stats();
    return fmt::format(
        "{} | {} | {} {} {} | {} {} {} {} {} | {} {} {} {} {}", fmt::join(configText(), " "),
        fmt::join(logText(), " "), log().tableVersion(), announced(),
        log().tableEntryLog()->collectionControl()->scratchpad(), s.entryWriteCnt(),
        s.entryRemoveCnt(), s.commitCnt(), s.tableClearCnt(), s.lastCommitTime(), table->entrys(),
        table->transientVersionForKeyCount(), rig.status()->pendingHwWrites(),
        table->entryHandleInLogCount(), resolver().length());
  }
};

TEST_F(Resolver, TellsWhatItsHeadIsAndWhatItWaitsFor) {
  EXPECT_EQ(resolver().head().waiting.table, "");
  Support::TableRig<QuarnBastil::BigBbFamily> others(agent);
  const auto other = others.table(7);
  const QuarnLpmLib::BigBbDataModelEntryKey otherKey(1, 2);
  const auto pending =
      other->entryWrite(otherKey, QuarnLpmLib::BigBbDataModelEntry(otherKey), nullptr);
  write(5, 1, pending);
  remove(6);
  const auto head = resolver().head();
  EXPECT_EQ(head.waiting.table, "OrderedSwTable.QuarnBastilGroup.SmallToy");
  EXPECT_EQ(head.waiting.unit, 3u);
  EXPECT_EQ(head.waiting.key, "{number: 5}");
  EXPECT_EQ(head.waiting.operation, "write");
  EXPECT_EQ(head.waiting.reason,
            "OrderedSwTable.QuarnBastilPrefixOuter.BigBb, key {prefix: 1, length: 2}: "
            "entryPending");
  std::this_thread::sleep_for(std::chrono::milliseconds(30));
  EXPECT_GE(resolver().head().age, head.age + std::chrono::milliseconds(20));
  EXPECT_EQ(resolver().length(), 2u);
  rig.group()->pump(10);
  EXPECT_TRUE(resolver().suspended());
  agent.pumpAll();
  EXPECT_FALSE(resolver().suspended());
  EXPECT_EQ(resolver().length(), 0u);
  EXPECT_EQ(resolver().greatestLength(), 2u);
  remove(6);
  EXPECT_EQ(resolver().head().waiting.operation, "remove");
  EXPECT_EQ(reason(), "");
  agent.pumpAll();
  for (unsigned n = 2; n <= 6; ++n) write(5, n);
  removeAll(pending);
  agent.pumpAll();
  EXPECT_EQ(resolver().head().waiting.operation, "remove all");
  EXPECT_EQ(resolver().head().waiting.key, "{number: 0}");
  EXPECT_EQ(reason(), "no room in the log: 6 records wait for the hardware");
}

TEST_F(Resolver, LooksAtItsHeadOnceForEachChangeThatCanFreeItAndForNothingElse) {
  Support::TableRig<QuarnBastil::BigBbFamily> others(agent);
  const auto other = others.table(7);
  const QuarnLpmLib::BigBbDataModelEntryKey otherKey(1, 2);
  const auto cause = looseHandle(entryPending);
  const auto unrelated = looseHandle(entryPending);
  rig.table(4);
  EXPECT_EQ(looksOf([&] { write(1, 1, cause); }), 1u);
  EXPECT_EQ(looksOf([&] {}), 0u);
  EXPECT_FALSE(agent.tables().pump(10).more);
  EXPECT_EQ(looksOf([&] {
              for (unsigned n = 0; n < 1000; ++n) remove(n);
              removeAll();
              write(2, 2, cause);
            }),
            0u);
  EXPECT_EQ(looksOf([&] { unrelated->entryStateIs(entryInLog); }), 0u);
  EXPECT_EQ(looksOf([&] { cause->logVersionIs(Asic::LogVersion(5)); }), 0u);
  EXPECT_EQ(looksOf([&] { static_cast<void>(table->entryRead(key(1))); }), 0u);
  // A commit anywhere, and a report for any number of units, may have freed it.
  EXPECT_EQ(looksOf([&] {
              for (int i = 0; i < 5; ++i) {
                other->entryWrite(otherKey, QuarnLpmLib::BigBbDataModelEntry(otherKey), nullptr);
              }
              others.group()->pump(100);
            }),
            1u);
  EXPECT_EQ(looksOf([&] { hw.report(SmallToyFamily::kTableId, 1); }), 1u);
  EXPECT_EQ(looksOf([&] { hw.report(SmallToyFamily::kTableId, 1); }), 0u);
  EXPECT_EQ(looksOf([&] { hw.report(SmallToyFamily::kTableId, 0); }), 1u);
  EXPECT_EQ(resolver().length(), 1003u);
  // Unblocked, everything behind it goes, with one look for each.
  EXPECT_EQ(looksOf([&] { cause->entryStateIs(entryInLog); }), 1003u);
  EXPECT_EQ(resolver().length(), 0u);
  EXPECT_EQ(resolver().greatestLength(), 1003u);
}

TEST_F(Resolver, AFullLogHoldsEverythingBackUntilAReportMakesRoom) {
  for (unsigned n = 1; n <= 5; ++n) write(1, n);
  agent.pumpAll();
  const auto sixth = write(1, 6);
  agent.pumpAll();
  EXPECT_EQ(sixth->entryState(), entryInLog);
  const auto absent = remove(9);
  removeAll();
  write(2, 7, looseHandle(entryRejected));
  TraceNotes notes("*/1");
  agent.pumpAll();
  agent.pumpAll();
  ASSERT_EQ(notes.lines.size(), 1u);
  EXPECT_THAT(notes.lines.front(),
              testing::EndsWith(" 1 isResolverEntryResolved|key: {number: 9}, isEntryDeleted: true "
                                ": no space in entryLog!"));
  EXPECT_EQ(absent->entryState(), entryPending);
  EXPECT_EQ(resolver().length(), 3u);
  EXPECT_FALSE(agent.tables().pump(10).more);
  calls.clear();
  // One place: what needs none goes, then the remove-all takes it, then the log is full again.
  report(1);
  EXPECT_EQ(resolver().length(), 1u);
  EXPECT_EQ(logSize(), 6u);
  report(7);
  EXPECT_EQ(resolver().length(), 0u);
  EXPECT_EQ(logSize(), 0u);
  EXPECT_THAT(calls, ElementsAre("W1 entryDone", "R9 entryDone", "W1 entryDone", "W1 entryDone",
                                 "W1 entryDone", "W1 entryDone", "W1 entryDone",
                                 "W2 entryDependencyFailed"));
  // Those who do not ask first find room beyond the limit.
  for (unsigned n = 1; n <= 6; ++n) write(1, n);
  agent.pumpAll();
  table->clearTable(false);
  EXPECT_EQ(logSize(), 7u);
  EXPECT_EQ(log().tableVersion(), Asic::LogVersion(14));
}

TEST_F(Resolver, WhatDoesNotFitIntoTheConfigurationIsRejectedAsIfItHadNeverBeenAsked) {
  for (unsigned n = 1; n <= 4; ++n) write(n, n);
  agent.pumpAll();
  report(4);
  calls.clear();
  const auto before = everything();
  TraceNotes notes("*/1");
  const auto rejected = write(5, 5);
  const auto dependent = write(1, 9, rejected);
  agent.tables().pump(1);
  EXPECT_EQ(rejected->entryState(), entryRejected);
  EXPECT_EQ(rejected->logVersion(), Asic::LogVersion(0));
  ASSERT_EQ(notes.lines.size(), 1u);
  EXPECT_THAT(notes.lines.front(), testing::HasSubstr(" 1 commitEntry|"));
  for (const char* named : {"OrderedSwTable.QuarnBastilGroup.SmallToy", "unitId: 3",
                            "key: {number: 5}", "capacity: 4"}) {
    EXPECT_THAT(notes.lines.front(), testing::HasSubstr(named));
  }
  EXPECT_FALSE(table->entryHas(key(5)));
  agent.pumpAll();
  EXPECT_EQ(dependent->entryState(), entryDependencyFailed);
  EXPECT_THAT(calls, ElementsAre("W5 entryRejected", "W1 entryDependencyFailed"));
  write(5, 5);
  agent.pumpAll();
  calls.clear();
  // Alone it leaves no trace in anything.
  write(1, 1);
  agent.pumpAll();
  report(5);
  const auto settled = everything();
  write(5, 5);
  EXPECT_TRUE(rig.status()->pendingHwWrites());
  agent.pumpAll();
  EXPECT_EQ(everything(), settled);
  EXPECT_NE(before, settled);
  calls.clear();
  // What is there already is written, removed and cleared.
  const auto again = write(4, 44);
  remove(3);
  agent.pumpAll();
  EXPECT_EQ(again->entryState(), entryInLog);
  // A record in deletion takes its place until the hardware has acknowledged that.
  EXPECT_EQ((write(6, 6), agent.pumpAll(), calls.back()), "W6 entryRejected");
  report(7);
  write(6, 6);
  // Overtaken by a remove, it leaves that one's state alone.
  write(7, 7);
  const auto later = remove(7);
  agent.tables().pump(2);
  EXPECT_TRUE(table->transientRemoveEntryHas(key(7)));
  EXPECT_TRUE(table->transientVersionForKeyHas(key(7)));
  agent.pumpAll();
  removeAll();
  agent.pumpAll();
  EXPECT_EQ(later->entryState(), entryDone);
  EXPECT_EQ(table->transientVersionForKeyCount(), 0u);
  EXPECT_THAT(configText(), ElementsAre("K1=1@9-", "K2=2@9-", "K4=44@9-", "K6=6@9-"));
}

TEST_F(Resolver, APumpKeepsToItsBudgetAndSaysWhetherThereIsMore) {
  Support::TableRig<QuarnBastil::BigBbFamily> others(agent);
  const auto other = others.table(7);
  for (unsigned n = 0; n < 10; ++n) remove(n);
  for (unsigned n = 0; n < 100; ++n) other->entryRemove({n, 0}, nullptr);
  auto pumped = agent.tables().pump(0);
  EXPECT_TRUE(pumped.commits == 0 && pumped.more);
  pumped = agent.tables().pump(105);
  EXPECT_TRUE(pumped.commits == 105 && pumped.more);
  EXPECT_EQ(resolver().length() + others.resolver().length(), 5u);
  pumped = agent.tables().pump(105);
  EXPECT_TRUE(pumped.commits == 5 && !pumped.more);
  // No group waits for the end of another one's queue.
  for (unsigned n = 0; n < 1000; ++n) remove(n);
  for (unsigned n = 0; n < 1000; ++n) other->entryRemove({n, 0}, nullptr);
  agent.tables().pump(1000);
  EXPECT_GT(resolver().length(), 400u);
  EXPECT_GT(others.resolver().length(), 400u);
  agent.pumpAll();
  // Reports are counted, each once, and taken in first.
  write(1, 1);
  agent.pumpAll();
  hw.report(SmallToyFamily::kTableId, 1);
  EXPECT_EQ(agent.tables().pump(0).reports, 1u);
  EXPECT_EQ(calls.back(), "W1 entryDone");
  EXPECT_EQ(agent.tables().pump(0).reports, 0u);
  hw.report(SmallToyFamily::kTableId, 1);
  EXPECT_EQ(agent.tables().pump(0).reports, 0u);
}

TEST_F(Resolver, AWaitEndsWithAReportOrWithItsTime) {
  using namespace std::chrono_literals;
  agent.pumpAll();
  const auto wait = [&](std::chrono::nanoseconds timeout, bool expected) {
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(agent.tables().waitForReport(timeout), expected);
    return std::chrono::steady_clock::now() - begin;
  };
  EXPECT_GE(wait(40ms, false), 40ms);
  EXPECT_LT(wait(0ms, false), 1s);
  EXPECT_LT(wait(-5ms, false), 1s);
  write(1, 1);
  agent.pumpAll();
  std::thread hardware([&] {
    std::this_thread::sleep_for(20ms);
    hw.report(SmallToyFamily::kTableId, 1);
  });
  EXPECT_LT(wait(20s, true), 10s);
  hardware.join();
  EXPECT_LT(wait(20s, true), 10s);  // not taken in yet
  agent.pumpAll();
  EXPECT_EQ(calls.size(), 1u);
  wait(1ms, false);
}

TEST_F(Resolver, ATableMayGoWithOperationsQueuedAndLogged) {
  const auto logged = write(1, 1);
  agent.pumpAll();
  const auto queued = write(2, 2);
  write(2, 3, queued);
  removeAll();
  rig.set()->swTableDel(kUnit);
  table = nullptr;
  hw.report(SmallToyFamily::kTableId, 1);
  EXPECT_EQ(agent.tables().pump(0).reports, 1u);
  EXPECT_EQ(logSize(), 1u);
  EXPECT_THAT(calls, IsEmpty());
  EXPECT_EQ(logged->entryState(), entryInLog);
  EXPECT_EQ(queued->entryState(), entryRejected);
  // Its queue passes without a commit, and its handles still tell those that depend on them.
  const auto other = rig.table(4);
  const auto dependent = other->entryWrite(Toy::Key(1), Toy::Entry(Toy::Key(1)), logged);
  const auto failed = other->entryWrite(Toy::Key(2), Toy::Entry(Toy::Key(2)), queued);
  agent.pumpAll();
  EXPECT_EQ(rig.resolver().length(), 0u);
  EXPECT_EQ(dependent->entryState(), entryInLog);
  EXPECT_EQ(failed->entryState(), entryDependencyFailed);
  EXPECT_THAT(calls, IsEmpty());
}

TEST(ResolverAtTheRealLimits, HoldsBackTheMillionthAndFirstRecordAndRejectsTheKeyTooMany) {
  const Support::TempDir dir;
  Support::AgentRig agent(dir.path());
  Support::TableRig<ToyFamily> rig(agent);
  const auto table = rig.table(3);
  Support::ReporterRig hw(dir.path(), ToyFamily::Constants::canonicalGroupName());
  const auto entry = [](unsigned n) { return Toy::Entry(Toy::Key(n)); };
  const auto fill = [&](unsigned n) {
    rig.log()->entryIs(entry(n).logEntry(), {}, nullptr, Asic::UnitId(3), table->stats(), false);
  };
  for (unsigned n = 0; n < 65'536; ++n) fill(n);
  const auto tooMany = table->entryWrite(Toy::Key(65'536), entry(65'536), nullptr);
  agent.pumpAll();
  EXPECT_EQ(tooMany->entryState(), entryRejected);
  EXPECT_EQ(table->entrys(), 65'536u);
  for (unsigned n = 65'536; n < 999'999; ++n) fill(n & 0xffff);
  const auto last = table->entryWrite(Toy::Key(1), entry(1), nullptr);
  const auto waits = table->entryRemove(Toy::Key(1), nullptr);
  agent.pumpAll();
  EXPECT_EQ(last->logVersion(), Asic::LogVersion(1'000'000));
  EXPECT_EQ(waits->entryState(), entryPending);
  EXPECT_EQ(rig.resolver().head().waiting.reason,
            "no room in the log: 1000000 records wait for the hardware");
  hw.report(ToyFamily::kTableId, 1);
  agent.pumpAll();
  EXPECT_EQ(waits->logVersion(), Asic::LogVersion(1'000'001));
  EXPECT_EQ(rig.log()->tableEntryLog()->map()->driftMapSize(), 1'000'000u);
  hw.report(ToyFamily::kTableId, 1'000'001);
  agent.pumpAll();
  EXPECT_FALSE(rig.status()->pendingHwWrites());
  EXPECT_EQ(rig.log()->tableEntryLog()->map()->driftMapSize(), 0u);
}

}  // namespace
