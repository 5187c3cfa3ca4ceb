#include <gtest/gtest.h>

#include <array>
#include <thread>

#include "Fenrik/TypeData.h"
#include "Lamp.h"

namespace {

using Fenrik::NodeFlag;
using Fenrik::Ptr;
using Fenrik::ptrIsImpl;

unsigned long long lampsLive() {
  return Lamp::memAllocationTracker_ == nullptr ? 0 : Lamp::memAllocationTracker_->liveCount();
}

/// Both settings of the process-wide switch.
class NodeTest : public testing::TestWithParam<bool> {
 protected:
  NodeTest() { Fenrik::ThreadControl::tsp_ = GetParam() ? 1 : 0; }
  ~NodeTest() override { Fenrik::ThreadControl::tsp_ = 0; }
};
INSTANTIATE_TEST_SUITE_P(PlainAndAtomic, NodeTest, testing::Bool());

TEST_P(NodeTest, TheFactorysPointerOwnsTheFirstReferenceAndTheLastOneEndsTheNode) {
  std::string ended;
  {
    Ptr<Lamp> lamp = ptrIsImpl<Lamp>(1);
    lamp->ended = &ended;
    EXPECT_EQ(lamp->useCount(), 1u);
    Ptr<const Fenrik::Node> base = lamp;
    EXPECT_EQ(lamp->useCount(), 2u);
    EXPECT_TRUE(Fenrik::dynamicPtrCast<const Watcher>(base) == nullptr);
    EXPECT_TRUE(Fenrik::dynamicPtrCast<const Lamp>(base) == lamp);
    Ptr<Lamp> moved = std::move(lamp);
    EXPECT_TRUE(lamp == nullptr);
    EXPECT_EQ(moved->useCount(), 2u);
    moved = nullptr;
    EXPECT_EQ(ended, "") << "the base pointer still holds it";
    const_cast<Fenrik::Node&>(*base).nodeFlagSet(NodeFlag::hasNotificationActive, true);
  }
  EXPECT_EQ(ended, "ended") << "the flag goes before anything else is torn down";
  EXPECT_EQ(lampsLive(), 0u);
}

TEST_P(NodeTest, AssigningANodeToThePointerThatAloneHoldsItKeepsItAlive) {
  std::string ended;
  Ptr<Lamp> lamp = ptrIsImpl<Lamp>(7);
  lamp->ended = &ended;
  const Ptr<Lamp>& same = lamp;
  lamp = same;
  Ptr<Lamp>& movedFrom = lamp;
  lamp = std::move(movedFrom);
  ASSERT_TRUE(lamp != nullptr);
  lamp->nextIs(ptrIsImpl<Lamp>(8));
  lamp = Ptr<Lamp>(lamp->next());
  EXPECT_EQ(ended, "ended");
  EXPECT_EQ(lamp->brightness(), 8);
  EXPECT_EQ(lamp->useCount(), 1u);
}

TEST_P(NodeTest, AChainOfAMillionNodesGoesWithoutAMillionFrames) {
  Ptr<Lamp> first;
  for (int count = 0; count != 1'000'000; ++count) {
    const Ptr<Lamp> next = std::exchange(first, ptrIsImpl<Lamp>(1));
    first->nextIs(next);
  }
  first = nullptr;
  EXPECT_EQ(lampsLive(), 0u);
}

TEST(Node, CountsOfManyThreadsEndTheNodeExactlyOnce) {
  Fenrik::ThreadControl::tsp_ = 1;
  for (int round = 0; round < 50; ++round) {
    std::string ended;
    Ptr<Lamp> lamp = ptrIsImpl<Lamp>(1);
    lamp->ended = &ended;
    std::array<std::thread, 4> threads;
    for (std::thread& thread : threads) {
      thread = std::thread([mine = lamp] {
        for (int i = 0; i < 200; ++i) Ptr<const Lamp> copy = mine;
      });
    }
    lamp = nullptr;
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(ended, "ended");
  }
  Fenrik::ThreadControl::tsp_ = 0;
}

}  // namespace

KIV_MODULE(LampModule);
