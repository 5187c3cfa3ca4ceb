#include "OrderedTable/TableFixture.h"

namespace {

struct TableDeathTest : TableFixture<QuarnBastil::TcamEntryFamily> {
  TableDeathTest() { testing::FLAGS_gtest_death_test_style = "threadsafe"; }

  void commit(std::uint8_t flags, const Fenrik::Ptr<Asic::OrderedSwTable::EntryHandle>& handle) {
    const auto wrapper = Fenrik::ptrIsImpl<Wrapper>(Entry(key(5)), handle);
    table->commitEntry(Fenrik::ptrIsImpl<QuarnBastil::TcamEntryResolverEntry>(
        nullptr, Asic::EntryFlags(flags), &*table, wrapper));
  }
};

/// A handle of no family.
struct StrangeHandle : Fenrik::NodeClass<StrangeHandle, Asic::OrderedSwTable::EntryHandle> {
  using Base = Fenrik::NodeClass<StrangeHandle, Asic::OrderedSwTable::EntryHandle>;
  using Base::Base;
  Fenrik::String tableName() const override { return ""; }
  Asic::SwTableId tableId() const override { return {}; }
  Fenrik::String keyText() const override { return ""; }
};

TEST_F(TableDeathTest, ABrokenInvariantOfACommitEndsTheProcessWithItsText) {
  EXPECT_DEATH(
      {
        table->transientVersionForKeyIs(key(5), Asic::EntryVersion());
        write(5, 1);
      },
      "Assertion `currEntryVersion.valid\\(\\)' failed");
  EXPECT_DEATH(commit(Asic::EntryFlags::kWrite, Fenrik::ptrIsImpl<StrangeHandle>(
                                                    Asic::EntryVersion(Asic::MajorVersion(0), 0))),
               "Assertion `entryHandle != NULL' failed");
  EXPECT_DEATH(commit(Asic::EntryFlags::kEntryDelete,
                      Fenrik::ptrIsImpl<Handle>(Asic::EntryVersion(), key(5), &*table)),
               "Assertion `entryConfVersion.valid\\(\\)' failed");
  EXPECT_DEATH(commit(Asic::EntryFlags::kTableDelete, looseHandle(State::entryPending)),
               "Assertion `currRemoveAllVersion.valid\\(\\)' failed");
}

TEST_F(TableDeathTest, AWriteToAUnitThatIsNotThereSaysSoFirst) {
  EXPECT_DEATH(
      log().entryIs(entry(5, 1).logEntry(), {}, nullptr, Asic::UnitId(9), table->stats(), false),
      "^Config drift for unitId:9 is not created yet!.*\n"
      ".*Assertion `\"tableConfigDriftHas\\( unitId \\)\" == nullptr' failed");
}

}  // namespace
