#include <gtest/gtest.h>

#include <fstream>

#include "Support/Running.h"
#include "Support/TempDir.h"

namespace RestartTest {
namespace {

using Asic::UnitId;
using Tcam = QuarnBastil::TcamEntryFamily;
using Blocks = QuarnBastil::BigBbFamily;

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
