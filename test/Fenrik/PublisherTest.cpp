#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <memory>
#include <random>

#include "Fenrik/Format.h"
#include "Lamp.h"
#include "Support/Ear.h"
#include "Support/Soak.h"

namespace {

using Fenrik::Change;
using Fenrik::FieldId;
using Fenrik::ptrIsImpl;
using Fenrik::Publisher;
using Support::Ear;

TEST(Attribute, MutatorsAnnounceWhatChangedUnderItsNumberAndNothingElse) {
  const auto lamp = ptrIsImpl<Lamp>(5);
  const auto watcher = ptrIsImpl<Watcher>(lamp);
  lamp->brightnessIs(6);
  watcher->hasNotificationActiveIs(true);
  watcher->hasNotificationActiveIs(true);
  lamp->brightnessIs(6);
  lamp->brightnessIs(7);
  lamp->nextIs(nullptr);
  lamp->nextIs(ptrIsImpl<Lamp>(1));
  lamp->nextIs(lamp->next());
  lamp->switchCntInc(2);
  lamp->switchCntInc(0);
  EXPECT_EQ(watcher->seen, (std::vector<int>{130, 131, 134}));

  EXPECT_FALSE(watcher->kivDoZombieReactors(true));
  EXPECT_TRUE(watcher->kivDoZombieReactors(true));
  lamp->brightnessIs(8);
  EXPECT_TRUE(watcher->kivDoZombieReactors(false));
  watcher->hasNotificationActiveIs(false);
  EXPECT_FALSE(watcher->subscribed());
  lamp->brightnessIs(9);
  EXPECT_EQ(watcher->seen.size(), 3u) << "a zombie or a reactor without subscription reacted";
}

TEST(Attribute, AReactorFollowsWhatItsPointerLeadsToNow) {
  const auto watcher = ptrIsImpl<Watcher>(nullptr);
  const Fenrik::Ptr<Lamp> lamps[] = {ptrIsImpl<Lamp>(1), ptrIsImpl<Lamp>(1)};
  watcher->hasNotificationActiveIs(true);
  EXPECT_TRUE(watcher->hasNotificationActive());
  EXPECT_FALSE(watcher->subscribed()) << "there is nothing to watch";
  watcher->lampIs(lamps[0]);
  lamps[0]->brightnessIs(2);
  watcher->lampIs(lamps[1]);
  lamps[0]->switchCntInc(1);
  lamps[1]->nextIs(lamps[0]);
  EXPECT_EQ(watcher->seen, (std::vector<int>{130, 131}));
  watcher->hasNotificationActiveIs(false);
  watcher->lampIs(lamps[0]);
  EXPECT_FALSE(watcher->subscribed() || watcher->nodeFlag(Fenrik::NodeFlag::kivDoZombieReactors));
}

TEST(Attribute, ThePointerThatGivesWayLivesUntilItsReplacementWasAnnounced) {
  std::string ended;
  const auto lamp = ptrIsImpl<Lamp>(1);
  lamp->nextIs(ptrIsImpl<Lamp>(2));
  lamp->next()->ended = &ended;
  std::string endedWhenHeard = "not heard";
  const Ear ear(*lamp->publisher(), [&](const Change&) { endedWhenHeard = ended; });
  lamp->nextIs(ptrIsImpl<Lamp>(3));
  EXPECT_EQ(endedWhenHeard, "");
  EXPECT_EQ(ended, "ended");
}

/// A subscriber and the changes that it has been told of, which are numbered in their order.
struct Listener : Ear {
  void toggle(const Publisher& publisher, int present, bool atFront) {
    if (subscribed()) return unsubscribe();
    attach(publisher, atFront);
    last = present;
  }
  void told(const Change& change) {
    EXPECT_EQ(*static_cast<const int*>(change.value), change.fieldId.number());
    EXPECT_EQ(change.fieldId.number(), ++last) << "not in order, or one left out";
  }
  int last = 0;
};

/// Subscribers come and go while they are told, and change what they hear of once more.
TEST(PublisherSoak, EveryListenerIsToldOfEachChangeInOrderHoweverTheListChangesMeanwhile) {
  const Support::Seed seed;
  std::mt19937 random(seed);
  for (int round = 0; round < 300 * Support::soakFactor(); ++round) {
    Publisher publisher;
    std::array<Listener, 8> listeners;
    int value = 0;
    const auto firstWord = [&] { return *reinterpret_cast<const std::uintptr_t*>(&publisher); };
    EXPECT_EQ(firstWord(), 1u);
    const auto change = [&] {
      const FieldId number(static_cast<std::uint16_t>(value + 1));
      Fenrik::Impl::attributeValueIs(publisher, number, value, value + 1);
    };
    for (Listener& listener : listeners) {
      listener.hear = [&](const Change& heard) {
        listener.told(heard);
        listeners[random() % 8].toggle(publisher, value, random() % 2 == 0);
        if (value < 12 && random() % 4 == 0) change();
      };
      listener.toggle(publisher, value, random() % 2 == 0);
    }
    for (int changes = 0; changes != 3; ++changes) change();
    EXPECT_EQ(firstWord() == 1, std::ranges::none_of(listeners, &Listener::subscribed));
    for (const Listener& listener : listeners)
      EXPECT_TRUE(!listener.subscribed() || listener.last == value) << "has not heard of all";
  }
}

TEST(Publisher, AListenerMayEndTheObjectThatItHears) {
  auto publisher = std::make_unique<Publisher>();
  std::string told;
  const Ear first(*publisher, [&](const Change& change) {
    told += "first ";
    if (change.fieldId != FieldId(1)) return;
    publisher->publishChange(FieldId(2), nullptr);
    publisher.reset();
  });
  const Ear second(*publisher, [&](const Change&) { told += "second "; });
  publisher->publishChange(FieldId(1), nullptr);
  EXPECT_EQ(told, "first second first second ");
  EXPECT_FALSE(second.subscribed());
}

}  // namespace
