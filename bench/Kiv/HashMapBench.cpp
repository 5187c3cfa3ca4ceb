#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <limits>
#include <memory>
#include <numeric>
#include <random>
#include <unordered_map>
#include <vector>

#include "Fenrik/NodeClass.h"
#include "Goals.h"
#include "Kiv/HashMap2018.h"

#ifdef BASTIL_BENCH_ABSL
#include <absl/container/flat_hash_map.h>
#include <absl/container/node_hash_map.h>
#endif

// All maps hold the same counted pointers under the same random four-byte keys. The order of the
// objects in memory differs from the orders of insertion, look-up and iteration.
namespace {

class Thing final : public Fenrik::NodeClass<Thing> {
 public:
  explicit Thing(std::uint32_t number) : key(number), payload(number / 3) {}
  const std::uint32_t key;
  const std::uint32_t payload;
};
using ThingPtr = Fenrik::Ptr<Thing>;

struct KeyOfThing {
  const std::uint32_t& operator()(const ThingPtr& thing) const { return thing->key; }
};
using HN_Thing = Kiv::Hm2018NI<0x51c2d3e4, std::uint32_t, ThingPtr, KeyOfThing>;

/// Common interface of the maps.
struct Ours {
  Kiv::HashMap2018<HN_Thing, std::uint32_t, ThingPtr> map;

  const ThingPtr* find(std::uint32_t key) const {
    const HN_Thing* const node = map[key];
    return node != nullptr ? &node->value() : nullptr;
  }
  void insert(const ThingPtr& thing) {
    map.memberElseNew(thing->key, [&] { return HN_Thing(thing); });
  }
  void erase(std::uint32_t key) { map.memberDel(key); }
  template <class Visit>
  void walk(Visit visit) const {
    for (const HN_Thing& node : map) visit(node.value());
  }
};

template <class Map>
struct Peer {
  Map map;

