#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <compare>
#include <map>
#include <memory>
#include <optional>
#include <random>
#include <set>
#include <utility>
#include <vector>

#include "Fenrik/Format.h"
#include "Fenrik/NodeClass.h"
#include "Kiv/HashHelper.h"
#include "Kiv/HashMap2018.h"
#include "Support/Soak.h"

namespace {

/// The seed of all random tests of this process, whose hash seed follows it.
unsigned testSeed() {
  static const unsigned seed = [] {
    const unsigned chosen = Support::seed();
    Kiv::HashHelper::hashSeed32Is(chosen | 1u);
    return chosen;
  }();
  return seed;
}

/// A key of two fields whose hash is as bad as the test wants: `spread` different hashes.
struct PairKey {
  std::uint8_t unit = 0;
  std::uint16_t number = 0;

  static inline unsigned spread = 0;

  std::uint32_t hash(std::uint32_t seed) const {
    if (spread != 0) return (unit + number) % spread;
    return Kiv::hashSingleAttr(Kiv::hashSingleAttr(seed, std::uint16_t{unit}), number);
  }
  static bool isEq(const void* a, const void* b) noexcept {
    return *static_cast<const PairKey*>(a) == *static_cast<const PairKey*>(b);
  }
  auto operator<=>(const PairKey&) const = default;
};

/// A value that is neither plain data nor a pointer. Each holds the token: one that is destroyed
/// twice or left behind shows in its count.
struct Counted {
  static inline const auto kToken = std::make_shared<int>();

  PairKey key;
  int payload;
  std::shared_ptr<int> token = kToken;
};

/// An object that a map holds by pointer.
class Item final : public Fenrik::NodeClass<Item> {
 public:
  Item(PairKey itemKey, int itemPayload) : key(itemKey), payload(itemPayload) {}
  const PairKey key;
  const int payload;
};

struct KeyOfCounted {
  const PairKey& operator()(const Counted& value) const { return value.key; }
};
struct KeyOfItem {
  const PairKey& operator()(const Fenrik::Ptr<Item>& item) const { return item->key; }
};

int payloadOf(const Counted& value) { return value.token == Counted::kToken ? value.payload : -1; }
int payloadOf(const Fenrik::Ptr<Item>& item) { return item->payload; }
int payloadOf(int value) { return value; }
int payloadOf(const std::vector<int>& value) { return value.at(0); }

// One shape for each kind of node: how a number becomes a key, and with a payload a node.
struct ObjectsInside {
  using Key = PairKey;
  using Node = Kiv::Hm2018NI<0x11111111, PairKey, Counted, KeyOfCounted>;
  static Key key(unsigned n) {
    return {static_cast<std::uint8_t>(n), static_cast<std::uint16_t>(n)};
  }
  static Node node(unsigned n, int payload) { return Node(Counted{key(n), payload}); }
};
struct PointersInside : ObjectsInside {
  using Node = Kiv::Hm2018NI<0x22222222, PairKey, Fenrik::Ptr<Item>, KeyOfItem>;
  static Node node(unsigned n, int payload) {
    return Node(Fenrik::ptrIsImpl<Item>(key(n), payload));
  }
};
struct ObjectsBeside : ObjectsInside {
  using Node = Kiv::Hm2018NE<0x33333333, PairKey, Counted>;
  static Node node(unsigned n, int payload) { return Node(key(n), Counted{key(n), payload}); }
};
struct PlainData : ObjectsInside {
  using Node = Kiv::Hm2018NE<0x55555555, PairKey, int>;
  static Node node(unsigned n, int payload) { return Node(key(n), payload); }
};
struct TextKeys {
  using Key = Fenrik::String;
  using Node = Kiv::Hm2018NE<0x66666666, Fenrik::String, std::vector<int>>;
  static Key key(unsigned n) { return Fenrik::formatString("/hardware/agent/{}", n); }
  static Node node(unsigned n, int payload) { return Node(key(n), {payload}); }
};

std::uint64_t live(const Kiv::AllocTrackTypeInfo* tracker) {
  return tracker != nullptr ? tracker->liveCount() : 0;
}

/// A map beside its model, and walks of it under way, each with what it has met.
template <class Shape>
struct Pair {
  using Node = typename Shape::Node;
  using Map = Kiv::HashMap2018<Node, typename Shape::Key, typename Node::Value>;

  struct Walk {
    typename Map::Iterator at;
    /// The number and payload that the iterator stands on, and whether the member has gone since.
    std::optional<std::pair<unsigned, int>> held;
    std::map<unsigned, unsigned> met;
    /// Members that were there at the start and have been since.
    std::map<unsigned, int> throughout;
  };

