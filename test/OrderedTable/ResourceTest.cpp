#include <fmt/ranges.h>

#include <regex>

#include "Fenrik/Exception.h"
#include "OrderedTable/OrderedTableResourceAccessor.h"
#include "OrderedTable/TableFixture.h"
#include "Support/Ear.h"
#include "Support/Golden.h"
#include "Support/Running.h"

namespace {

using QuarnBastil::TcamActionFamily;
using testing::ElementsAre;
using testing::IsEmpty;
using Linkage = TcamActionFamily::ResourceLinkage;
using RequestId = Linkage::ResourceKey;

/// A table whose entries use resources, over the agent's real resource table.
struct ResourceLinks : TableFixture<TcamActionFamily> {
  HandlePtr use(unsigned n, std::uint64_t requestId, unsigned value = 1) {
    Entry made = entry(n, value);
    made.requestId = RequestId(requestId);
    return table->entryWriteWithResponseHandler(made.key, made, nullptr,
                                                noting(fmt::format("W{}", n)));
  }
  void give(std::uint64_t requestId, unsigned destId) {
    agent.resources().valueIs(RequestId(requestId), destId, nullptr);
  }
  void fail(std::uint64_t requestId) {
    agent.resources().resourceIs(RequestId(requestId), State::entryResourceFailed, 0, nullptr);
  }
  unsigned destOf(unsigned n) const { return table->entryRead(key(n)).destId; }
  const Linkage& linkage() const { return *table->requestIdToFecLinkage(); }
  /// Users by request id, as accounted for.
  std::string users() const {
    std::map<std::uint64_t, std::set<unsigned>> all;
    for (auto it = linkage().entryUsageSmIterator(); it; ++it) {
      auto& of = all[it.key().value()];
      for (auto user = it->value()->entryUsageIterator(); user; ++user) {
        of.insert(Support::Numbers<TcamActionFamily>::number(user.key()));
      }
    }
    return fmt::format("{}", all);
  }
  unsigned acknowledged(std::uint64_t requestId) {
    const auto all = agent.resources().users(RequestId(requestId));
    return all.empty() ? 0 : all.front().updateNumber;
  }
  std::string waiting() const { return std::string(rig.resolver().head().waiting.reason.view()); }
  std::uint64_t version() const { return log().tableVersion().value(); }
};

/// Decides over failed resources as it is told, and notes what it is asked.
struct Decider : Fenrik::NodeClass<Decider, QuarnBastil::TcamActionSwTableHelperBase> {
  explicit Decider(std::vector<std::string>& calls) : calls(calls) {}
  void finalizeOnSuccess(const Fenrik::Ptr<Wrapper>& wrapper, bool isDelete,
                         const Fenrik::Ptr<SwTable>&) override {
    calls.push_back(fmt::format("{} {}", isDelete ? "gone" : "good", wrapper->entry().destId));
    if (duringCommit) std::exchange(duringCommit, nullptr)();
  }
  bool finalizeOnFailure(const Fenrik::Ptr<Wrapper>& wrapper, bool,
                         const Fenrik::Ptr<SwTable>&) override {
    calls.push_back(fmt::format("failed {}", wrapper->entry().destId));
    if (accept) wrapper->mutableEntry().destId = 99;
    return accept;
  }
  bool finalizeOnResourceUpdate(const Fenrik::Ptr<Wrapper>& wrapper, const Fenrik::Ptr<SwTable>&,
                                bool failed) override {
    calls.push_back(fmt::format("update {} {}", wrapper->entry().destId, failed));
    return !failed || accept;
  }
  std::vector<std::string>& calls;
  bool accept = false;
  std::function<void()> duringCommit;
};

TEST_F(ResourceLinks, AWriteWaitsForItsOwnResourceAndTakesItsDestination) {
  const auto handle = use(5, 7);
  write(6, 2);
  agent.pumpAll();
  EXPECT_EQ(handle->entryState(), State::entryPending);
  EXPECT_THAT(waiting(), testing::EndsWith("key 7: entryPending"));
  const auto looks = rig.resolver().looks();
  for (unsigned n = 0; n < 100; ++n) give(8, n + 1), agent.pumpAll();
  EXPECT_EQ(rig.resolver().looks(), looks);
  give(7, 70);
  EXPECT_TRUE(rig.resolver().ready());
  agent.pumpAll();
  EXPECT_EQ(rig.resolver().looks(), looks + 2);
  EXPECT_EQ(destOf(5), 70U);
  EXPECT_EQ(destOf(6), 0U);
  EXPECT_EQ(users(), "{7: {5}}");
  EXPECT_EQ(acknowledged(7), 1U);
  EXPECT_EQ(table->entryRead(key(5)).requestId, RequestId(7));
  // Its record is read again with its request id, after a change too, and in deletion.
  give(7, 71);
  EXPECT_EQ(destOf(5), 71U);
  EXPECT_EQ(stats().updateCnt(), 1U);
  EXPECT_EQ(acknowledged(7), 2U);
  table->entryRemove(key(5), nullptr);
  agent.pumpAll();
  EXPECT_EQ(log().entryRsrcKeys(key(5), kUnit).requestId, RequestId(7));
  EXPECT_EQ(users(), "{}");
}

TEST_F(ResourceLinks, TheHelperDecidesOverAFailedResource) {
  const auto helper = Fenrik::ptrIsImpl<Decider>(calls);
  table->swTableHelperIs(helper);
  fail(7);
  const auto refused = use(5, 7);
  agent.pumpAll();
  EXPECT_THAT(calls, ElementsAre("failed 0", "W5 entryDependencyFailed"));
  EXPECT_FALSE(table->entryHas(key(5)));
  EXPECT_FALSE(table->transientVersionForKeyHas(key(5)));
  EXPECT_EQ(version(), 0U);
  EXPECT_EQ(users(), "{}");
  calls.clear();
  helper->accept = true;
  use(5, 7);
  agent.pumpAll();
  EXPECT_THAT(calls, ElementsAre("failed 0"));
  EXPECT_EQ(destOf(5), 99U);
  EXPECT_EQ(users(), "{7: {5}}");
  EXPECT_EQ(stats().resolveFailCnt(), 2U);
  EXPECT_EQ(stats().commitCnt(), 2U);
  calls.clear();
  give(7, 70);
  helper->accept = false;
  fail(7);
  EXPECT_THAT(calls, ElementsAre("update 70 false", "update 0 true"));
  EXPECT_EQ(destOf(5), 70U);
  EXPECT_EQ(stats().updateWithFailedResourceCnt(), 1U);
  EXPECT_EQ(version(), 2U);
  EXPECT_EQ(acknowledged(7), 3U);
}

TEST_F(ResourceLinks, WhatAHookAsksTakesEffectBehindItsCommitAndAHandlerMayThrow) {
  const auto helper = Fenrik::ptrIsImpl<Decider>(calls);
  table->swTableHelperIs(helper);
  give(7, 70);
  helper->duringCommit = [&] {
    give(7, 71);
    EXPECT_EQ(destOf(5), 70U);
  };
  use(5, 7);
  agent.pumpAll();
  EXPECT_THAT(calls, ElementsAre("good 70", "update 71 false"));
  EXPECT_EQ(destOf(5), 71U);
  EXPECT_EQ(version(), 2U);
  EXPECT_EQ(acknowledged(7), 2U);
  // A write whose version is acknowledged already is done at once, and its handler throws.
  report(1000);
  Entry made = entry(6, 1);
  made.requestId = RequestId(7);
  table->entryWriteWithResponseHandler(made.key, made, nullptr,
                                       [](const auto&) { throw Fenrik::Exception("no"); });
  EXPECT_THROW(agent.pumpAll(), Fenrik::Exception);
  EXPECT_EQ(users(), "{7: {5, 6}}");
}

TEST_F(ResourceLinks, AChangeWithoutRoomIsDoneAtTheReportThatMakesRoom) {
  give(7, 70);
  for (unsigned n = 0; n < 10; ++n) use(n, 7);
  agent.pumpAll();
  const auto filler = entry(20, 1).logEntry();
  const auto places = log().log().places();
  while (logSize() + 5 < places) {
    log().entryIs(filler, {}, nullptr, kUnit, table->stats(), false);
  }
  give(7, 71);
  give(7, 72);
  EXPECT_EQ(destOf(0), 70U);
  EXPECT_EQ(acknowledged(7), 1U);
  EXPECT_EQ(linkage().postponedCount(), 1U);
  write(30, 1);
  agent.pumpAll();
  EXPECT_THAT(waiting(), testing::EndsWith("changed resources for 10 more"));
  report(1);
  EXPECT_EQ(linkage().postponedCount(), 1U);
  report(places - 1000);
  EXPECT_EQ(linkage().postponedCount(), 0U);
  for (unsigned n = 0; n < 10; ++n) EXPECT_EQ(destOf(n), 72U);
  EXPECT_EQ(stats().updateCnt(), 10U);
  EXPECT_EQ(acknowledged(7), 3U);
  EXPECT_TRUE(table->entryHas(key(30)));
  EXPECT_EQ(log().reserved(), 0U);
}

/// What a helper must not do: change what the entry is known by, or throw in an update.
TEST_F(ResourceLinks, KeepAnEntrysIdentityFromItsHelper) {
  struct Mover : Fenrik::NodeClass<Mover, QuarnBastil::TcamActionSwTableHelperBase> {
    void finalizeOnSuccess(const Fenrik::Ptr<Wrapper>& wrapper, bool,
                           const Fenrik::Ptr<SwTable>&) override {
      wrapper->mutableEntry().key = key(9);
      wrapper->mutableEntry().requestId = RequestId(8);
      wrapper->mutableEntry().flags = 3;
    }
    bool finalizeOnResourceUpdate(const Fenrik::Ptr<Wrapper>& wrapper, const Fenrik::Ptr<SwTable>&,
                                  bool) override {
      if (wrapper->entry().destId == 72) throw std::runtime_error("cannot follow to 72");
      finalizeOnSuccess(wrapper, false, nullptr);
      return true;
    }
  };
  table->swTableHelperIs(Fenrik::ptrIsImpl<Mover>());
  for (const unsigned destId : {70U, 71U}) {
    give(7, destId);
    if (destId == 70) use(5, 7);
    agent.pumpAll();
    EXPECT_EQ(table->entrys(), 1U);
    const Entry read = table->entryRead(key(5));
    EXPECT_EQ(read.requestId, RequestId(7));
    EXPECT_EQ(read.destId, destId);
    EXPECT_EQ(read.flags, 3U);
    EXPECT_EQ(users(), "{7: {5}}");
  }
  table->entryRemove(key(5), nullptr);
  use(6, 7);
  agent.pumpAll();
  EXPECT_EQ(users(), "{7: {6}}");
  testing::FLAGS_gtest_death_test_style = "threadsafe";
  EXPECT_DEATH(give(7, 72), "cannot follow to 72");
}

TEST_F(ResourceLinks, AreMadeOnceAndRefuseWhatMustNotOccur) {
  give(7, 70);
  use(5, 7);
  agent.pumpAll();
  auto& link = *table->requestIdToFecLinkage();
  const auto sm = link.entryUsageSm(RequestId(7));
  EXPECT_TRUE(sm->hasNotificationActive());
  EXPECT_EQ(link.entryUsageSmIs(sm->resPtr()), sm);
  EXPECT_THROW(link.entryUsageSmIs(nullptr), Fenrik::MutatorArgNullPointerException);
  const auto other = agent.resources().makeClientInstance()->request(RequestId(7), nullptr);
  try {
    link.entryUsageSmIs(other);
    ADD_FAILURE();
  } catch (const Fenrik::MutatorReinstantiatingException& e) {
    EXPECT_EQ(e.fieldId().number(), 138);
    EXPECT_THAT(std::string(e.what()), testing::HasSubstr("TcamActionResourceTableLinkage"));
  }
  EXPECT_FALSE(sm->kivDoZombieReactors(true));
  give(7, 71);
  EXPECT_EQ(destOf(5), 70U);
  EXPECT_TRUE(sm->kivDoZombieReactors(false));
  give(7, 72);
  EXPECT_EQ(destOf(5), 72U);
  EXPECT_EQ(link.entryUsageSmDel(RequestId(7)), sm);
  EXPECT_EQ(link.entryUsageSmDel(RequestId(7)), nullptr);
  give(7, 73);
  EXPECT_EQ(destOf(5), 72U);
}

TEST(ResourceRestart, TakesItsUsersOverAndLogsOnlyWhatDiffers) {
  const Support::TempDir dir;
  auto agent = std::make_unique<Support::Running>(dir.path());
  const auto table = [&] { return agent->table<TcamActionFamily>(3); };
  const auto give = [&](std::uint64_t id, unsigned destId) {
    agent->resources().valueIs(RequestId(id), destId, nullptr);
  };
  const auto use = [&](unsigned n, std::uint64_t requestId) {
    auto made = Support::entryOf<TcamActionFamily>(n, 1);
    made.requestId = RequestId(requestId);
    table()->entryWrite(made.key, made, nullptr);
    agent->pumpAll();
  };
  agent->resources();
  give(7, 70), give(8, 80);
  use(1, 7), use(2, 7), use(3, 8), use(4, 8);
  table()->entryRemove(Support::Numbers<TcamActionFamily>::key(4), nullptr);
  agent->pumpAll();
  const auto version = [&] { return table()->entryLog()->tableVersion().value(); };
  const auto before = version();
  const auto restart = [&] {
    agent.reset();
    agent = std::make_unique<Support::Running>(dir.path());
  };
  const auto users = [&](std::uint64_t id) {
    const auto sm = table()->requestIdToFecLinkage()->entryUsageSm(RequestId(id));
    return sm != nullptr ? sm->entryUsageCount() : 0;
  };
  {
    restart();
    TraceNotes notes("*/2");
    table();
    EXPECT_THAT(notes.lines,
                testing::Contains(testing::EndsWith("TrafficPolicyIntfInput started or restored "
                                                    "with 2 entries")));
    EXPECT_EQ(std::ranges::count_if(
                  notes.lines,
                  [](const auto& line) { return line.find("ackUpdate:") != std::string::npos; }),
              2);
  }
  EXPECT_EQ(version(), before);
  EXPECT_EQ(users(7), 2U);
  EXPECT_EQ(users(8), 1U);
  // The value changes before the tables are made.
  restart();
  agent->resources();
  give(8, 81);
  EXPECT_EQ(version(), before + 1);
  EXPECT_EQ(table()->entryRead(Support::Numbers<TcamActionFamily>::key(3)).destId, 81U);
  restart();
  agent->table<TcamActionFamily>(3, true);
  EXPECT_EQ(table()->requestIdToFecLinkage()->entryUsageSmCount(), 0U);
}

/// Everything that table, linkage and resource table trace and announce, in their order.
TEST_F(ResourceLinks, TraceWhatTheyDoInTheirOrder) {
  std::vector<std::string> lines;
  TraceNotes notes("*/*");
  const Support::Ear ear{
      *linkage().publisher(), [&](const Fenrik::Change& change) {
        notes.lines.push_back(fmt::format("change of {} of {}{}", change.fieldId.number(),
                                          *static_cast<const RequestId*>(change.key),
                                          change.value == nullptr ? ", which goes" : ""));
      }};
  const auto step = [&](const std::string& name, const std::function<void()>& act) {
    static const std::regex address("0x[0-9a-f]{2,}");
    notes.taken();
    act();
    lines.push_back("# " + name);
    for (const auto& line : notes.taken())
      lines.push_back(std::regex_replace(line, address, "SET"));
  };
  const auto pump = [&] { agent.pumpAll(); };
  step("a write without a resource", [&] { write(4, 1), pump(); });
  step("a write whose resource is not known", [&] { use(5, 7), pump(); });
  step("its resource is known", [&] { give(7, 70), pump(); });
  step("a second user", [&] { use(6, 7), pump(); });
  step("the same again", [&] { use(6, 7), pump(); });
  // Users are met in any order: one is left.
  table->entryRemove(key(6), nullptr);
  table->entryRemove(key(4), nullptr);
  pump();
  step("a change", [&] { give(7, 71); });
  step("a failure", [&] { fail(7); });
  step("a write whose resource has failed", [&] { use(8, 7), pump(); });
  give(7, 72), give(9, 90);
  step("another resource", [&] { use(5, 9), pump(); });
  step("a remove-all", [&] { table->entryRemoveAll(nullptr), pump(); });
  use(5, 9), pump();
  step("a clear that leaves the resources", [&] { table->clearTable(false); });
  step("a change for a user that is not configured", [&] { give(9, 91); });
  step("a write of the same", [&] { use(5, 9), pump(); });
  step("a remove", [&] { table->entryRemove(key(5), nullptr), pump(); });
  Support::expectGolden(Support::goldenName(), lines);
}

}  // namespace