  const ThingPtr* find(std::uint32_t key) const {
    const auto found = map.find(key);
    return found != map.end() ? &found->second : nullptr;
  }
  void insert(const ThingPtr& thing) { map.emplace(thing->key, thing); }
  void erase(std::uint32_t key) { map.erase(key); }
  template <class Visit>
  void walk(Visit visit) const {
    for (const auto& member : map) visit(member.second);
  }
};
using Std = Peer<std::unordered_map<std::uint32_t, ThingPtr>>;

/// `count` objects with distinct keys, in random order.
std::vector<ThingPtr> things(std::size_t count) {
  std::mt19937 random(12345);
  std::vector<std::uint32_t> keys;
  while (keys.size() < count) {
    while (keys.size() < count) keys.push_back(static_cast<std::uint32_t>(random()));
    std::ranges::sort(keys);
    keys.erase(std::ranges::unique(keys).begin(), keys.end());
  }
  std::ranges::shuffle(keys, random);
  std::vector<ThingPtr> all;
  for (const std::uint32_t key : keys) all.push_back(Fenrik::ptrIsImpl<Thing>(key));
  std::ranges::shuffle(all, random);
  return all;
}

template <class Map>
void MapFindHit(benchmark::State& state) {
  std::vector<ThingPtr> all = things(static_cast<std::size_t>(state.range(0)));
  Map map;
  for (const ThingPtr& thing : all) map.insert(thing);
  std::ranges::shuffle(all, std::mt19937(99));
  std::vector<std::uint32_t> keys;
  for (const ThingPtr& thing : all) keys.push_back(thing->key);
  for (auto _ : state) {
    std::uint32_t sum = 0;
    for (const std::uint32_t key : keys) sum += (*map.find(key))->payload;
    benchmark::DoNotOptimize(sum);
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
}

/// Erases the oldest member.
template <class Map>
void MapEraseInsert(benchmark::State& state) {
  const auto size = static_cast<std::size_t>(state.range(0));
  const std::vector<ThingPtr> all = things(2 * size);
  Map map;
  for (std::size_t i = 0; i < size; ++i) map.insert(all[i]);
  std::size_t oldest = 0;
  std::size_t next = size;
  for (auto _ : state) {
    for (std::size_t i = 0; i < size; ++i) {
      map.erase(all[oldest]->key);
      map.insert(all[next]);
      if (++oldest == all.size()) oldest = 0;
      if (++next == all.size()) next = 0;
    }
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
}

template <class Map>
void MapWalk(benchmark::State& state, bool throughPointer) {
  Map map;
  for (const ThingPtr& thing : things(static_cast<std::size_t>(state.range(0)))) map.insert(thing);
  for (auto _ : state) {
    std::uintptr_t sum = 0;
    if (throughPointer) {
      map.walk([&](const ThingPtr& thing) { sum += thing->payload; });
    } else {
      map.walk(
          [&](const ThingPtr& thing) { sum += reinterpret_cast<std::uintptr_t>(thing.get()); });
    }
    benchmark::DoNotOptimize(sum);
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
}
template <class Map>
void MapWalkReading(benchmark::State& state) {
  MapWalk<Map>(state, true);
}
template <class Map>
void MapWalkOnly(benchmark::State& state) {
  MapWalk<Map>(state, false);
}

/// Fills an empty map. The counter `largest` is the slowest single insertion in nanoseconds; for
/// each insertion the fastest of all fillings counts, to exclude interference.
template <class Map>
void MapFill(benchmark::State& state) {
  using Clock = std::chrono::steady_clock;
  const std::vector<ThingPtr> all = things(static_cast<std::size_t>(state.range(0)));
  std::vector<double> fastest(all.size(), std::numeric_limits<double>::max());
  for (auto _ : state) {
    auto map = std::make_unique<Map>();
    for (std::size_t i = 0; i < all.size(); ++i) {
      const Clock::time_point start = Clock::now();
      map->insert(all[i]);
      const std::chrono::duration<double, std::nano> taken = Clock::now() - start;
      fastest[i] = std::min(fastest[i], taken.count());
    }
    state.PauseTiming();
    map.reset();
    state.ResumeTiming();
  }
  state.counters["largest"] = *std::ranges::max_element(fastest);
  state.SetItemsProcessed(state.iterations() * state.range(0));
}

#define BENCH_MAPS(Map)                                           \
  BENCHMARK_TEMPLATE(MapFindHit, Map)->Arg(1024)->Arg(65536);     \
  BENCHMARK_TEMPLATE(MapEraseInsert, Map)->Arg(1024)->Arg(65536); \
  BENCHMARK_TEMPLATE(MapWalkReading, Map)->Arg(65536);            \
  BENCHMARK_TEMPLATE(MapWalkOnly, Map)->Arg(65536);               \
  BENCHMARK_TEMPLATE(MapFill, Map)->Arg(1000000)->Iterations(5)->Unit(benchmark::kMillisecond)

BENCH_MAPS(Ours);
BENCH_MAPS(Std);

const Bench::Goal kFind1k("map find hit, 1 k, against unordered_map", "MapFindHit<Ours>/1024",
                          "MapFindHit<Std>/1024", 1.0);
const Bench::Goal kFind64k("map find hit, 64 k, against unordered_map", "MapFindHit<Ours>/65536",
                           "MapFindHit<Std>/65536", 0.55);
const Bench::Goal kChurn1k("map erase + insert, 1 k, against unordered_map",
                           "MapEraseInsert<Ours>/1024", "MapEraseInsert<Std>/1024", 0.8);
const Bench::Goal kChurn64k("map erase + insert, 64 k, against unordered_map",
                            "MapEraseInsert<Ours>/65536", "MapEraseInsert<Std>/65536", 0.8);
const Bench::Goal kWalk("map walk reading each object, 64 k, against unordered_map",
                        "MapWalkReading<Ours>/65536", "MapWalkReading<Std>/65536", 1.0);
const Bench::Goal kWalkOnly("map walk alone, 64 k, against unordered_map",
                            "MapWalkOnly<Ours>/65536", "MapWalkOnly<Std>/65536", 1.0);

#ifdef BASTIL_BENCH_ABSL
using AbslNode = Peer<absl::node_hash_map<std::uint32_t, ThingPtr>>;
using AbslFlat = Peer<absl::flat_hash_map<std::uint32_t, ThingPtr>>;
BENCH_MAPS(AbslNode);
BENCH_MAPS(AbslFlat);

const Bench::Goal kFindAbsl1k("map find hit, 1 k, against absl::node_hash_map",
                              "MapFindHit<Ours>/1024", "MapFindHit<AbslNode>/1024", 1.0);
const Bench::Goal kFindAbsl64k("map find hit, 64 k, against absl::node_hash_map",
                               "MapFindHit<Ours>/65536", "MapFindHit<AbslNode>/65536", 1.0);
#endif

}  // namespace