  void insertOrReplace(unsigned n, int payload) {
    Node fresh = Shape::node(n, payload);
    unsigned made = 0;
    const auto makeNode = [&]() -> Node&& { return ++made, std::move(fresh); };
    const Node* const present = map.memberElseNew(Shape::key(n), makeNode);
    ASSERT_EQ(present != nullptr, model.count(n) == 1);
    ASSERT_EQ(made, present == nullptr ? 1u : 0u);
    if (present != nullptr) {
      ASSERT_EQ(payloadOf(present->value()), model[n]);
      auto value = fresh.valueMoved();
      map.nodeForChange(Shape::key(n))->fwkValueIs(value);
    }
    model[n] = payload;
  }

  void erase(unsigned n) {
    const std::optional<Node> deleted = map.memberDel(Shape::key(n));
    ASSERT_EQ(deleted.has_value(), model.count(n) == 1);
    if (!deleted) return;
    ASSERT_EQ(payloadOf(deleted->value()), model[n]);
    const typename Shape::Key key = Shape::key(n);
    ASSERT_TRUE(Kiv::HashMap2018KeyTraits<typename Shape::Key>::isEq(&deleted->key(), &key));
    model.erase(n);
    for (Walk& walk : walks) walk.throughout.erase(n);
  }

  void eraseAll() {
    map.memberDelAll();
    model.clear();
    for (Walk& walk : walks) walk.throughout.clear();
  }

  /// A walk from the beginning, or one that goes on from where another one stands.
  void begin(std::size_t which) {
    if (which < walks.size()) return walks.push_back(Walk(walks[which]));
    walks.push_back({map.begin(), {}, {}, model});
    meet(walks.back());
  }

  /// Looks at what a walk stands on, before anything else changes.
  void meet(Walk& walk) {
    walk.held.reset();
    if (!walk.at) return;
    const int payload = payloadOf(walk.at->value());
    const unsigned n = numberOfPayload(payload);
    ASSERT_EQ(model.count(n), 1u) << "a walk met a member that is not there";
    ASSERT_EQ(++walk.met[n], 1u) << "a walk met a member twice";
    walk.held = {n, payload};
  }

  /// Payloads carry the number of their member in the lower bits.
  static unsigned numberOfPayload(int payload) { return static_cast<unsigned>(payload) & 0xffff; }

  /// What iterators hold does not change; what they say of the map is true.
  void checkHeld() {
    for (Walk& walk : walks) {
      ASSERT_EQ(static_cast<bool>(walk.at), walk.held.has_value());
      if (!walk.at) continue;
      const auto [n, payload] = *walk.held;
      ASSERT_EQ(payloadOf(walk.at->value()), payload) << "a change reached what an iterator reads";
      const Node* const now = walk.at.nodeNow();
      const auto found = model.find(n);
      ASSERT_EQ(now != nullptr, found != model.end());
      if (now != nullptr) {
        ASSERT_EQ(payloadOf(now->value()), found->second);
      }
    }
  }

  void step(std::size_t which) {
    Walk& walk = walks[which];
    if (walk.at) {
      // As a walk that is resumed from its bookmark.
      auto again = map.iteratorFromKey(Shape::key(walk.held->first));
      if (again) walk.at = std::move(again);
      ++walk.at;
      meet(walk);
      return;
    }
    for (const auto& [n, payload] : walk.throughout) {
      ASSERT_EQ(walk.met[n], 1u) << "a walk missed a member that was there throughout";
    }
    walks.erase(walks.begin() + static_cast<std::ptrdiff_t>(which));
  }

  void checkAll(unsigned range) {
    ASSERT_EQ(map.memberCount(), model.size());
    for (unsigned n = 0; n < range; ++n) {
      const Node* const node = map[Shape::key(n)];
      const auto found = model.find(n);
      ASSERT_EQ(node != nullptr, found != model.end());
      const auto iterator = map.iteratorFromKey(Shape::key(n));
      ASSERT_EQ(static_cast<bool>(iterator), node != nullptr) << "an absent key is the end";
      if (node == nullptr) continue;
      ASSERT_EQ(payloadOf(node->value()), found->second);
      ASSERT_EQ(&*iterator, node);
      if constexpr (std::is_same_v<typename Shape::Key, Fenrik::String>) {
        ASSERT_EQ(map[node->key().view()], node) << "looked up without making a string";
      }
      ASSERT_TRUE(iterator == map.iteratorFromKey(Shape::key(n)));
      ASSERT_FALSE(iterator == map.end());
    }
    std::vector<typename Shape::Key> keys;
    for (const Node& node : map) keys.push_back(node.key());
    ASSERT_EQ(keys.size(), model.size());
    if constexpr (std::is_same_v<typename Shape::Key, PairKey>) {
      const auto disordered = [](const PairKey& a, const PairKey& b) {
        return a.hash(0) == b.hash(0) && a >= b;
      };
      ASSERT_EQ(std::ranges::adjacent_find(keys, disordered), keys.end());
    }
  }

