#include <gtest/gtest.h>

#include <array>
#include <list>
#include <memory>
#include <vector>

#include "Counted.h"
#include "Kiv/HashMap2018.h"
#include "Rack.h"

namespace {

using Fenrik::Ptr;
using Fenrik::ptrIsImpl;
using Kiv::HashMap2018SlotIndex;
using Kiv::HashMap2018VTable;
using Kiv::MoveOrCopy;

template <class Node>
const HashMap2018VTable& tableOf() {
  return Kiv::HashMap2018<Node, typename Node::Key, typename Node::Value>::vt_;
}

/// A node type seen through its operations alone, with the keys that stand in a row of slots.
template <class Node>
class Row {
 public:
  explicit Row(std::vector<unsigned> keys) : size_(static_cast<unsigned>(keys.size())) {
    for (unsigned i = 0; i < size_; ++i) {
      Node node = make(keys[i]);
      vt.place(&vt, at(i), &node, MoveOrCopy::move);
    }
  }
  ~Row() { std::destroy_n(at(0), size_); }

  void shift(Kiv::HashMap2018LinkNodeBase* link, unsigned index, int slots) {
    vt.shift(&vt, at(0), link, slot(size_), slot(index), slots);
    size_ = static_cast<unsigned>(static_cast<int>(size_) + slots);
  }
  std::vector<unsigned> keys() {
    std::vector<unsigned> all;
    for (unsigned i = 0; i < size_; ++i) all.push_back(at(i)->key().number);
    return all;
  }
  Node* at(unsigned index) { return reinterpret_cast<Node*>(storage_) + index; }

  static HashMap2018SlotIndex slot(unsigned index) {
    return HashMap2018SlotIndex(static_cast<unsigned short>(index));
  }
  static Node make(unsigned key) {
    const PairKey pair{0, static_cast<std::uint16_t>(key)};
    if constexpr (!Node::kInternalKey) {
      return Node(pair, static_cast<int>(key));
    } else if constexpr (std::is_same_v<typename Node::Value, Counted>) {
      return Node(Counted(pair, static_cast<int>(key)));
    } else {
      return Node(ptrIsImpl<Card>(pair));
    }
  }

  const HashMap2018VTable& vt = tableOf<Node>();

