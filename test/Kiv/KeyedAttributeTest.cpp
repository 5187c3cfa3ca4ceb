#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <set>

#include "Fenrik/Format.h"
#include "Fenrik/NodeClass.h"
#include "Fenrik/TypeData.h"
#include "Kiv/KeyedAttribute.h"
#include "Support/Ear.h"

namespace {

struct RackModule;
using Slot = std::uint16_t;

class Card final : public Fenrik::NodeClass<Card> {
 public:
  Card(Slot slot, std::string* end = nullptr) : slot_(slot), end_(end) {}
  ~Card() override {
    if (end_ != nullptr) *end_ += "ended;";
  }
  const Slot& slot() const { return slot_; }

 private:
  Slot slot_;
  std::string* end_;
};

/// A class with a keyed attribute of each kind.
class Rack final : public Fenrik::NodeClass<Rack, Fenrik::Publishing<Fenrik::Node>> {
 public:
  static constexpr std::uint16_t kFieldBase = 256;
  using KivModule = RackModule;

  struct CardKeyFunktor {
    const Slot& operator()(const Fenrik::Ptr<Card>& card) const { return card->slot(); }
  };
  using HN_Card = Kiv::Hm2018NI<0x8a1b2c3d, Slot, Fenrik::Ptr<Card>, CardKeyFunktor>;
  using HN_Power = Kiv::Hm2018NE<0x77a1b2c3, Slot, int>;
  using HN_Spare = Kiv::Hm2018NE<0x67a1b2c3, Slot, Fenrik::Ptr<Card>>;

  KIV_KEYED(kFieldBase + 2, card, HN_Card);
  KIV_KEYED_VALUE(kFieldBase + 4, power, HN_Power);
  KIV_KEYED_VALUE(kFieldBase + 6, spare, HN_Spare);
};

struct RackModule : Kiv::Module<"RackTest", Card, Rack> {};

using Fenrik::Change;
using Fenrik::Ptr;
using Fenrik::ptrIsImpl;

/// Listens to a rack and writes down what it hears.
struct RackEar : Support::Ear {
  explicit RackEar(Rack& rack)
      : Ear(*rack.publisher(), [&](const Change& change) {
          ASSERT_EQ(change.kind, Change::Kind::recursive);
          ASSERT_TRUE(change.isEq(change.key, change.key));
          const Slot key = *static_cast<const Slot*>(change.key);
          const bool there = change.value != nullptr;
          told += fmt::format("{}{}{};", change.fieldId.number(), there ? "=" : "-", key);
          if (change.fieldId.number() == 258 && there) {
            EXPECT_EQ(static_cast<const Rack::HN_Card*>(change.value)->value(), rack.card(key));
          }
          if (also) also(change);
        }) {}

  std::string take() { return std::exchange(told, {}); }