  std::map<unsigned, int> model;
  std::vector<Walk> walks;
  Map map;
};

template <class Shape>
class HashMapModel : public testing::Test {
 protected:
  HashMapModel() { testSeed(); }
  ~HashMapModel() override { PairKey::spread = 0; }

  /// Random operations in phases that fill the map, hold its size and drain it.
  static void run(unsigned steps, unsigned range) {
    SCOPED_TRACE(fmt::format("BASTIL_SEED={}", testSeed()));
    std::mt19937 random(testSeed());
    using Operations = Kiv::Impl::NodeOperations<typename Shape::Node>;
    const auto bucketsBefore = live(Kiv::HashMap2018BucketHdr::bucketHeaderTracker_);
    const auto slotsBefore = live(Operations::slotTracker_);
    {
      Pair<Shape> pair;
      for (unsigned i = 0; i < steps && !testing::Test::HasFatalFailure(); ++i) {
        const unsigned n = static_cast<unsigned>(random() % range);
        const unsigned inserts = std::array{9u, 5u, 2u}[i * 6 / steps % 3];
        const unsigned choice = static_cast<unsigned>(random() % 16);
        if (choice < inserts) {
          pair.insertOrReplace(n, static_cast<int>((i % 0x7000) << 16 | n));
        } else if (choice < 11) {
          pair.erase(n);
        } else if (choice < 12 && pair.walks.size() < 20) {
          pair.begin(random() % 24);
        } else if (!pair.walks.empty()) {
          pair.step(random() % pair.walks.size());
        }
        if (random() % 2000 == 0) pair.eraseAll();
        if (i % 16 == 0) pair.checkHeld();
        if (i % 1024 == 0) pair.checkAll(range);
      }
      while (!pair.walks.empty() && !testing::Test::HasFatalFailure()) pair.step(0);
    }
    EXPECT_EQ(Counted::kToken.use_count(), 1);
    EXPECT_EQ(live(Item::memAllocationTracker_), 0u);
    EXPECT_EQ(live(Kiv::HashMap2018BucketHdr::bucketHeaderTracker_), bucketsBefore);
    EXPECT_EQ(live(Operations::slotTracker_), slotsBefore);
  }
};
using Shapes = testing::Types<ObjectsInside, PointersInside, ObjectsBeside, PlainData, TextKeys>;
TYPED_TEST_SUITE(HashMapModel, Shapes);

/// With vectors of 32 bytes and without, and where many keys share a hash.
TYPED_TEST(HashMapModel, BehavesAsItsModelWhileWalksAreUnderWay) {
  const bool processorHas = Kiv::Impl::UsualSlots::wide_;
  for (const bool wide : {processorHas, false}) {
    Kiv::Impl::UsualSlots::wide_ = wide;
    this->run(15000, 40);
    this->run(25000, 3000);
  }
  Kiv::Impl::UsualSlots::wide_ = processorHas;
  PairKey::spread = 3;
  this->run(8000, 150);
}

TEST(HashMapGrowth, TheDirectoryFollowsTheMembersUpAndDown) {
  using Node = Kiv::Hm2018NE<3, std::uint32_t, std::uint32_t>;
  Kiv::HashMap2018<Node, std::uint32_t, std::uint32_t> map;
  for (std::uint32_t n = 0; n < 50000; ++n) map.newMember(Node(n, n));
  EXPECT_NEAR(map.generic().bucketCount(), 50000 / 8, 100);
  for (std::uint32_t n = 0; n < 49990; ++n) map.memberDel(n);
  EXPECT_LE(map.generic().bucketCount(), 6u) << "a walk of it reads empty buckets";
}

TEST(HashHelper, SeedsFieldsAndEndsOfTextTellHashesApart) {
  std::set<std::uint32_t> hashes{Kiv::hashSingleAttr(98, std::uint16_t{7}),
                                 Kiv::hashSingleAttr(99, std::uint64_t{7} << 32)};
  for (unsigned n = 0; n <= 0xffff; ++n) {
    hashes.insert(Kiv::hashSingleAttr(99, static_cast<std::uint16_t>(n)));
  }
  for (std::size_t size = 0; size <= 18; ++size) {
    hashes.insert(Kiv::HashHelper::hashBytes(3, "0123456789abcdef\0", size));
  }
  EXPECT_GT(hashes.size(), 0x10000u + 18) << "two units share a hash";
}

}  // namespace
