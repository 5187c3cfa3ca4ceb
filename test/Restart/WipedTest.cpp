#include <gmock/gmock.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "Kiv/Log.h"
#include "OrderedTable/GenId.h"
#include "QuarnL3NiLib/ReqIdToFecResourceDrift.h"
#include "Stavro/ValueEntity.h"
#include "Support/Process.h"
#include "Support/Running.h"
#include "Support/TempDir.h"

namespace RestartTest {
namespace {

using Asic::UnitId;
using Tcam = QuarnBastil::TcamEntryFamily;
using Blocks = QuarnBastil::BigBbFamily;
using testing::IsEmpty;
using Generation = Stavro::ValueEntity<Asic::GenId>;

constexpr const char* kGeneration = "hardware/lodestar/agent/relaunch/config/QuarnBastil";

std::string damagedMessage(const char* item, const char* family) {
  return std::string("HW_ABSTRACTION_ERROR: Hardware abstraction error: unable to load item: ") +
         item + "::" + family;
}

/// What can befall a collection between two agents.
void truncate(const std::string& path) { std::filesystem::resize_file(path, 100); }
void scratch(const std::string& path) { Support::overwrite(path, 40, "\x55"); }
void replace(const std::string& path) { std::ofstream(path) << "nothing that anybody knows"; }
constexpr void (*kHarms[])(const std::string&) = {truncate, scratch, replace};

template <class Family>
class WipedTest : public testing::Test {
 protected:
  WipedTest() {
    Kiv::LogControl::sinkIs([this](const Kiv::LogMessage& message) {
      messages_.push_back(message.descriptor.mnemonic + (": " + std::string(message.text)));
    });
    Stavro::EntityManager("agent", true, Fenrik::String(dir_.path()),
                          Drift::Directory::Access::write)
        .entityIs<Generation>(kGeneration);
  }
  ~WipedTest() override { Kiv::LogControl::sinkIsStderr(); }

  std::string pathOf(const Fenrik::String& entity) const {
    return Drift::Directory(dir_.path(), Drift::Directory::Access::read).pathOf(entity.view());
  }

  void report(std::uint64_t version) {
    Support::ReporterRig(dir_.path(), Family::Constants::canonicalGroupName())
        .report(Family::kTableId, version);
  }

  /// An agent comes up, finds `live` entries in unit 0, and writes, commits, and hears of it.
  /// Returns the generation.
  std::uint32_t serve(unsigned live) {
    Support::Running agent(dir_.path());
    const auto table = agent.template table<Family>(0);
    agent.template table<Family>(1);
    agent.template interface<Family>()->reconcile();
    EXPECT_EQ(table->entrys(), live);
    EXPECT_EQ(table->entryLog()->tableVersion().value(), newest_)
        << "reported ones are not repeated";
    newest_ += 5;
    for (std::uint32_t key = 0; key < 5; ++key) {
      const auto handle = agent.template write<Family>(0, key, 7);
      agent.pumpAll();
      EXPECT_EQ(handle->logVersion(), table->entryLog()->tableVersion());
    }
    report(table->entryLog()->tableVersion().value());
    agent.tables().waitForReport(std::chrono::seconds(1));
    agent.pumpAll();
    EXPECT_EQ(table->entryHandleInLogFront(), nullptr);
    EXPECT_FALSE(agent.template interface<Family>()->swTableStatus()->pendingHwWrites());
    EXPECT_EQ(table->entrys(), 5U);
    const auto generation =
        Fenrik::dynamicPtrCast<Generation>(agent.state()->getEntity(kGeneration));
    return generation == nullptr ? 0 : generation->get().majorId();
  }

