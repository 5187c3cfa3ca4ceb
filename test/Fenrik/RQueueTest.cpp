#include "Fenrik/RQueue.h"
#include "Fenrik/TypeData.h"

#include <gtest/gtest.h>

#include <deque>
#include <optional>
#include <random>
#include <vector>

#include "Fenrik/NodeClass.h"
#include "Fenrik/QueueAttribute.h"
#include "OvSlab/AllocReport.h"
#include "Support/Ear.h"
#include "Support/Soak.h"

namespace {

class Item final : public Fenrik::NodeClass<Item> {
 public:
  explicit Item(std::uint64_t number) : number(number) {}
  std::uint64_t number;
};

using ItemIter = Fenrik::RQueueBaseConstIter<Item::Ptr>;

struct QE_Test;
using ItemQueue = Fenrik::RQueue<Item::Ptr, false, QE_Test>;

Item::Ptr item(std::uint64_t number) { return Fenrik::ptrIsImpl<Item>(number); }

/// Number of an item, and a number of none for null.
std::uint64_t numberOf(const Item::Ptr& ptr) { return ptr != nullptr ? ptr->number : ~0ull; }
std::uint64_t numberOf(const Item::Ptr* ptr) { return ptr != nullptr ? numberOf(*ptr) : ~0ull; }

/// What the process holds of a class or queue, by the end of its name.
Kiv::AllocTrackRow tracked(const std::string& part) {
  for (const Kiv::AllocTrackRow& row : Kiv::allocTrackRows()) {
    if (row.typeName.find(part) != std::string::npos) return row;
  }
  return {};
}
std::uint64_t itemsLive() {
  return Item::memAllocationTracker_ != nullptr ? Item::memAllocationTracker_->liveCount() : 0;
}

/// The queue beside a model in which indices never wrap: an item's number is its index there.
struct Checked {
  explicit Checked(std::optional<std::uint32_t> first)
      : queue(first ? ItemQueue(*first) : ItemQueue()), next(first.value_or(1)) {}

  void enq() {
    EXPECT_EQ(queue.enq(item(next)), std::uint32_t(next));
    numbers.push_back(next++);
  }
  void deq() {
    EXPECT_EQ(numberOf(queue.deq()), numbers.empty() ? ~0ull : numbers.front());
    if (!numbers.empty()) numbers.pop_front();
  }
  void clear() {
    queue.doClear(true);
    numbers.clear();
  }

  /// What must be true of the whole, and of lookups near the ends and far away.
  void check(std::mt19937& random) const {
    ASSERT_EQ(queue.size(), numbers.size());
    ASSERT_EQ(queue.empty(), numbers.empty());
    ASSERT_EQ(queue.frontIndex(), std::uint32_t(front()));
    ASSERT_EQ(queue.backIndex(), std::uint32_t(next - 1));
    ASSERT_EQ(numberOf(queue.front()), numbers.empty() ? ~0ull : numbers.front());
    ASSERT_EQ(numberOf(queue.back()), numbers.empty() ? ~0ull : numbers.back());
    for (int i = 0; i != 4; ++i) {
      lookup(front() + random() % (numbers.size() + 1));
      lookup(front() - 3 + random() % 6);
      lookup(next - 3 + random() % 6);
      lookup(front() + 0x7ffffffe + random() % 4);
    }
  }

  void lookup(std::uint64_t index) const {
    const bool there = index >= front() && index < next;
    ASSERT_EQ(queue.has(std::uint32_t(index)), there) << index;
    ASSERT_EQ(numberOf(queue.find(std::uint32_t(index))), there ? index : ~0ull) << index;
  }

  std::uint64_t front() const { return numbers.empty() ? next : numbers.front(); }

  ItemQueue queue;
  std::deque<std::uint64_t> numbers;
  std::uint64_t next;
};

/// An iterator that lives on while the queue changes, and where it must stand.
struct Walker {
  ItemIter iter;
  std::uint64_t at;
  bool ended;

  explicit Walker(const Checked& checked)
      : iter(checked.queue), at(checked.front()), ended(checked.numbers.empty()) {}

  void step(const Checked& checked) {
    iter.increment();
    if (ended) return;
    at = at < checked.front() ? checked.front() : at + 1;
    ended = at == checked.next;
  }

