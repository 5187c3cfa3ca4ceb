#include <benchmark/benchmark.h>

#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <random>
#include <vector>

#include "Fenrik/NodeClass.h"
#include "Fenrik/RQueue.h"
#include "Goals.h"

namespace {

class Item final : public Fenrik::NodeClass<Item> {
 public:
  std::uint64_t payload[8] = {};
};

struct QE_Item;
using ItemQueue = Fenrik::RQueue<Fenrik::Ptr<Item>, false, QE_Item>;

/// A distinct object for each element, like handles: a power of two of them, more than `count`.
std::vector<Item::Ptr> itemsAbove(std::size_t count) {
  std::vector<Item::Ptr> items;
  for (std::size_t size = std::bit_ceil(count + 1); size != 0; --size) {
    items.push_back(Fenrik::ptrIsImpl<Item>());
  }
  return items;
}

/// Both queues hold `state.range(0)` pointers; each step adds one and removes one. Both return null
/// if they are empty.
template <class Push, class Pop>
void pushPop(benchmark::State& state, Push push, Pop pop) {
  const auto count = static_cast<std::size_t>(state.range(0));
  const std::vector<Item::Ptr> all = itemsAbove(count);
  const Item::Ptr* const items = all.data();
  const std::size_t mask = all.size() - 1;
  std::size_t turn = 0;
  while (turn != count) push(items[turn++]);
  for (auto _ : state) {
    push(items[turn++ & mask]);
    auto popped = pop();
    benchmark::DoNotOptimize(popped);
  }
}

void QueuePushPop(benchmark::State& state) {
  ItemQueue queue;
  pushPop(
      state, [&](const Item::Ptr& item) { queue.enq(item); }, [&] { return queue.deq(); });
}
BENCHMARK(QueuePushPop)->Arg(0)->Arg(64)->Arg(4096)->Arg(65536);

void DequePushPop(benchmark::State& state) {
  std::deque<Item::Ptr> queue;
  pushPop(
      state, [&](const Item::Ptr& item) { queue.push_back(item); },
      [&] {
        if (queue.empty()) return Item::Ptr();
        Item::Ptr front = std::move(queue.front());
        queue.pop_front();
        return front;
      });
}
BENCHMARK(DequePushPop)->Arg(0)->Arg(64)->Arg(4096)->Arg(65536);

/// Look-up of a random index among `state.range(0)` elements of a queue that has been in use.
void QueueLookup(benchmark::State& state) {
  const auto count = static_cast<std::uint32_t>(state.range(0));
  const std::vector<Item::Ptr> items = itemsAbove(count);
  ItemQueue queue;
  for (std::uint32_t i = 0; i != 5 * count; ++i) {
    queue.enq(items[i % items.size()]);
    if (i >= count) queue.deq();
  }
  std::mt19937 random(1);
  std::array<std::uint32_t, 1024> indices;
  for (std::uint32_t& index : indices) index = queue.frontIndex() + std::uint32_t(random()) % count;
  std::size_t turn = 0;
  for (auto _ : state) {
    const Fenrik::Ptr<Item> found(*queue.find(indices[turn++ % indices.size()]));
    benchmark::DoNotOptimize(found);
  }
}
BENCHMARK(QueueLookup)->Arg(64)->Arg(4096)->Arg(65536);

const Bench::Goal kPushGoal64("queue push + pop at 64, of std::deque", "QueuePushPop/64",
                              "DequePushPop/64", 1.0);
const Bench::Goal kPushGoal4096("queue push + pop at 4096, of std::deque", "QueuePushPop/4096",
                                "DequePushPop/4096", 1.0);
const Bench::Goal kFindGoal("queue lookup by index at 64, of a push + pop", "QueueLookup/64",
                            "QueuePushPop/64", 0.5);
const Bench::Goal kFindGoal4096("queue lookup by index at 4096, of a push + pop",
                                "QueueLookup/4096", "QueuePushPop/4096", 0.5);

}  // namespace
