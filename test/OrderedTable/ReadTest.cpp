#include <fcntl.h>
#include <unistd.h>

#include "OrderedTable/TableFixture.h"

namespace {

using testing::ElementsAre;
using testing::UnorderedElementsAre;

template <class Family>
struct Reads : TableFixture<Family> {
  using State = typename Family::IteratorState;
  using Walked = std::vector<std::string>;

  /// "K5=1" or "end", and how the flags stand then: current, adds, configured, remove-all,
  /// bookmark.
  std::string step(State& state) {
    const auto entry = state.maybeUpdateCurrentEntry();
    if (!state.state().hasCurrent()) {
      EXPECT_EQ(entry, typename Family::Entry(this->key(0)));
    }
    return fmt::format("{} {}",
                       state.state().hasCurrent()
                           ? fmt::format("{}={}", this->nameOf(entry.key), this->valueOf(entry))
                           : "end",
                       flags(state));
  }
  static std::string flags(const State& state) {
    std::string text;
    for (unsigned bit = 0; bit < 5; ++bit) {
      text += (state.state().value() >> bit & 1) != 0 ? "cafrb"[bit] : '.';
    }
    return text;
  }
  Walked rest(State& state) {
    Walked walked;
    for (auto entry = state.maybeUpdateCurrentEntry(); state.state().hasCurrent();
         entry = state.maybeUpdateCurrentEntry()) {
      walked.push_back(fmt::format("{}={}", this->nameOf(entry.key), this->valueOf(entry)));
    }
    return walked;
  }
  void configure(std::initializer_list<unsigned> keys) {
    for (const unsigned n : keys) this->write(n, n);
    this->agent.pumpAll();
  }
  /// The configured keys in the order of the collection.
  std::vector<unsigned> configuredOrder() {
    std::vector<unsigned> order;
    const auto state = this->table->initIterState();
    for (auto entry = state->maybeUpdateCurrentEntry(); state->state().hasCurrent();
         entry = state->maybeUpdateCurrentEntry()) {
      order.push_back(this->valueOf(entry));
    }
    return order;
  }
};
TYPED_TEST_SUITE(Reads, AllFamilies);

TYPED_TEST(Reads, ShowWhatIsInFlightOverWhatIsConfigured) {
  this->configure({1, 2, 3, 4});
  const auto has = [&](unsigned n) { return this->table->entryHas(this->key(n)); };
  const auto read = [&](unsigned n) { return this->table->entryRead(this->key(n)); };
  const typename TypeParam::Entry nothing(this->key(0));
  EXPECT_EQ(this->table->entrys(), 4u);
  this->write(1, 10);  // a rewrite adds nothing
  this->write(5, 50);
  this->remove(2);
  this->remove(9);  // what is not there takes nothing away
  EXPECT_EQ(this->table->entrys(), 4u);
  EXPECT_TRUE(has(1) && !has(2) && has(3) && has(5) && !has(9));
  EXPECT_EQ(read(1), this->entry(1, 10));
  EXPECT_EQ(this->table->entry(this->key(1)), this->entry(1, 10));
  EXPECT_EQ(this->table->entryFromConfig(this->key(1)), this->entry(1, 1));
  EXPECT_EQ(this->table->entryFromConfig(this->key(5)), nothing);
  EXPECT_EQ(read(2), nothing);
  EXPECT_EQ(this->table->entryFromConfig(this->key(2)), this->entry(2, 2));
  EXPECT_EQ(read(9), nothing);
  EXPECT_THAT(this->rest(*this->table->initIterState()),
              UnorderedElementsAre("K1=10", "K5=50", "K3=3", "K4=4"));
  // A remove-all hides the configured entries from all but the plain read.
  this->removeAll();
  this->write(6, 60);
  this->write(3, 30);
  EXPECT_TRUE(!has(1) && has(3) && !has(4) && has(6));
  EXPECT_EQ(read(4), this->entry(4, 4));
  EXPECT_EQ(this->table->entrys(), 2u);
  EXPECT_THAT(this->rest(*this->table->initIterState()), UnorderedElementsAre("K3=30", "K6=60"));
  this->agent.pumpAll();
  EXPECT_EQ(this->table->entrys(), 2u);
  EXPECT_EQ(this->table->entryFromConfig(this->key(4)), nothing);
  EXPECT_FALSE(has(4));
  // A wrapper made of what is configured: the key is the one that was asked for.
  Asic::OrderedSwTableAccessor<typename TypeParam::SwTable> accessor(&*this->table);
  Fenrik::Ptr<typename TypeParam::EntryHandle> handle;
  EXPECT_EQ(accessor.entryWrapperFromConfig(this->key(4), false, handle)->entry(),
            this->entry(4, 0));
  EXPECT_EQ(handle->version(), Asic::EntryVersion(Asic::MajorVersion(0), 0));
  const auto former = handle;
  EXPECT_EQ(accessor.entryWrapperFromConfig(this->key(6), true, handle)->logEntry(),
            this->entry(6, 60).logEntry());
  EXPECT_EQ(handle, former);
}

TYPED_TEST(Reads, OfTheLogHideWhatIsInDeletion) {
  this->configure({1, 2});
  this->remove(1);
  this->agent.pumpAll();
  const auto& log = this->log();
  EXPECT_EQ(log.entry(this->key(1), this->kUnit), typename TypeParam::LogEntry(this->key(0)));
  EXPECT_EQ(log.entry(this->key(2), this->kUnit), this->entry(2, 2).logEntry());
  EXPECT_EQ(log.entry(this->key(3), this->kUnit), typename TypeParam::LogEntry());
  EXPECT_FALSE(log.entryHas(this->key(1), this->kUnit));
  EXPECT_TRUE(log.entryHas(this->key(2), this->kUnit));
  EXPECT_EQ(this->versionOf(1), 3u);
  EXPECT_EQ(this->versionOf(3), 0u);
  EXPECT_EQ(log.entrys(this->kUnit), 1u);
  EXPECT_EQ(log.entrysInDeletion(this->kUnit), 1u);
  EXPECT_EQ(this->config().map()->driftMapSize(), 2u);
  EXPECT_THAT(this->rest(*this->table->initIterState()), ElementsAre("K2=2"));
}

TYPED_TEST(Reads, AWalkKeepsItsPlaceInFlagsAndAKey) {
  // Nothing there.
  EXPECT_FALSE(this->table->entryIteratorConst());
  auto state = this->table->initIterState();
  EXPECT_EQ(this->flags(*state), ".a...");
  EXPECT_EQ(this->step(*state), "end .....");
  EXPECT_EQ(this->step(*state), "end .....");
  // The last configured entry still is one; the step behind it ends the walk.
  this->configure({1, 2, 3});
  const auto order = this->configuredOrder();
  const auto at = [&](std::size_t i) { return fmt::format("K{}={}", order[i], order[i]); };
  state = this->table->initIterState();
  EXPECT_EQ(this->step(*state), at(0) + " c.f.b");
  EXPECT_EQ(state->bookmarkKey(), this->key(order[1]));
  EXPECT_EQ(this->step(*state), at(1) + " c.f.b");
  EXPECT_EQ(this->step(*state), at(2) + " c....");
  EXPECT_EQ(this->step(*state), "end .....");
  // The last of the adds clears the bookmark.
  this->write(1, 10);
  this->write(9, 90);
  state = this->table->initIterState();
  EXPECT_THAT(this->step(*state), testing::EndsWith(" ca..b"));
  EXPECT_THAT(this->step(*state), testing::EndsWith(" c.f.."));
  EXPECT_EQ(this->rest(*state).size(), 2u);
  // A remove-all that was pending when the walk began keeps it out of the configuration.
  this->removeAll();
  this->write(9, 91);
  state = this->table->initIterState();
  EXPECT_EQ(this->flags(*state), ".a.r.");
  EXPECT_EQ(this->step(*state), "K9=91 c..r.");
  EXPECT_EQ(this->step(*state), "end ...r.");
}

TYPED_TEST(Reads, AWalkFromAKeyBeginsWhereTheKeyIs) {
  this->configure({1, 2, 3, 4});
  const auto order = this->configuredOrder();
  const auto from = [&](unsigned n) { return this->table->initIterStateFromKey(this->key(n)); };
  // Nowhere.
  EXPECT_EQ(this->flags(*from(9)), "....b");
  EXPECT_EQ(this->step(*from(9)), "end ....b");
  // In the configuration alone: the adds are passed over.
  this->write(8, 80);
  EXPECT_EQ(this->flags(*from(order[1])), "..f.b");
  EXPECT_EQ(this->rest(*from(order[1])).size(), 3u);
  EXPECT_EQ((*this->table->entryIteratorConst(this->key(order[1]))).key, this->key(order[1]));
  // In deletion it is nowhere; with a remove in flight it is there and passed over.
  this->remove(order[1]);
  EXPECT_EQ(this->flags(*from(order[1])), "..f.b");
  EXPECT_EQ(this->rest(*from(order[1])).size(), 2u);
  // Among the adds: from there on, then the whole configuration.
  EXPECT_EQ(this->flags(*from(8)), ".a..b");
  EXPECT_EQ(this->rest(*from(8)).size(), 4u);
  this->agent.pumpAll();
  EXPECT_EQ(this->flags(*from(order[1])), "....b");
  // Among the adds with a remove-all pending: the adds from there on, then the end.
  this->removeAll();
  this->write(7, 70);
  EXPECT_EQ(this->flags(*from(7)), ".a.rb");
  EXPECT_THAT(this->rest(*from(7)), ElementsAre("K7=70"));
  EXPECT_EQ(this->flags(*from(order[0])), "...rb");
}

TYPED_TEST(Reads, WhateverHappensBetweenTwoStepsIsHarmless) {
  this->configure({1, 2, 3, 4});
  const auto order = this->configuredOrder();
  const auto walkTo = [&](unsigned steps) {
    auto state = this->table->initIterState();
    while (steps-- != 0) this->step(*state);
    return state;
  };
  // The bookmark left the configuration: on from the record behind it.
  auto state = walkTo(1);
  this->remove(order[1]);
  this->agent.pumpAll();
  this->report(5);
  ASSERT_EQ(this->config().map()->driftMapSize(), 3u);
  EXPECT_THAT(this->rest(*state),
              ElementsAre(fmt::format("K{0}={0}", order[2]), fmt::format("K{0}={0}", order[3])));
  // A remove or a write in flight hides the record that the bookmark names.
  state = walkTo(1);
  this->remove(order[2]);
  this->write(order[3], 99);
  EXPECT_THAT(this->rest(*state), ElementsAre());
  this->agent.pumpAll();
  // A remove-all that came later does not stop the walk.
  state = walkTo(1);
  this->removeAll();
  EXPECT_THAT(this->rest(*state), ElementsAre(fmt::format("K{}=99", order[3])));
  this->agent.pumpAll();
  this->report(this->log().tableVersion().value());
  ASSERT_EQ(this->table->entrys(), 0u);
  // An add that was returned and then committed is returned once more.
  this->write(1, 1);
  state = walkTo(1);
  this->agent.pumpAll();
  EXPECT_EQ(this->step(*state), "K1=1 c....");
  // An add that joins while the configuration is walked hides its record and is not returned.
  this->configure({2, 3});
  state = walkTo(1);
  this->write(2, 20);
  this->write(3, 30);
  this->write(4, 40);
  this->write(1, 10);
  EXPECT_THAT(this->rest(*state), ElementsAre());
  // The bookmark left the adds: the other adds are passed over, and the configuration is walked
  // from the bookmark on. All of it has been committed by then.
  state = walkTo(1);
  const auto bookmark = this->valueOf(this->table->entry(state->bookmarkKey())) / 10;
  this->agent.pumpAll();
  const auto now = this->configuredOrder();
  const auto place = std::find(now.begin(), now.end(), bookmark * 10);
  ASSERT_NE(place, now.end());
  typename Reads<TypeParam>::Walked expected;
  for (auto it = place; it != now.end(); ++it) {
    expected.push_back(fmt::format("K{}={}", *it / 10, *it));
  }
  EXPECT_EQ(this->flags(*state), "ca..b");
  EXPECT_EQ(this->rest(*state), expected);
}

TYPED_TEST(Reads, ASnapshotIsAKeyedCopy) {
  this->configure({1, 2, 3});
  this->write(1, 10);
  this->remove(2);
  const auto snapshot = this->table->getTableEntries_py();
  this->removeAll();
  this->agent.pumpAll();
  EXPECT_EQ(snapshot->tableEntriesCount(), 2u);
  EXPECT_EQ(snapshot->tableEntries(this->key(1)), this->entry(1, 10));
  snapshot->tableEntriesIs(this->entry(1, 11));
  snapshot->tableEntriesIs(this->entry(4, 40));
  EXPECT_EQ(this->valueOf(snapshot->tableEntriesDel(this->key(1))), 11u);
  EXPECT_EQ(snapshot->tableEntriesDel(this->key(1)), typename TypeParam::Entry());
  EXPECT_EQ(snapshot->tableEntriesCount(), 2u);
  snapshot->tableEntriesDelAll();
  EXPECT_EQ(snapshot->tableEntriesCount(), 0u);
  EXPECT_EQ(this->table->getTableEntries_py()->tableEntriesCount(), 0u);
}

TYPED_TEST(Reads, DamageReadsAsNothingAndIsNotedWithTheCollection) {
  this->configure({1, 2});
  const auto& file = this->config().file();
  const int fd = ::open(file.path().c_str(), O_RDWR);
  ASSERT_GE(fd, 0);
  const auto& header = file.header();
  const std::string garbage(header.slotStride * 2, '\x5a');
  ASSERT_EQ(::pwrite(fd, garbage.data(), garbage.size(), static_cast<off_t>(header.slotsOffset)),
            static_cast<ssize_t>(garbage.size()));
  ::close(fd);
  const auto noted = [&] { return this->config().map()->corruption().count; };
  EXPECT_EQ(this->table->entryFromConfig(this->key(1)), typename TypeParam::Entry());
  EXPECT_GT(noted(), 0u);
  const auto before = noted();
  EXPECT_EQ(this->table->entryRead(this->key(1)), typename TypeParam::Entry());
  EXPECT_FALSE(this->table->entryHas(this->key(2)));
  EXPECT_FALSE(this->table->entryIteratorConst());
  EXPECT_EQ(this->log().entrysInDeletion(this->kUnit), 0u);
  EXPECT_GT(noted(), before + 3);
  // The work goes on, and what is written again can be read again.
  this->write(1, 11);
  this->write(3, 3);
  this->agent.pumpAll();
  EXPECT_EQ(this->table->entryRead(this->key(1)), this->entry(1, 11));
  this->report(4);
  EXPECT_THAT(this->calls,
              ElementsAre("W1 entryDone", "W2 entryDone", "W1 entryDone", "W3 entryDone"));
}

}  // namespace
