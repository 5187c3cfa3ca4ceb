#include "OrderedTable/TableFixture.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

/// Notes what one object announces: "645 K5", "645 -K5" for a member that has gone, "646" or
/// "662 #1" for a value and an index of a queue.
template <class Fixture>
struct Watcher : Fenrik::Subscriber {
  explicit Watcher(const Fenrik::Publisher& publisher, std::uint16_t queueField = 0)
      : queueField(queueField) {
    dispatchIs(
        [](const Fenrik::Publisher&, Fenrik::Subscriber& self,
           const Fenrik::Change& change) noexcept { static_cast<Watcher&>(self).note(change); });
    publisher.subscriberAdd(*this, false);
  }
  void note(const Fenrik::Change& change) {
    std::string text = fmt::format("{}", change.fieldId.number());
    if (change.key != nullptr) {
      text += change.value == nullptr ? " -" : " ";
      text += Fixture::nameOf(*static_cast<const typename Fixture::Key*>(change.key));
    } else if (change.fieldId.number() == queueField) {
      text += fmt::format(" #{}", *static_cast<const std::uint32_t*>(change.value));
    }
    seen.push_back(text);
  }
  std::vector<std::string> taken() { return std::exchange(seen, {}); }

  std::uint16_t queueField;
  std::vector<std::string> seen;
};

template <class Family>
struct Published : TableFixture<Family> {
  /// The numbers of the table's attributes, from that of `transientAddEntry` on.
  static constexpr unsigned kAdd = std::is_same_v<Family, QuarnBastil::BigBbFamily> ? 771 : 643;
  static constexpr unsigned kRemove = kAdd + 1, kVersion = kAdd + 2, kAll = kAdd + 3,
                            kHelper = kAdd - 1, kQueue = kAdd + 19;
  static std::string of(unsigned field, std::string_view what = "") {
    return what.empty() ? fmt::format("{}", field) : fmt::format("{} {}", field, what);
  }
};
TYPED_TEST_SUITE(Published, AllFamilies);

TYPED_TEST(Published, EachChangeOfATableUnderItsNumberInTheOrderInWhichItIsMade) {
  using T = Published<TypeParam>;
  const auto of = [](unsigned field, std::string_view what = "") { return T::of(field, what); };
  Watcher<T> table(*this->table->publisher(), T::kQueue);
  Watcher<T> status(*this->rig.status()->publisher());

  const auto write = this->write(5, 1);
  EXPECT_THAT(table.taken(), ElementsAre(of(T::kVersion, "K5"), of(T::kAdd, "K5")));
  EXPECT_THAT(status.taken(), ElementsAre("130"));
  Watcher<T> handle(*write->publisher());
  this->write(5, 2);
  EXPECT_THAT(table.taken(), ElementsAre(of(T::kVersion, "K5"), of(T::kAdd, "K5")));
  this->remove(5);
  EXPECT_THAT(table.taken(),
              ElementsAre(of(T::kVersion, "K5"), of(T::kAdd, "-K5"), of(T::kRemove, "K5")));
  this->write(5, 3);
  EXPECT_THAT(table.taken(),
              ElementsAre(of(T::kVersion, "K5"), of(T::kRemove, "-K5"), of(T::kAdd, "K5")));
  EXPECT_THAT(handle.taken(), IsEmpty());
  // Overtaken commits change the queue alone.
  this->agent.tables().pump(3);
  EXPECT_THAT(table.taken(),
              ElementsAre(of(T::kQueue, "#1"), of(T::kQueue, "#2"), of(T::kQueue, "#3")));
  EXPECT_THAT(handle.taken(), ElementsAre("4", "2"));  // log version, then state
  this->agent.pumpAll();
  EXPECT_THAT(table.taken(),
              ElementsAre(of(T::kAdd, "-K5"), of(T::kVersion, "-K5"), of(T::kQueue, "#4")));
  EXPECT_THAT(status.taken(), IsEmpty());
  this->report(1);
  EXPECT_THAT(table.taken(), ElementsAre(of(T::kQueue, "#1")));
  EXPECT_THAT(handle.taken(), ElementsAre("2"));
  this->remove(5);
  this->agent.pumpAll();
  EXPECT_THAT(table.taken(),
              ElementsAre(of(T::kVersion, "K5"), of(T::kRemove, "K5"), of(T::kRemove, "-K5"),
                          of(T::kVersion, "-K5"), of(T::kQueue, "#5")));
  this->report(5);
  EXPECT_EQ(table.taken().size(), 4u);
  EXPECT_THAT(status.taken(), ElementsAre("130"));
  // A remove-all empties the view member by member where somebody listens.
  this->write(1, 1);
  this->write(2, 2);
  this->remove(3);
  table.taken();
  this->removeAll();
  auto seen = table.taken();
  ASSERT_EQ(seen.size(), 4u);
  EXPECT_EQ(seen.back(), of(T::kAll));
  EXPECT_EQ(seen[2], of(T::kRemove, "-K3"));
  seen.resize(2);
  EXPECT_THAT(seen, UnorderedElementsAre(of(T::kAdd, "-K1"), of(T::kAdd, "-K2")));
  this->removeAll();
  EXPECT_THAT(table.taken(), ElementsAre(of(T::kAll)));
  this->agent.pumpAll();
  EXPECT_THAT(table.taken(),
              ElementsAre(of(T::kQueue, "#6"), of(T::kQueue, "#7"), of(T::kAll), of(T::kAll)));
  // A failure changes the handle and nothing else.
  const auto failed = this->write(7, 7, this->looseHandle(Asic::EntryState::entryRejected));
  Watcher<T> failure(*failed->publisher());
  table.taken();
  this->agent.pumpAll();
  EXPECT_THAT(table.taken(), IsEmpty());
  EXPECT_THAT(failure.taken(), ElementsAre("2"));
}

