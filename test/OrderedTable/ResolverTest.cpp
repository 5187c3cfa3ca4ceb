#include <thread>

#include "OrderedTable/TableFixture.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using enum Asic::EntryState;

struct Resolver : TableFixture<SmallToyFamily> {
  const Asic::GroupResolver& resolver() const { return rig.resolver(); }
  std::string head() const {
    const auto head = resolver().head().waiting;
    return fmt::format("{}/{}: {} {}: {}", head.table, head.unit, head.operation, head.key,
                       head.reason);
  }
};

TEST_F(Resolver, TellsWhatItsHeadIsAndWhatItWaitsFor) {
  EXPECT_THAT(head(), testing::StartsWith("/"));
  Support::TableRig<QuarnBastil::BigBbFamily> others(agent);
  const auto other = others.table(7);
  const QuarnLpmLib::BigBbDataModelEntryKey otherKey(1, 2);
  const auto pending =
      other->entryWrite(otherKey, QuarnLpmLib::BigBbDataModelEntry(otherKey), nullptr);
  write(5, 1, pending);
  remove(6);
  const std::string mine = "OrderedSwTable.QuarnBastilGroup.SmallToy/3: ";
  EXPECT_EQ(head(), mine +
                        "write {number: 5}: OrderedSwTable.QuarnBastilPrefixOuter.BigBb, "
                        "key 0.0.0.1/2: entryPending");
  const auto age = resolver().head().age;
  std::this_thread::sleep_for(std::chrono::milliseconds(30));
  EXPECT_GE(resolver().head().age, age + std::chrono::milliseconds(20));
  EXPECT_EQ(resolver().length(), 2u);
  rig.group()->pump(10);
  EXPECT_TRUE(resolver().suspended());
  agent.pumpAll();
  EXPECT_FALSE(resolver().suspended());
  EXPECT_EQ(resolver().length(), 0u);
  EXPECT_EQ(resolver().greatestLength(), 2u);
  remove(6);
  EXPECT_EQ(head(), mine + "remove {number: 6}: ");
  agent.pumpAll();
  for (unsigned n = 2; n <= 6; ++n) write(5, n);
  removeAll(pending);
  TraceNotes notes("*/1");
  agent.pumpAll();
  EXPECT_THAT(notes.lines, ElementsAre(testing::EndsWith(
                               " 1 isResolverEntryResolved|key: {number: 0}, isEntryDeleted: false "
                               ": no space in entryLog!")));
  EXPECT_EQ(head(),
            mine + "remove all {number: 0}: no room in the log: 6 records wait for the hardware");
}

TEST_F(Resolver, APumpKeepsToItsBudgetAndSaysWhetherThereIsMore) {
  Support::TableRig<QuarnBastil::BigBbFamily> others(agent);
  const auto other = others.table(7);
  const auto enqueue = [&](unsigned mine, unsigned theirs) {
    for (unsigned n = 0; n < mine; ++n) remove(n);
    for (unsigned n = 0; n < theirs; ++n) other->entryRemove({n, 0}, nullptr);
  };
  const auto expectPump = [&](unsigned budget, unsigned commits, bool more) {
    const auto pumped = agent.tables().pump(budget);
    EXPECT_TRUE(pumped.commits == commits && pumped.more == more) << budget;
  };
  enqueue(10, 100);
  expectPump(0, 0, true);
  expectPump(105, 105, true);
  EXPECT_EQ(resolver().length() + others.resolver().length(), 5u);
  expectPump(105, 5, false);
  // No group waits for the end of another one's queue.
  enqueue(1000, 1000);
  expectPump(1000, 1000, true);
  EXPECT_GT(resolver().length(), 400u);
  EXPECT_GT(others.resolver().length(), 400u);
  agent.pumpAll();
  // A budget of one goes to each group in turn.
  enqueue(10, 10);
  for (unsigned n = 0; n < 10; ++n) expectPump(1, 1, true);
  EXPECT_EQ(resolver().length(), 5u);
  EXPECT_EQ(others.resolver().length(), 5u);
  agent.pumpAll();
  // Nor for its head.
  const auto cause = looseHandle(entryPending);
  const auto stuck = write(1, 1, cause);
  enqueue(0, 1000);
  expectPump(100, 100, true);
  agent.pumpAll();
  EXPECT_EQ(others.resolver().length(), 0u);
  EXPECT_EQ(stuck->entryState(), entryPending);
  const auto looks = resolver().looks();
  for (int n = 0; n < 100; ++n) expectPump(100, 0, false);
  EXPECT_EQ(resolver().looks(), looks) << "a head is asked again only when something has changed";
  cause->entryStateIs(entryInLog);
  agent.pumpAll();
  EXPECT_EQ(stuck->entryState(), entryInLog);
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

TEST_F(Resolver, AReportThatAHandlerThrowsAtIsTakenAgain) {
  table->entryWriteWithResponseHandler(key(1), entry(1, 1), nullptr,
                                       [](const auto&) { throw std::runtime_error("thrown"); });
  write(2, 2);
  agent.pumpAll();
  hw.report(SmallToyFamily::kTableId, 2);
  EXPECT_THROW(agent.tables().pump(0), std::runtime_error);
  EXPECT_EQ(agent.tables().pump(0).reports, 1u);
  EXPECT_EQ(calls, Calls{"W2 entryDone"});
  EXPECT_EQ(agent.tables().pump(0).reports, 0u);
}

TEST_F(Resolver, NoVersionIsIssuedWithoutRoomForWhatItNeeds) {
  const auto needed = Fenrik::dynamicPtrCast<Asic::NeededEntryDrift>(
      agent.memory()->getEntity(Asic::Constants::neededPathOfEntryLogPath(
          SmallToyFamily::Constants::tableEntryLogDriftPath())));
  // Behind the highest number there is room for none.
  Asic::NeededEntryRecord record;
  record.sequence = Asic::LogVersion(UINT64_MAX - 1);
  needed->neededEntryIs(record);
  const auto needs = Fenrik::ptrIsImpl<Asic::NeededEntry>();
  needs->add({QuarnBastil::BigBbFamily::kTableId, Asic::LogVersion(1)});
  EXPECT_THROW(log().entryIs(entry(1, 1).logEntry(), {}, needs, kUnit, table->stats(), false),
               Drift::CollectionFullException);
  EXPECT_EQ(log().tableVersion().value(), 0u);
  EXPECT_FALSE(log().entryHas(key(1), kUnit));
  EXPECT_EQ(logSize(), 0u);
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

}  // namespace