  void check(const Checked& checked) const {
    ASSERT_EQ(iter.valid(), !ended);
    if (ended) return;
    ASSERT_EQ(iter.index(), std::uint32_t(at));
    ASSERT_EQ(numberOf(iter.value()), at < checked.front() ? ~0ull : at);
  }
};

class RQueueModelTest : public testing::TestWithParam<std::optional<std::uint32_t>> {};
INSTANTIATE_TEST_SUITE_P(FirstIndices, RQueueModelTest,
                         testing::Values(std::nullopt, 1, 0, 0x7ffffff0, 0x80000000, 0xffff8000,
                                         0xfffffff0, 0xffffffff));

TEST_P(RQueueModelTest, IsADequeWithLastingIndicesUnderRandomOperationsAndLiveIterators) {
  const Support::Seed seed;
  std::mt19937 random(seed);
  {
    Checked checked(GetParam());
    std::vector<Walker> walkers;
    for (unsigned step = 0; step != 120000; ++step) {
      // Long enough for chunks of every size.
      const bool growing = step / 40000 % 2 == 0;
      const auto choice = random() % 1000;
      if (choice < (growing ? 750u : 250u)) {
        checked.enq();
      } else if (choice < 998) {
        checked.deq();
      } else if (random() % 16 == 0) {
        checked.clear();
      } else if (walkers.size() < 20) {
        walkers.emplace_back(checked);
      } else {
        walkers.erase(walkers.begin() + std::ptrdiff_t(random() % walkers.size()));
      }
      for (Walker& walker : walkers) {
        if (random() % 4 == 0) walker.step(checked);
        walker.check(checked);
      }
      if (step % 16 == 0) checked.check(random);
      ASSERT_FALSE(HasFatalFailure() || HasNonfatalFailure()) << "step " << step;
    }
    Walker walker(checked);
    for (std::size_t count = checked.numbers.size(); count != 0; --count) {
      walker.check(checked);
      walker.step(checked);
    }
    EXPECT_FALSE(walker.iter.valid());
    EXPECT_EQ(itemsLive(), checked.numbers.size());
  }
  EXPECT_EQ(itemsLive(), 0u);
  EXPECT_EQ(tracked("QE_Test").live, 0u);
  EXPECT_EQ(tracked("QE_Test").liveArrays, 0u);
  EXPECT_EQ(tracked("RQueueArray<").live, 0u);
}

struct DeskModule;

class Desk final : public Fenrik::NodeClass<Desk, Fenrik::Publishing<Fenrik::Node>> {
 public:
  static constexpr std::uint16_t kFieldBase = 640;
  using KivModule = DeskModule;
  struct QE_Order;

  FENRIK_QUEUE(kFieldBase + 22, order, Item::Ptr, QE_Order);
};
struct DeskModule : Kiv::Module<"DeskTest", Desk> {};

TEST(QueueAttributeTest, AnnouncesEveryChangeAfterItWasMadeWithTheIndexAffected) {
  const Desk::Ptr desk = Fenrik::ptrIsImpl<Desk>();
  desk->orderEnq(item(1));
  {
    // The index of every change, and the length of the queue when it was told of it.
    std::vector<std::pair<std::uint32_t, std::uint32_t>> seen;
    const Support::Ear ear(*desk->publisher(), [&](const Fenrik::Change& change) {
      EXPECT_EQ(change.fieldId.number(), 662u);
      EXPECT_EQ(change.kind, Fenrik::Change::Kind::plain);
      seen.emplace_back(*static_cast<const std::uint32_t*>(change.value), desk->orderCount());
    });
    desk->orderEnq(item(2));
    EXPECT_EQ(numberOf(desk->orderDeq()), 1u);
    desk->orderEnq(item(3));
    desk->orderEnq(nullptr);
    desk->orderDelAll();
    EXPECT_EQ(desk->orderDeq(), nullptr);
    desk->orderDelAll();
    const std::vector<std::pair<std::uint32_t, std::uint32_t>> changes{
        {2, 2}, {1, 1}, {3, 2}, {4, 3}, {2, 2}, {3, 1}, {4, 0}};
    EXPECT_EQ(seen, changes);
  }
  desk->orderEnq(item(5));
  desk->orderDelAll();
  desk->orderEnq(item(6));
  EXPECT_FALSE(desk->orderHas(5));
  EXPECT_EQ(numberOf(desk->order(6)), 6u) << "the sequence goes on where nobody listens, too";
  EXPECT_TRUE(desk->orderFront() == desk->orderBack() && desk->orderIter(6).valid());
  EXPECT_EQ(desk->typeData().attribute("order")->kind, Kiv::AttributeKind::queue);
}

}  // namespace

KIV_LOCAL_MODULE(DeskModule);
