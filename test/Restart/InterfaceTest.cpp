#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>

#include "Blipline/RingReader.h"
#include "Blipline/TraceHandle.h"
#include "Support/Running.h"
#include "Support/TempDir.h"

namespace RestartTest {
namespace {

using Asic::UnitId;
using Tcam = QuarnBastil::TcamEntryFamily;
using Blocks = QuarnBastil::BigBbFamily;
using testing::ElementsAre;

template <class Family>
struct InterfaceTest : testing::Test {
  Support::TempDir dir;
};
using Families = testing::Types<Tcam, Blocks>;
TYPED_TEST_SUITE(InterfaceTest, Families);

TYPED_TEST(InterfaceTest, IsOneInAProcessAndItsTablesOneForEachUnit) {
  using Interface = typename TypeParam::Interface;
  using Helper = typename TypeParam::SwTableHelperBase;
  Support::Running agent(this->dir.path());
  const auto interface = agent.template interface<TypeParam>();
  EXPECT_EQ(Interface::getIntf(nullptr), interface);
  EXPECT_EQ(agent.tables().swTableIntf(Interface::registryKey()), interface.get());
  const auto table = interface->makeSwTable(UnitId(1), nullptr, false);
  const auto byDefault = table->swTableHelper();
  EXPECT_NE(byDefault, nullptr);
  const auto helper = Fenrik::ptrIsImpl<Helper>();
  EXPECT_EQ(interface->makeSwTable(UnitId(2), helper, false)->swTableHelper(), helper);
  agent.template write<TypeParam>(1, 1, 1);
  agent.pumpAll();
  EXPECT_EQ(interface->makeSwTable(UnitId(1), nullptr, false), table);
  EXPECT_EQ(table->swTableHelper(), byDefault);
  EXPECT_EQ(table->entryLog()->tableVersion().value(), 1U);
  EXPECT_EQ(interface->makeSwTable(UnitId(1), helper, true), table);
  EXPECT_EQ(table->swTableHelper(), helper);
  EXPECT_EQ(table->entryLog()->tableVersion().value(), 2U);
  EXPECT_EQ(table->entrys(), 0U);
  EXPECT_EQ(table->entryLog()->entrysInDeletion(UnitId(1)), 1U);
}

TYPED_TEST(InterfaceTest, HandsOnWhatItHoldsForTheSameArgumentsAndMakesAnewForOthers) {
  Support::Running agent(this->dir.path());
  const auto interface = agent.template interface<TypeParam>();
  const auto id = TypeParam::kTableId;
  const auto log = interface->entryLog();
  const auto status = interface->swTableStatus();
  const auto set = interface->swTableSet();
  EXPECT_EQ(interface->swTableStatusIs(id), status);
  EXPECT_EQ(interface->swTableSetIs(id, status), set);
  const auto group = log->groupInterface();
  EXPECT_EQ(interface->entryLogIs(id, agent.state(), group, "QuarnBastil"), log);
  EXPECT_NE(interface->entryLogIs(id, agent.state(), group, "Another"), log);
  EXPECT_EQ(interface->entryLog()->agentName(), "Another");
  const auto other = Fenrik::ptrIsImpl<Asic::OrderedSwTableStatus>(id);
  EXPECT_NE(interface->swTableSetIs(id, other), set);
  EXPECT_EQ(interface->swTableSet()->status(), other);
  interface->swTableSetIs(set);
}

TYPED_TEST(InterfaceTest, PassesOverWhatIsNoUnitsConfiguration) {
  {
    Support::Running agent(this->dir.path());
    agent.template write<TypeParam>(1, 1, 1);
    agent.pumpAll();
  }
  const Drift::Directory directory(this->dir.path(), Drift::Directory::Access::read);
  const auto config = TypeParam::Constants::configDriftPath(UnitId(1));
  for (const char* const stray : {"/saved", "x", "99999"}) {
    std::ofstream(directory.pathOf((config + stray).view())) << "what somebody left here";
  }
  Support::Running agent(this->dir.path());
  const auto interface = agent.template interface<TypeParam>();
  EXPECT_NO_THROW(interface->reconcile());
  EXPECT_EQ(interface->swTableSet()->swTableCount(), 1U);
  EXPECT_EQ(interface->entryLog()->tableVersion().value(), 2U);
}

TYPED_TEST(InterfaceTest, LeavesARingRecordOfWhatItTookOverOrCleared) {
  const std::string ring = this->dir.path() + "/ring";
  std::filesystem::create_directory(ring);
  Blipline::TraceHandle handle({ring, "t", Blipline::kRingBytesMin, false});
  Blipline::defaultBliplineHandle = &handle;
  {
    Support::Running agent(this->dir.path());
    const auto table = agent.template table<TypeParam>(1);
    for (std::uint32_t key = 0; key < 3; ++key) {
      agent.template write<TypeParam>(1, key, 1);
    }
    table->entryRemove(Support::Numbers<TypeParam>::key(0), nullptr);
    agent.pumpAll();
  }
  {
    Support::Running agent(this->dir.path());
    agent.template table<TypeParam>(1);
    agent.template table<TypeParam>(1, true);
    agent.template table<TypeParam>(7, true);
  }
  Blipline::defaultBliplineHandle = nullptr;
  const Blipline::RingFile file(ring + "/t-0.blip");
  std::vector<std::string> records;
  for (const auto& record : file.records()) {
    const auto& description = file.descriptions().at(record.msgId);
    records.push_back(description.letters + " " + description.className + " " +
                      description.function + file.text(record));
  }
  const std::string name = TypeParam::kTableName;
  const std::string place = " " + name + "Interface makeSwTable ";
  const std::string table = " for table: " + name + ", unitId: ";
  EXPECT_THAT(records, ElementsAre("is" + place + "Restored 0 entries" + table + "1",
                                   "is" + place + "Restored 2 entries" + table + "1",
                                   "s" + place + "Clearing entries" + table + "7"));
}

TEST(InterfaceDeathTest, ASecondOneEndsTheProcess) {
  Support::TempDir dir;
  Support::Running agent(dir.path());
  agent.interface<Tcam>();
  EXPECT_DEATH(QuarnBastil::TcamEntryInterface second(
                   Fenrik::Ptr<Asic::OrderedTableInterface>(&agent.tables())),
               "^Interface already created .*\n"
               ".*void QuarnBastil::TcamEntryInterface::handleInitialized\\(\\): Assertion "
               ".*!singleton->swTableIntfHas\\( .{1,2}QuarnBastil::TcamEntryInterface.{1,2} \\)");
}

}  // namespace
}  // namespace RestartTest
