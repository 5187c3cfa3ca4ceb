#include <stdexcept>

#include "OrderedTable/TableFixture.h"

namespace {

using testing::ElementsAre;

template <class Family>
struct Hooks : TableFixture<Family> {};
TYPED_TEST_SUITE(Hooks, AllFamilies);

TYPED_TEST(Hooks, AnEntryIsLoggedAgainWhenItsResolvedFieldsChangedAndTheHelperAgrees) {
  struct Resolver : Fenrik::NodeClass<Resolver, typename TypeParam::SwTableHelperBase> {
    bool finalizeOnResourceUpdate(const Fenrik::Ptr<typename TypeParam::EntryWrapper>& wrapper,
                                  const Fenrik::Ptr<typename TypeParam::SwTable>&,
                                  bool failed) override {
      EXPECT_FALSE(failed);
      if (value != 0) Facts<TypeParam>::value(wrapper->mutableEntry()) = value;
      return agrees;
    }
    unsigned value = 0;
    bool agrees = true;
  };
  EXPECT_EQ(this->table->updateEntry(this->key(5)), nullptr);
  this->write(5, 1);
  this->agent.pumpAll();
  this->report(1);
  const auto helper = Fenrik::ptrIsImpl<Resolver>();
  const auto expect = [&](std::uint64_t version, unsigned value, std::uint64_t updates) {
    const auto handle = this->table->updateEntry(this->key(5));
    EXPECT_EQ(handle->entryState(), Asic::EntryState::entryInLog);
    EXPECT_EQ(handle->logVersion().value(), version);
    EXPECT_EQ(handle->version(), Asic::EntryVersion(Asic::MajorVersion(0), 0));
    EXPECT_EQ(this->log().tableVersion().value(), version);
    EXPECT_EQ(this->valueOf(this->table->entryFromConfig(this->key(5))), value);
    EXPECT_EQ(this->stats().updateCnt(), updates);
    EXPECT_EQ(this->table->entryHandleInLogCount(), 0u);
    // The flag is the next operation's, commit's or report's.
    EXPECT_FALSE(this->rig.status()->pendingHwWrites());
    return handle;
  };
  expect(1, 1, 0);
  this->table->swTableHelperIs(helper);
  expect(1, 1, 0);
  helper->value = 4;
  helper->agrees = false;
  expect(1, 1, 0);
  helper->agrees = true;
  expect(2, 4, 1);
  expect(2, 4, 1);
  helper->value = 6;
  const auto updated = expect(3, 6, 2);
  EXPECT_TRUE(this->table->hasPendingHwWrites());
  EXPECT_THAT(this->logText(), ElementsAre("2:w3 K5=4", "3:w3 K5=6"));
  // It passes what is queued on the key, and is a dependency like any other.
  helper->value = 7;
  this->write(5, 2);
  this->write(6, 2, this->table->updateEntry(this->key(5)));
  this->agent.pumpAll();
  EXPECT_THAT(this->configText(), ElementsAre("K5=2@5", "K6=2@6"));
  EXPECT_EQ(this->needed(6), (std::map<Asic::SwTableId, std::uint64_t>{{TypeParam::kTableId, 4}}));
  EXPECT_EQ(this->stats().commitCnt(), 3u);
  this->remove(5);
  this->agent.pumpAll();
  EXPECT_EQ(this->table->updateEntry(this->key(5)), nullptr);
}

TYPED_TEST(Hooks, TheHelperSeesEachEntryBeforeItIsLoggedAndMayChangeIt) {
  struct Recorder : Fenrik::NodeClass<Recorder, typename TypeParam::SwTableHelperBase> {
    explicit Recorder(std::vector<std::string>& notes) : notes(notes) {}
    void finalizeOnSuccess(const Fenrik::Ptr<typename TypeParam::EntryWrapper>& wrapper,
                           bool isDelete,
                           const Fenrik::Ptr<typename TypeParam::SwTable>& table) override {
      if (thrown) throw std::runtime_error("helper");
      notes.push_back(fmt::format("{}{} {}", isDelete ? "R" : "W",
                                  Facts<TypeParam>::value(wrapper->entry()),
                                  table->entryLog()->tableVersion()));
      // A write is still in the view; a remove has left it.
      EXPECT_EQ(table->transientAddEntryHas(wrapper->key()), !isDelete);
      EXPECT_FALSE(table->transientRemoveEntryHas(wrapper->key()));
      Facts<TypeParam>::value(wrapper->mutableEntry()) += 100;
    }
    std::vector<std::string>& notes;
    bool thrown = false;
  };
  std::vector<std::string> notes;
  const auto helper = Fenrik::ptrIsImpl<Recorder>(notes);
  this->write(5, 1);
  this->table->swTableHelperIs(helper);  // also for what is queued already
  this->agent.pumpAll();
  this->remove(5);
  this->agent.pumpAll();
  this->removeAll();
  this->write(6, 2, this->looseHandle(Asic::EntryState::entryRejected));
  this->agent.pumpAll();
  EXPECT_THAT(notes, ElementsAre("W1 0", "R0 1"));
  EXPECT_THAT(this->logText(), ElementsAre("1:w3 K5=101", "2:d3 K5=101", "3:t3 K0=0"));
  // What it throws comes out of the pump; the operation is not tried again and those behind it go
  // on.
  helper->thrown = true;
  const auto lost = this->write(7, 3);
  this->write(8, 4);
  EXPECT_THROW(this->agent.pumpAll(), std::runtime_error);
  EXPECT_EQ(this->rig.resolver().length(), 1u);
  helper->thrown = false;
  this->agent.pumpAll();
  EXPECT_EQ(lost->entryState(), Asic::EntryState::entryPending);
  EXPECT_THAT(this->configText(), ElementsAre("K5=101@2-", "K8=104@4"));
  const auto base = Fenrik::ptrIsImpl<typename TypeParam::SwTableHelperBase>();
  EXPECT_FALSE(base->finalizeOnFailure(nullptr, false, this->table));
  EXPECT_TRUE(base->finalizeOnResourceUpdate(nullptr, this->table, true));
}

TYPED_TEST(Hooks, HandlersMayDoAnythingFromWithinAndTheirExceptionsHarmNobody) {
  // In a commit: what it queues stays pending until it has returned.
  Fenrik::Ptr<const Asic::DependencyEntryHandle> queued;
  unsigned pumped = 0;
  this->table->entryRemoveWithResponseHandler(this->key(1), nullptr, [&](const auto&) {
    queued = this->write(2, 2);
    this->remove(3, queued);
    EXPECT_TRUE(this->table->entryHas(this->key(2)));
    while (this->agent.tables().pump(10).more) ++pumped;
    EXPECT_EQ(queued->entryState(), Asic::EntryState::entryPending);
  });
  this->agent.pumpAll();
  EXPECT_EQ(pumped, 0u);
  EXPECT_EQ(queued->entryState(), Asic::EntryState::entryInLog);
  EXPECT_THAT(this->calls, ElementsAre("R3 entryDone"));
  // In a report, where the handle is out of its queue already.
  this->table->entryWriteWithResponseHandler(
      this->key(4), this->entry(4, 4), nullptr, [&](const auto& handle) {
        EXPECT_NE(this->table->entryHandleInLogFront(), handle);
        EXPECT_EQ(this->agent.tables().pump(10).commits, 0u);
        this->remove(4, handle);
        throw std::runtime_error("handler");
      });
  this->write(5, 5);
  this->agent.pumpAll();
  this->calls.clear();
  this->hw.report(TypeParam::kTableId, 3);
  EXPECT_THROW(this->agent.pumpAll(), std::runtime_error);
  EXPECT_THAT(this->calls, ElementsAre("W2 entryDone"));
  EXPECT_EQ(this->table->entryHandleInLogCount(), 1u);
  EXPECT_TRUE(this->agent.tables().waitForReport(std::chrono::nanoseconds(0)));
  this->agent.pumpAll();
  EXPECT_THAT(this->calls, ElementsAre("W2 entryDone", "W5 entryDone"));
  EXPECT_EQ(this->versionOf(4), 4u);
  // In a commit: nothing is committed twice and those behind go on.
  this->table->entryRemoveWithResponseHandler(
      this->key(9), nullptr, [](const auto&) { throw std::runtime_error("handler"); });
  this->write(6, 6);
  EXPECT_THROW(this->agent.pumpAll(), std::runtime_error);
  EXPECT_EQ(this->rig.resolver().length(), 1u);
  EXPECT_FALSE(this->table->transientRemoveEntryHas(this->key(9)));
  EXPECT_TRUE(this->agent.tables().pump(0).more);
  this->agent.pumpAll();
  EXPECT_EQ(this->log().tableVersion(), Asic::LogVersion(5));
}

}  // namespace