  Support::TempDir dir_;
  std::vector<std::string> messages_;
  std::uint64_t newest_ = 0;
};

using Families =
    testing::Types<Tcam, Blocks, QuarnBastil::TcamActionFamily, QuarnBastil::SmallAdsFamily>;
TYPED_TEST_SUITE(WipedTest, Families);

TYPED_TEST(WipedTest, WhatWasLostIsReportedOnceAndTheAgentsAreRelaunched) {
  using Constants = typename TypeParam::Constants;
  const auto log = this->pathOf(Constants::tableEntryLogDriftPath());
  const auto config = this->pathOf(Constants::configDriftPath(UnitId(0)));
  const auto needed =
      this->pathOf(Asic::Constants::neededPathOfEntryLogPath(Constants::tableEntryLogDriftPath()));
  const auto lostLog = damagedMessage("entryLog", TypeParam::kTableName);
  const auto lostConfig = damagedMessage("entryCfg", TypeParam::kTableName);
  const auto lostNeeded = damagedMessage("neededEntry", TypeParam::kTableName);
  const struct {
    std::vector<std::string> harmed;
    unsigned live;
    std::vector<std::string> messages;
  } cases[] = {{{log}, 5, {lostLog}},
               {{config}, 0, {lostConfig}},
               {{needed}, 5, {lostNeeded}},
               {{log, config, needed}, 0, {lostLog, lostNeeded, lostConfig}},
               {{}, 5, {}}};
  EXPECT_EQ(this->serve(0), 0U);
  EXPECT_THAT(this->messages_, IsEmpty());
  std::size_t generation = 0;
  for (const auto harm : kHarms) {
    for (const auto& [harmed, live, messages] : cases) {
      for (const std::string& path : harmed) harm(path);
      EXPECT_EQ(this->serve(live), generation += harmed.size());
      EXPECT_EQ(std::exchange(this->messages_, {}), messages);
    }
  }
}

TYPED_TEST(WipedTest, ANeededSetThatCannotBeReadGoesWithTheOthers) {
  const auto path =
      Asic::Constants::neededPathOfEntryLogPath(TypeParam::Constants::tableEntryLogDriftPath());
  {
    Support::Running agent(this->dir_.path());
    const auto table = agent.template table<TypeParam>(0);
    const auto other = Fenrik::ptrIsImpl<typename TypeParam::EntryHandle>(
        Asic::EntryVersion(Asic::MajorVersion(0), 0), Support::Numbers<TypeParam>::key(9), &*table);
    other->entryStateIs(Asic::EntryState::entryInLog);
    for (std::uint32_t key = 0; key < 3; ++key) agent.template write<TypeParam>(0, key, 1, other);
    agent.pumpAll();
    const auto needed =
        Fenrik::dynamicPtrCast<Asic::NeededEntryDrift>(agent.memory()->getEntity(path));
    EXPECT_EQ(needed->map()->driftMapSize(), 3U);
    const auto& header = needed->file().header();
    Support::overwrite(this->pathOf(path), header.slotsOffset + 2 * header.slotStride - 16,
                       "damage");
  }
  this->report(2);
  Support::Running agent(this->dir_.path());
  const auto table = agent.template table<TypeParam>(0);
  const auto needed =
      Fenrik::dynamicPtrCast<Asic::NeededEntryDrift>(agent.memory()->getEntity(path));
  EXPECT_EQ(needed->map()->driftMapSize(), 3U) << "the last of them still matters";
  this->report(3);
  agent.pumpAll();
  EXPECT_EQ(needed->map()->driftMapSize(), 0U);
}

TYPED_TEST(WipedTest, AGenerationThatCannotBeReadOrIsNotThereIsNoReasonToStayDown) {
  EXPECT_EQ(this->serve(0), 0U);
  const auto config = this->pathOf(TypeParam::Constants::configDriftPath(UnitId(0)));
  const auto state = this->pathOf("stavro/entities");
  const auto place = Support::textOf(state).find(kGeneration);
  ASSERT_NE(place, std::string::npos);
  Support::overwrite(state, place, "H");
  truncate(config);
  {
    Support::Running agent(this->dir_.path());
    EXPECT_EQ(agent.template table<TypeParam>(0)->entrys(), 0U);
  }
  EXPECT_EQ(this->messages_.size(), 1U);
  Stavro::EntityManager("agent", true, Fenrik::String(this->dir_.path()),
                        Drift::Directory::Access::write)
      .entityDel(kGeneration);
  truncate(config);
  EXPECT_EQ(this->serve(0), 0U);
  EXPECT_EQ(this->messages_.size(), 2U);
}

TYPED_TEST(WipedTest, ReportsThatCannotBeReadAreNone) {
  const auto reports = this->pathOf(
      Asic::Constants::canonicalGroupTableVersionPath(TypeParam::Constants::canonicalGroupName()));
  EXPECT_EQ(this->serve(0), 0U);
  std::uint64_t version = 5;
  for (const auto harm : kHarms) {
    harm(reports);
    {
      Support::Running agent(this->dir_.path());
      const auto table = agent.template table<TypeParam>(0);
      EXPECT_EQ(table->entryLog()->tableVersion().value(), version);
      EXPECT_EQ(table->entryLog()->tableStatusVersion().value(), 0U);
      EXPECT_TRUE(agent.template interface<TypeParam>()->swTableStatus()->pendingHwWrites());
      // The hardware writer makes its collection anew and says where it stands.
      this->report(version);
      agent.tables().waitForReport(std::chrono::seconds(2));
      agent.pumpAll();
      EXPECT_FALSE(agent.template interface<TypeParam>()->swTableStatus()->pendingHwWrites());
    }
    EXPECT_EQ(this->serve(5), 0U);
    version += 5;
  }
  EXPECT_THAT(this->messages_, IsEmpty());
}

TYPED_TEST(WipedTest, AnEnvironmentThatForbidsItsOwnManagerLeadsToTheMachines) {
  const std::string name = "qbrestart." + std::to_string(::getpid());
  const std::string machines = std::string(KivSharedMem::EntityManager::kDefaultRoot) + "/" + name;
  ASSERT_FALSE(std::filesystem::exists(machines));
  const Fenrik::String path = TypeParam::Constants::tableEntryLogDriftPath();
  const auto stored = [&](const std::string& directory) {
    return !Drift::Directory(directory, Drift::Directory::Access::read)
                .entities(path.view())
                .empty();
  };
  EXPECT_EXIT(
      {
        ::setenv("NOT_LOCAL_EM", "", 1);
        Support::Running agent(this->dir_.path(), name);
        const auto log = agent.template interface<TypeParam>()->entryLog();
        agent.template write<TypeParam>(0, 1, 1);
        agent.pumpAll();
        ::_exit(log->tableVersion().value() == 1 && stored(machines) && !stored(this->dir_.path())
                    ? 0
                    : 1);
      },
      testing::ExitedWithCode(0), "");
  std::filesystem::remove_all(machines);
}

template <class Family>
using InterfaceTest = WipedTest<Family>;
TYPED_TEST_SUITE(InterfaceTest, Families);

TYPED_TEST(InterfaceTest, IsOneInAProcessAndItsTablesOneForEachUnit) {
  using Interface = typename TypeParam::Interface;
  using Helper = typename TypeParam::SwTableHelperBase;
  Support::Running agent(this->dir_.path());
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
    Support::Running agent(this->dir_.path());
    agent.template write<TypeParam>(1, 1, 1);
    agent.pumpAll();
  }
  const Drift::Directory directory(this->dir_.path(), Drift::Directory::Access::read);
  const auto config = TypeParam::Constants::configDriftPath(UnitId(1));
  for (const char* const stray : {"/saved", "x", "99999"}) {
    std::ofstream(directory.pathOf((config + stray).view())) << "what somebody left here";
  }
  Support::Running agent(this->dir_.path());
  const auto interface = agent.template interface<TypeParam>();
  EXPECT_NO_THROW(interface->reconcile());
  EXPECT_EQ(interface->swTableSet()->swTableCount(), 1U);
  EXPECT_EQ(interface->entryLog()->tableVersion().value(), 2U);
}

using Action = QuarnBastil::TcamActionFamily;
using WithResources = WipedTest<Action>;

/// The values of resources are lost: that is reported, and everything is pending until it is given
/// again.
TEST_F(WithResources, PendUntilTheirValuesAreGivenAgain) {
  using Key = QuarnL3NiLib::ReqIdToFecResourceTableEntryKey;
  const Key key(2);
  const auto value = [](unsigned number) { return number | 2U << Support::kRequestShift; };
  const auto destOf = [](Support::Running& agent, unsigned number) {
    return agent.table<Action>(0)->entryRead(Support::Numbers<Action>::key(number)).destId;
  };
  for (const auto harm : kHarms) {
    std::filesystem::remove_all(dir_.path());
    std::filesystem::create_directory(dir_.path());
    {
      Support::Running agent(dir_.path());
      agent.table<Action>(0);
      agent.resources().valueIs(key, 5, nullptr);
      agent.write<Action>(0, 1, value(1));
      agent.pumpAll();
      EXPECT_EQ(destOf(agent, 1), 5U);
    }
    messages_.clear();
    harm(pathOf(Fenrik::String(QuarnL3NiLib::ReqIdToFecResourceDrift::kPath)));
    Support::Running agent(dir_.path());
    agent.table<Action>(0);
    EXPECT_THAT(messages_, testing::ElementsAre(testing::HasSubstr("Resources have been lost")));
    EXPECT_FALSE(agent.resources().resourceHas(key));
    const auto waiting = agent.write<Action>(0, 2, value(2));
    agent.pumpAll();
    EXPECT_EQ(waiting->entryState(), Asic::EntryState::entryPending);
    const auto head = agent.group<Action>().groupResolver()->head();
    EXPECT_THAT(std::string(head.waiting.reason.view()), testing::HasSubstr("key 2"));
    EXPECT_EQ(destOf(agent, 1), 0U) << "the neutral helper lets an update take what there is";
    agent.resources().valueIs(key, 6, nullptr);
    agent.pumpAll();
    EXPECT_EQ(waiting->entryState(), Asic::EntryState::entryInLog);
    EXPECT_EQ(destOf(agent, 1) + destOf(agent, 2), 12U);
  }
}

TEST(InterfaceDeathTest, TableWithoutItsResourcesEndsTheProcess) {
  Support::TempDir dir;
  Support::AgentRig agent(dir.path());
  const auto make = [&] {
    Action::Interface::getIntf(Fenrik::Ptr<Asic::OrderedTableInterface>(&agent.tables()))
        ->makeSwTable(UnitId(0), nullptr, false);
  };
  constexpr const char* kName =
      "ResourceTable.QuarnL3NiLib::ReqIdToFecResourceTable.TrafficPolicyIntfInput";
  EXPECT_DEATH(make(), "Assertion `resTbl' failed");
  Support::TempDir elsewhere;
  Support::Running other(elsewhere.path());
  agent.tables().resourceTableIs(kName, other.table<Tcam>(0));
  EXPECT_DEATH(make(), "Assertion `typedResourceTable' failed");
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
