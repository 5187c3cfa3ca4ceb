#include <gtest/gtest.h>

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

TEST(Attribute, AReactorWithNothingToWatchTakesTheFlagAlone) {
  const auto watcher = ptrIsImpl<Watcher>(nullptr);
  watcher->hasNotificationActiveIs(true);
  EXPECT_TRUE(watcher->hasNotificationActive());
  EXPECT_FALSE(watcher->subscribed());
  EXPECT_FALSE(watcher->nodeFlag(Fenrik::NodeFlag::kivDoZombieReactors));
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

TEST(Attribute, TheModuleListsClassesAndAttributesInOrder) {
  const Kiv::KivType type = ptrIsImpl<Lamp>(1)->typeData();
  ASSERT_TRUE(type.valid());
  EXPECT_EQ(type.module()->name, "LampTest");
  EXPECT_EQ(type.index(), 0);
  EXPECT_EQ(ptrIsImpl<Watcher>(nullptr)->typeData().index(), 1);
  std::string rows;
  for (const Kiv::AttributeFact& row : type.facts()->attributes) {
    rows += fmt::format("{} {} {};", row.fieldId.number(), row.name, static_cast<int>(row.kind));
  }
  EXPECT_EQ(rows, "130 brightness 0;131 next 1;134 switchCnt 0;137 blink 4;");
  EXPECT_EQ(type.attribute("switchCnt")->fieldId, FieldId(134));
  EXPECT_EQ(type.attribute(FieldId(132)), nullptr);
}

TEST(Publisher, TheFirstWordSaysWhetherAnybodyListens) {
  Publisher publisher;
  const auto firstWord = [&] { return *reinterpret_cast<const std::uintptr_t*>(&publisher); };
  EXPECT_EQ(firstWord(), 1u);
  {
    Ear ear;
    ear.attach(publisher);
    EXPECT_NE(firstWord(), 1u);
    ear.unsubscribe();
    EXPECT_EQ(firstWord(), 1u);
    EXPECT_EQ(ear.dispatch(), nullptr);
    ear.attach(publisher);
  }
  EXPECT_EQ(firstWord(), 1u) << "a subscriber that goes leaves its publisher";
}

/// Subscribers come and go while they are told, also in announcements made within announcements.
TEST(PublisherSoak, EveryListenerIsToldOnceHoweverTheListChangesMeanwhile) {
  const unsigned seed = Support::seed();
  SCOPED_TRACE(fmt::format("BASTIL_SEED={}", seed));
  std::mt19937 random(seed);
  for (int round = 0; round < 300 * Support::soakFactor(); ++round) {
    Publisher publisher;
    std::array<Ear, 8> ears;
    for (Ear& ear : ears) ear.attach(publisher, random() % 2 == 0);
    int turn = 0;
    int depth = 0;
    std::vector<std::pair<int, std::size_t>> told;
    for (std::size_t i = 0; i < ears.size(); ++i) {
      ears[i].hear = [&, i](const Change& change) {
        told.emplace_back(change.fieldId.number(), i);
        for (int n = 0; n < 2; ++n) {
          Ear& other = ears[random() % ears.size()];
          if (other.subscribed()) {
            other.unsubscribe();
          } else {
            other.attach(publisher, random() % 2 == 0);
          }
        }
        if (depth < 2 && random() % 4 == 0) {
          ++depth;
          publisher.publishChange(FieldId(static_cast<std::uint16_t>(++turn)), nullptr);
          --depth;
        }
      };
    }
    const auto attached = std::ranges::count_if(ears, &Ear::subscribed);
    publisher.publishChange(FieldId(0), nullptr);
    EXPECT_FALSE(told.empty());
    EXPECT_LE(std::ranges::count(told, 0, &std::pair<int, std::size_t>::first), attached);
    EXPECT_GE(std::ranges::count(told, 0, &std::pair<int, std::size_t>::first), 1);
    std::ranges::sort(told);
    EXPECT_TRUE(std::ranges::adjacent_find(told) == told.end()) << "told twice of one change";
  }
}

TEST(Publisher, AListenerMayEndTheObjectThatItHears) {
  auto publisher = std::make_unique<Publisher>();
  std::vector<std::string> told;
  Ear first;
  Ear second;
  first.hear = [&](const Change& change) {
    told.emplace_back("first");
    if (change.fieldId == FieldId(1)) {
      publisher->publishChange(FieldId(2), nullptr);
      publisher.reset();
    }
  };
  second.hear = [&](const Change&) { told.emplace_back("second"); };
  first.attach(*publisher);
  second.attach(*publisher);
  publisher->publishChange(FieldId(1), nullptr);
  EXPECT_EQ(told, (std::vector<std::string>{"first", "first", "second"}));
  EXPECT_FALSE(second.subscribed());
}

TEST(String, GrowsOnBothSidesEvenByItselfAndFormats) {
  Fenrik::String text("table");
  text.addLeft("/");
  text.addRight(text.view());
  EXPECT_EQ(text, "/table/table");
  text.addLeft(text.view().substr(6));
  EXPECT_EQ(text, "/table/table/table");
  EXPECT_EQ("a" + Fenrik::String("b") + "c" + Fenrik::String("d"), "abcd");
  EXPECT_EQ(Fenrik::formatString("{:>6}|{}", Fenrik::String("ab"), 3), "    ab|3");
}

}  // namespace