TYPED_TEST(Published, NothingWhereNothingChanges) {
  using T = Published<TypeParam>;
  const auto of = [](unsigned field, std::string_view what = "") { return T::of(field, what); };
  const auto wrapper = Fenrik::ptrIsImpl<typename TypeParam::EntryWrapper>(
      this->entry(5, 1), this->looseHandle(Asic::EntryState::entryPending));
  auto& table = *this->table;
  {
    Watcher<T> watcher(*table.publisher(), T::kQueue);
    table.transientAddEntryIs(wrapper);
    table.transientAddEntryIs(wrapper);
    EXPECT_THAT(watcher.taken(), ElementsAre(of(T::kAdd, "K5")));
    EXPECT_EQ(table.transientAddEntryDel(this->key(5)), wrapper);
    EXPECT_EQ(table.transientAddEntryDel(this->key(5)), nullptr);
    EXPECT_EQ(table.transientRemoveEntryDel(this->key(5)), nullptr);
    EXPECT_THAT(watcher.taken(), ElementsAre(of(T::kAdd, "-K5")));
    const Asic::EntryVersion version(Asic::MajorVersion(3), 4);
    table.transientVersionForKeyIs(this->key(5), version);
    table.transientVersionForKeyIs(this->key(5), version);
    EXPECT_EQ(table.transientVersionForKeyGet(this->key(5)), version);
    EXPECT_EQ(table.transientVersionForKeyDel(this->key(5)), version);
    EXPECT_FALSE(table.transientVersionForKeyDel(this->key(5)).valid());
    EXPECT_THAT(watcher.taken(), ElementsAre(of(T::kVersion, "K5"), of(T::kVersion, "-K5")));
    table.transientRemoveAllVersionIs(Asic::MajorVersion());
    table.swTableHelperIs(table.swTableHelper());
    EXPECT_EQ(table.entryHandleInLogDeq(), nullptr);
    EXPECT_THAT(watcher.taken(), IsEmpty());
    table.swTableHelperIs(Fenrik::ptrIsImpl<typename TypeParam::SwTableHelperBase>());
    EXPECT_THAT(watcher.taken(), ElementsAre(of(T::kHelper)));
    table.entryHandleInLogEnq(this->looseHandle(Asic::EntryState::entryInLog));
    table.entryHandleInLogEnq(this->looseHandle(Asic::EntryState::entryDone));
    EXPECT_TRUE(table.entryHandleInLogHas(2) && !table.entryHandleInLogHas(0));
    EXPECT_EQ(table.entryHandleInLog(2), table.entryHandleInLogBack());
    table.entryHandleInLogDelAll();
    EXPECT_THAT(watcher.taken(), ElementsAre(of(T::kQueue, "#1"), of(T::kQueue, "#2"),
                                             of(T::kQueue, "#1"), of(T::kQueue, "#2")));
  }
  // With nobody listening the same is emptied at once.
  this->write(1, 1);
  this->remove(2);
  table.entryHandleInLogEnq(this->looseHandle(Asic::EntryState::entryInLog));
  this->removeAll();
  table.entryHandleInLogDelAll();
  table.transientVersionForKeyDelAll();
  EXPECT_EQ(table.transientAddEntryCount() + table.transientRemoveEntryCount() +
                table.transientVersionForKeyCount() + table.entryHandleInLogCount(),
            0u);
  // A handle tells that its table pointer changed, once.
  const auto handle = this->looseHandle(Asic::EntryState::entryPending);
  Watcher<T> watcher(*handle->publisher());
  handle->entryStateIs(Asic::EntryState::entryPending);
  handle->swTableIs(&table);
  handle->swTableIs(nullptr);
  EXPECT_THAT(watcher.taken(), ElementsAre("515"));
  const auto fact = TypeParam::EntryHandle::attributeFact(Fenrik::FieldIndex<514>{});
  EXPECT_EQ(fact.name, "key");
  // A null wrapper is refused under the attribute's name and number.
  for (const bool add : {true, false}) {
    try {
      add ? table.transientAddEntryIs(nullptr) : table.transientRemoveEntryIs(nullptr);
      ADD_FAILURE();
    } catch (const Fenrik::MutatorArgNullPointerException& e) {
      EXPECT_EQ(e.fieldId().number(), add ? T::kAdd : T::kRemove);
    }
  }
}

}  // namespace