 private:
  alignas(Node) std::byte storage_[16 * sizeof(Node)];
  unsigned size_;
};

template <class Node>
class NodeOperations : public testing::Test {
 protected:
  ~NodeOperations() override {
    EXPECT_EQ(Counted::live.size(), 0u);
    EXPECT_EQ(Counted::faults, 0u);
    EXPECT_EQ(Card::memAllocationTracker_ == nullptr ? 0 : Card::memAllocationTracker_->liveCount(),
              0u);
  }
};
using NodeTypes = testing::Types<Rack::HN_Card, Rack::HN_Label, Rack::HN_Power>;
TYPED_TEST_SUITE(NodeOperations, NodeTypes);

TYPED_TEST(NodeOperations, ShiftKeepsTheOrderInBothDirections) {
  using Keys = std::vector<unsigned>;
  Row<TypeParam> row({1, 2, 3, 4, 5});
  row.shift(nullptr, 1, -2);
  EXPECT_EQ(row.keys(), (Keys{1, 4, 5}));
  row.shift(nullptr, 2, -1);
  EXPECT_EQ(row.keys(), (Keys{1, 4}));
  TypeParam link = Row<TypeParam>::make(9);
  row.shift(&link, 1, 1);
  EXPECT_EQ(row.keys(), (Keys{1, 9, 4}));
  link = Row<TypeParam>::make(8);
  row.shift(&link, 0, 1);
  EXPECT_EQ(row.keys(), (Keys{8, 1, 9, 4}));
}

TYPED_TEST(NodeOperations, ComparesTheNodesKeyOrElseTheGivenOne) {
  Row<TypeParam> row({5, 7});
  const PairKey six{0, 6};
  const PairKey seven{0, 7};
  const HashMap2018VTable& vt = row.vt;
  EXPECT_EQ(vt.compareOrLruUnlink(&six, nullptr, row.at(0)), 2);
  EXPECT_EQ(vt.compareOrLruUnlink(&six, nullptr, row.at(1)), 1);
  EXPECT_EQ(vt.compareOrLruUnlink(&seven, nullptr, row.at(1)), 0);
  EXPECT_EQ(vt.compareOrLruUnlink(&seven, row.at(0), row.at(1)), 1);
  EXPECT_EQ(vt.compareOrLruUnlink(nullptr, row.at(1), row.at(0)), 2);
  EXPECT_TRUE(vt.keyEqualsNode(&seven, row.at(1)));
  EXPECT_FALSE(vt.keyEqualsNode(&six, row.at(1)));
}

TYPED_TEST(NodeOperations, TheRecordHasItsFieldsInOrder) {
  struct Fields {
    std::uint32_t control;
    std::uint32_t nodeSize;
    const void* operations[6];
  };
  static_assert(sizeof(Fields) == sizeof(HashMap2018VTable));
  const auto fields = std::bit_cast<Fields>(tableOf<TypeParam>());
  EXPECT_EQ(fields.control, 0x104u);
  EXPECT_EQ(fields.nodeSize, sizeof(TypeParam));
  EXPECT_EQ(fields.nodeSize, (TypeParam::kInternalKey ? sizeof(typename TypeParam::Value) : 8u));
  const HashMap2018VTable& vt = tableOf<TypeParam>();
  EXPECT_EQ(fields.operations[0], std::bit_cast<const void*>(vt.bktHdrRefDec));
  EXPECT_EQ(fields.operations[5], std::bit_cast<const void*>(vt.compareOrLruUnlink));
  EXPECT_EQ(vt.shift == &HashMap2018VTable::trivialShift, !TypeParam::kInternalKey);
  EXPECT_EQ(vt.place == &HashMap2018VTable::trivialPlace, !TypeParam::kInternalKey);
}

TEST(HashMapNode, MovingNullsAPointerAndCopyingCountsIt) {
  const HashMap2018VTable& vt = tableOf<Rack::HN_Card>();
  const Ptr<Card> card = ptrIsImpl<Card>(PairKey{0, 1});
  std::array source{Rack::HN_Card(card), Rack::HN_Card(card), Rack::HN_Card(card)};
  Kiv::HashMap2018NodeSourceColl runs;
  runs.runAdd(MoveOrCopy::copy, 2, &source[0]);
  runs.runAdd(MoveOrCopy::move, 1, &source[2]);
  alignas(Rack::HN_Card) std::byte storage[3 * sizeof(Rack::HN_Card)];
  EXPECT_EQ(reinterpret_cast<const std::uint8_t*>(&runs)[2], 2) << "the third byte counts the runs";
  vt.newBucketAssemble(&vt, HashMap2018SlotIndex(3), storage, runs);
  EXPECT_EQ(card->useCount(), 6u);
  EXPECT_TRUE(source[2].value() == nullptr);
  EXPECT_EQ(source[0].value(), card);
  std::destroy_n(reinterpret_cast<Rack::HN_Card*>(storage), 3);
  EXPECT_EQ(card->useCount(), 3u);
  auto* const tracker = Kiv::Impl::NodeOperations<Rack::HN_Card>::slotTracker_;
  Kiv::AllocTrackTypeInfo::trackArrayDeallocation(tracker, 3);
}

/// The header holds seven references itself; a bucket may have any number.
TEST(HashMapIterator, AnyNumberMayStandInOneBucket) {
  Kiv::HashMap2018<Rack::HN_Power, PairKey, int> map;
  map.newMember(Row<Rack::HN_Power>::make(1));
  std::list<decltype(map)::Iterator> all;
  for (int i = 0; i < 40; ++i) all.push_back(map.begin());
  map.nodeForChange({0, 1})->fwkValueIs(*std::make_unique<int>(77));
  for (int i = 0; i < 40; ++i) all.push_back(map.begin());
  const auto& tracker = Kiv::HashMap2018BucketHdr::bucketHeaderTracker_;
  EXPECT_EQ(tracker->liveCount(), 2u);
  for (int i = 0; i < 40; ++i) {
    EXPECT_EQ(all.front()->value(), 1);
    auto moved = std::move(all.front());
    EXPECT_FALSE(all.front()) << "an iterator moved from is at the end";
    all.pop_front();
    auto copy = moved;
    copy = all.back();
    EXPECT_EQ(copy->value(), 77);
  }
  EXPECT_EQ(tracker->liveCount(), 1u);
  map.memberDelAll();
  EXPECT_EQ(tracker->liveCount(), 1u) << "iterators hold it still";
  all.clear();
  EXPECT_EQ(tracker->liveCount(), 0u);
}

TEST(HashMapGrowth, TheDirectoryFollowsTheMembersUpAndDown) {
  using Node = Kiv::Hm2018NE<3, std::uint32_t, std::uint32_t>;
  Kiv::HashMap2018<Node, std::uint32_t, std::uint32_t> map;
  unsigned buckets = map.generic().bucketCount();
  EXPECT_EQ(buckets, 1u);
  for (std::uint32_t n = 0; n < 50000; ++n) {
    map.newMember(Node(n, n));
    ASSERT_LE(map.generic().bucketCount(), buckets + 1) << "grew by more than one bucket";
    buckets = map.generic().bucketCount();
  }
  EXPECT_NEAR(buckets, 50000 / 8, 100);
  for (std::uint32_t n = 0; n < 49990; ++n) {
    map.memberDel(n);
    ASSERT_GE(map.generic().bucketCount() + 1, buckets) << "shrank by more than one bucket";
    buckets = map.generic().bucketCount();
  }
  EXPECT_LE(buckets, 6u) << "a walk of a map that was large once reads empty buckets";
  for (std::uint32_t n = 49990; n < 50000; ++n) EXPECT_EQ(map[n]->value(), n);
}

TEST(HashMapGeneric, BeginsWithAsManyBucketsAsItIsToldAndMayKeepThem) {
  const HashMap2018VTable& vt = tableOf<Rack::HN_Power>();
  for (const bool keep : {false, true}) {
    Kiv::HashMap2018Generic map(&vt, Kiv::HashMap2018MapIndex(16), keep);
    EXPECT_EQ(map.bucketCount(), 16u);
    const auto arg = [](const PairKey& key) {
      return Kiv::HashHelper::KeyAndRhashSeedArg{&key, key.hash(1)};
    };
    for (unsigned n = 0; n < 1000; ++n) {
      const PairKey key{0, static_cast<std::uint16_t>(n)};
      map.newMemberG(&vt, arg(key), Row<Rack::HN_Power>::make(n));
    }
    Rack::HN_Power out = Row<Rack::HN_Power>::make(0);
    for (unsigned n = 0; n < 1000; ++n) {
      const PairKey key{0, static_cast<std::uint16_t>(n)};
      EXPECT_NE(map.lookupNodeG(&vt, arg(key)), nullptr);
      EXPECT_TRUE(map.deleteMemberG(&vt, arg(key), &out));
      EXPECT_EQ(out.value(), static_cast<int>(n));
      EXPECT_FALSE(map.deleteMemberG(&vt, arg(key), &out));
    }
    EXPECT_EQ(map.bucketCount(), keep ? 125u : 16u);
    map._memberDelAll(&vt);
    EXPECT_EQ(map.bucketCount(), 16u);
    map.emptyAllBuckets(&vt, true);
  }
}

TEST(HashHelper, SeedsFieldsAndEndsOfTextTellHashesApart) {
  using Kiv::hashSingleAttr;
  EXPECT_NE(Kiv::HashHelper::hashSeed32(), 0u);
  EXPECT_EQ(Kiv::HashHelper::hashSeed32(), Kiv::HashHelper::hashSeed32Is(5));
  EXPECT_NE(hashSingleAttr(1, 7u), hashSingleAttr(2, 7u));
  EXPECT_NE(hashSingleAttr(1, std::uint64_t{7}), hashSingleAttr(1, std::uint64_t{7} << 32));
  std::set<std::uint32_t> hashes;
  for (unsigned n = 0; n <= 0xffff; ++n) {
    hashes.insert(hashSingleAttr(99, static_cast<std::uint16_t>(n)));
  }
  EXPECT_EQ(hashes.size(), 0x10000u) << "two units share a hash";
  const std::string text("0123456789abcdef\0\0", 18);
  hashes.clear();
  for (std::size_t size = 0; size <= text.size(); ++size) {
    hashes.insert(Kiv::HashHelper::hashBytes(3, text.data(), size));
  }
  EXPECT_EQ(hashes.size(), text.size() + 1);
}

TEST(HashMap, TextIsLookedUpWithoutAString) {
  using Node = Kiv::Hm2018NE<9, Fenrik::String, int>;
  using Map = Kiv::HashMap2018<Node, Fenrik::String, int>;
  Map map;
  map.newMember(Node("unit/7", 7));
  EXPECT_EQ(map[std::string_view("unit/77").substr(0, 6)]->value(), 7);
  EXPECT_EQ(map[std::string_view("unit/77")], nullptr);
  const Kiv::HashHelper::KeyString key("unit/7", Map::seed());
  EXPECT_EQ(map.generic().lookupNodeG(&Map::vt_, key), map[Fenrik::String("unit/7")]);
}

template <class Node>
void openTwoSlots() {
  Row<Node> row({1, 2, 3});
  Node link = Row<Node>::make(9);
  row.shift(&link, 1, 2);
}

TEST(HashMapDeathTest, AShiftOpensOneSlotAndNoMore) {
  EXPECT_DEATH(openTwoSlots<Rack::HN_Card>(), "slotsToShift == 1");
  EXPECT_DEATH(openTwoSlots<Rack::HN_Power>(), "slotsToShift == 1");
}

}  // namespace