  std::string told;
  std::function<void(const Change&)> also;
};

Ptr<Card> makeCard(unsigned slot, std::string* end = nullptr) {
  return ptrIsImpl<Card>(static_cast<Slot>(slot), end);
}

struct KeyedAttribute : testing::Test {
  const Ptr<Rack> rack = ptrIsImpl<Rack>();
};

TEST_F(KeyedAttribute, AnnouncesWhatChangesAndOnlyThat) {
  RackEar ear(*rack);
  const Ptr<Card> card = makeCard(1);
  rack->cardIs(card);
  rack->cardIs(card);
  EXPECT_EQ(card->useCount(), 2u);
  EXPECT_EQ(ear.take(), "258=1;") << "the pointer that is there already was announced";
  std::string ended;
  rack->cardIs(makeCard(1, &ended));
  EXPECT_EQ(card->useCount(), 1u);
  ear.also = [&](const Change&) { ended += "told;"; };
  rack->cardIs(card);
  EXPECT_EQ(ended, "told;ended;") << "the old object goes after the announcement";
  EXPECT_TRUE(rack->cardDel(2) == nullptr);
  EXPECT_EQ(rack->cardDel(1), card);
  EXPECT_TRUE(rack->card(1) == nullptr);
  EXPECT_EQ(ear.take(), "258=1;258=1;258-1;");

  // Null deletes where the key is beside the pointer.
  EXPECT_THROW(rack->cardIs(nullptr), Fenrik::MutatorArgNullPointerException);
  rack->spareIs(7, nullptr);
  rack->spareIs(7, makeCard(1));
  rack->spareIs(7, nullptr);
  EXPECT_EQ(ear.take(), "262=7;262-7;");

  // Values read as default where there is none.
  EXPECT_EQ(rack->power(1), 0);
  EXPECT_EQ(rack->powerGet(1), std::nullopt);
  EXPECT_EQ(rack->powerDel(1), 0);
  for (const int power : {30, 30, 40}) rack->powerIs(1, power);
  EXPECT_EQ(rack->powerGet(1), 40);
  EXPECT_EQ(rack->powerDel(1), 40);
  EXPECT_EQ(ear.take(), "260=1;260=1;260-1;");
}

TEST_F(KeyedAttribute, EmptyingTellsEverySubscriberOfEveryMember) {
  for (unsigned n = 0; n < 300; ++n) rack->cardIs(makeCard(n));
  {
    RackEar ear(*rack);
    std::set<unsigned> gone;
    ear.also = [&](const Change& change) {
      const auto number = *static_cast<const Slot*>(change.key);
      EXPECT_FALSE(rack->cardHas(number));
      EXPECT_TRUE(gone.insert(number).second) << "told twice";
      // A subscriber that takes others with it: they are not told again.
      if (number % 3 == 0) rack->cardDel(static_cast<Slot>(number + 1));
    };
    rack->cardDelAll();
    EXPECT_EQ(gone.size(), 300u);
  }
  EXPECT_EQ(rack->cardCount(), 0u);
  rack->cardIs(makeCard(1));
  const auto held = rack->cardIterator();
  EXPECT_EQ(held, rack->cardIteratorFromKey(1));
  rack->cardDelAll();
  EXPECT_EQ(held.key(), 1) << "the iterator keeps its member";
  EXPECT_EQ(held.nodeNow(), nullptr);
  EXPECT_FALSE(rack->cardIterator());
}

/// What goes may look at, fill and empty the very map that it leaves.
TEST_F(KeyedAttribute, ADestructorMayUseTheMap) {
  /// Runs its deleter where the last copy goes.
  using Closing = std::shared_ptr<void>;
  using Node = Kiv::Hm2018NE<1, std::uint32_t, Closing>;
  Kiv::HashMap2018<Node, std::uint32_t, Closing> map;
  unsigned ended = 0;
  for (std::uint32_t n = 0; n < 200; ++n) {
    const auto atEnd = [&, n](void*) {
      ++ended;
      EXPECT_FALSE(map.memberHas(n));
      map.newMember(Node(1000 + n, Closing()));
      map.memberDel(n + 1);
    };
    map.newMember(Node(n, Closing(nullptr, atEnd)));
  }
  const unsigned before = map.memberCount();
  map.memberDel(100);
  EXPECT_EQ(ended, before - 100) << "each took the next one with it";
  map.memberDelAll();
  EXPECT_GE(ended, 200u);
  for (const Node& node : map) EXPECT_GE(node.key(), 1000u);
}

TEST_F(KeyedAttribute, EachHearsOfTheMemberAsItWasWhateverAnotherChangedMeanwhile) {
  const Support::Ear first(*rack->publisher(), [&](const Change& change) {
    if (change.value == nullptr) return;
    if (change.fieldId.number() == 258) return static_cast<void>(rack->cardDel(5));
    const int power = static_cast<const Rack::HN_Power*>(change.value)->value();
    power < 3 ? rack->powerIs(5, power + 1) : static_cast<void>(rack->powerDel(5));
  });
  std::string told;
  const Support::Ear second(*rack->publisher(), [&](const Change& change) {
    if (change.value == nullptr) {
      told += "gone;";
    } else if (change.fieldId.number() == 258) {
      const auto& card = *static_cast<const Rack::HN_Card*>(change.value);
      told += fmt::format("card {};", card.value()->slot());
    } else {
      told += fmt::format("{};", static_cast<const Rack::HN_Power*>(change.value)->value());
    }
  });
  rack->powerIs(5, 1);
  rack->cardIs(makeCard(5));
  EXPECT_EQ(told, "1;2;3;gone;card 5;gone;");
}

}  // namespace

KIV_LOCAL_MODULE(RackModule);
