#include <benchmark/benchmark.h>

#include <cstdint>
#include <memory>
#include <random>
#include <vector>

#include "Fenrik/NodeClass.h"
#include "Fenrik/ThreadControl.h"
#include "Goals.h"

namespace {

/// Payload of a write's handle: versions, state, a back pointer, two words of a callback.
struct HandleFacts {
  explicit HandleFacts(std::uint64_t version) : entryVersion(version) {}

  std::uint64_t entryVersion;
  std::uint64_t logVersion = ~std::uint64_t{0};
  std::uint32_t state = 0;
  std::uint32_t flags = 0;
  void* parent = nullptr;
  std::uintptr_t callback[2] = {};
  std::uint64_t stamps[2] = {};
};

class HandleNode final
    : public Fenrik::NodeClass<HandleNode, Fenrik::Node, Fenrik::Storage::slabPerWrite> {
 public:
  explicit HandleNode(std::uint64_t version) : facts(version) {}
  HandleFacts facts;
};

class ThreadMode {
 public:
  explicit ThreadMode(std::int64_t mode) { Fenrik::ThreadControl::tsp_ = std::uint8_t(mode); }
  ~ThreadMode() { Fenrik::ThreadControl::tsp_ = 0; }
};

void NodeMakeCopyDrop(benchmark::State& state) {
  const ThreadMode mode(state.range(0));
  std::uint64_t version = 0;
  for (auto _ : state) {
    auto made = Fenrik::ptrIsImpl<HandleNode>(++version);
    benchmark::DoNotOptimize(made);
    auto copy = made;
    benchmark::DoNotOptimize(copy);
  }
}
BENCHMARK(NodeMakeCopyDrop)->Arg(0)->Arg(1);

void SharedMakeCopyDrop(benchmark::State& state) {
  std::uint64_t version = 0;
  for (auto _ : state) {
    auto made = std::make_shared<HandleFacts>(++version);
    benchmark::DoNotOptimize(made);
    auto copy = made;
    benchmark::DoNotOptimize(copy);
  }
}
BENCHMARK(SharedMakeCopyDrop);

const Bench::Goal kMakeGoal("node make + copy + drop, of make_shared", "NodeMakeCopyDrop/0",
                            "SharedMakeCopyDrop", 0.15);

/// 65536 live objects; each step replaces a random one.
constexpr std::size_t kLive = 65536;

template <class Make, class Drop>
void churn(benchmark::State& state, Make make, Drop drop) {
  std::vector<decltype(make())> live(kLive);
  for (auto& object : live) object = make();
  std::mt19937 random(1);
  std::vector<std::uint32_t> victims(kLive);
  for (std::uint32_t& victim : victims) victim = std::uint32_t(random()) % kLive;
  std::size_t turn = 0;
  for (auto _ : state) {
    auto& object = live[victims[turn++ % kLive]];
    drop(object);
    object = make();
    benchmark::DoNotOptimize(object);
  }
  for (auto& object : live) drop(object);
}

constexpr unsigned kStorageSize = sizeof(HandleNode);

/// Allocates storage only on both sides: initialization is not the allocator's concern.
void SlabChurn(benchmark::State& state) {
  const ThreadMode mode(state.range(0));
  const auto pattern = OvSlab::SlabAllocationPattern::perWrite;
  churn(
      state, [] { return OvSlab::slabAlloc(kStorageSize, pattern); },
      [](void* storage) { OvSlab::slabFree(storage, typeid(HandleNode), kStorageSize, pattern); });
}
BENCHMARK(SlabChurn)->Arg(0)->Arg(1);

void NewChurn(benchmark::State& state) {
  churn(
      state, [] { return ::operator new(kStorageSize); },
      [](void* storage) { ::operator delete(storage, kStorageSize); });
}
BENCHMARK(NewChurn);

/// As above with whole objects.
void NodeChurn(benchmark::State& state) {
  const ThreadMode mode(state.range(0));
  std::uint64_t version = 0;
  churn(
      state, [&] { return Fenrik::ptrIsImpl<HandleNode>(++version); },
      [](HandleNode::Ptr& node) { node = nullptr; });
}
BENCHMARK(NodeChurn)->Arg(0)->Arg(1);

void NewObjectChurn(benchmark::State& state) {
  std::uint64_t version = 0;
  churn(
      state, [&] { return std::make_unique<HandleFacts>(++version); },
      [](std::unique_ptr<HandleFacts>& facts) { facts.reset(); });
}
BENCHMARK(NewObjectChurn);

const Bench::Goal kChurnGoal("slab churn among 65536 live, of new/delete", "SlabChurn/0",
                             "NewChurn", 0.3);

}  // namespace
