#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>

#include "Blipline/RingReader.h"
#include "OrderedTable/TableFixture.h"
#include "Restart/Running.h"
#include "Support/TempDir.h"

namespace RestartTest {
namespace {

using Asic::UnitId;
using testing::ElementsAre;

const std::string kPath = "hardware/QuarnBastil-QuarnBastilGroup/QuarnBastil::TcamEntry/";

/// The lines of the interface are written out, those of table and log with a letter for the handle:
/// "T 8 f|text" and "L 8 f|text".
std::vector<std::string> lines(std::vector<std::string> texts) {
  for (std::string& text : texts) {
    const std::string name = text[0] == 'I'   ? "TcamEntryInterface"
                             : text[0] == 'T' ? "TcamEntrySwTable"
                                              : "TcamEntryEntryLog";
    text.replace(0, 1, name);
    if (const auto at = text.find('$'); at != std::string::npos) text.replace(at, 1, name);
  }
  return texts;
}

/// What the report brings that every new table begins with.
std::vector<std::string> begun(const char* version, const char* unit, bool pending) {
  return lines({std::string("T 8 tableStatusVersion|tableVersion: ") + version,
                std::string("L 8 cleanupEntryLog|$ version ") + version, "T 8 hasPendingHwWrites|$",
                std::string("T 3 hasPendingHwWrites| pendingHwWrites for swTable: tableId: "
                            "04:08:0404, unitId") +
                    unit + " is " + (pending ? "true" : "false")});
}

std::vector<std::string> mounted(const std::string& unit, const char* version) {
  return lines({"I 8 makeSwTable|$ unitId: " + unit,
                "L 8 mountDriftConfig|$ unitId:" + unit + ", logVersion: " + version,
                "L 2 mountDriftConfig|$ Mounted config for unitId: " + unit + " at " + kPath +
                    "config/" + unit,
                "T 8 handleInitialized|$doesMarkSweep: False hwErrorHandling: False"});
}

void expect(TraceNotes& notes, const std::vector<std::vector<std::string>>& parts) {
  std::vector<std::string> expected;
  for (const auto& part : parts) expected.insert(expected.end(), part.begin(), part.end());
  EXPECT_THAT(notes.taken(), testing::ElementsAreArray(expected));
}

TEST(InterfaceTrace, OfAFirstStartARestartAndAUnitThatIsNotThereAnyMore) {
  Support::TempDir dir;
  {
    Running agent(dir.path());
    TraceNotes notes("*/*");
    agent.interface<Tcam>();
    expect(notes, {lines({"I 3 handleInitialized|$ Creating entry log for 04:08:0404",
                          "L 8 handleInitialized|$", "L 8 mountDriftChangeLog|$",
                          "L 2 mountDriftChangeLog|$ Mounted entryLog: " + kPath +
                              "entryLog/04080404, tableVersion: 0",
                          "I 2 handleInitialized|$ Entry log created for table id: 04:08:0404 at "
                          "version: 0"})});
    const auto table = agent.table<Tcam>(3);
    expect(notes, {mounted("3", "0"),
                   lines({"L 8 entrys|$ unitId:3", "L 8 entrysInDeletion|$ unitId:3",
                          "I 2 makeSwTable|$ Restored 0 entries for table: TcamEntry, unitId: 3"}),
                   begun("0", "3", false)});
    agent.interface<Tcam>()->reconcile();
    expect(notes, {lines({"I 8 reconcile|$",
                          "I 3 reconcile|$ No. of config entities found: 1, in drift path: " +
                              kPath + "config/"})});
    for (const std::uint32_t key : {1U, 2U}) {
      table->entryWrite(Tcam::keyOf(key), entryOf<Tcam>(key, 1), nullptr);
      table->entryRemove(Tcam::keyOf(key), nullptr);
    }
    table->entryWrite(Tcam::keyOf(3), entryOf<Tcam>(3, 1), nullptr);
    agent.pumpAll();
    notes.taken();
    Support::ReporterRig(dir.path(), "QuarnBastil-QuarnBastilGroup").report(Tcam::kTableId, 2);
  }
  Running agent(dir.path());
  TraceNotes notes("*/*");
  agent.interface<Tcam>();
  expect(notes, {lines({"I 3 handleInitialized|$ Creating entry log for 04:08:0404",
                        "L 8 handleInitialized|$", "L 8 mountDriftChangeLog|$",
                        "L 2 mountDriftChangeLog|$ Mounted entryLog: " + kPath +
                            "entryLog/04080404, tableVersion: 5",
                        "L 8 cleanupEntryLog|$ version 2",
                        "L 3 cleanupEntryLog|$ configDrift not found for unitId: 3",
                        "L 3 cleanupEntryLog|$ configDrift not found for unitId: 3",
                        "I 3 handleInitialized|$ Cleaned entry log until table version: 2",
                        "I 2 handleInitialized|$ Turning ON pendingHwWrites",
                        "I 2 handleInitialized|$ Entry log created for table id: 04:08:0404 at "
                        "version: 5"})});
  agent.table<Tcam>(5);
  expect(notes, {mounted("5", "2"),
                 lines({"L 8 entrys|$ unitId:5", "L 8 entrysInDeletion|$ unitId:5",
                        "I 2 makeSwTable|$ Restored 0 entries for table: TcamEntry, unitId: 5"}),
                 begun("2", "5", true)});
  agent.interface<Tcam>()->reconcile();
  const auto cleared =
      lines({"T 8 clearTable|", "T 8 delAllEntries| releaseResources: false, neededEntry:0x0 ",
             "L 8 tableDel|$ neededEntry:0x0, unitId: 3"});
  expect(notes, {lines({"I 8 reconcile|$",
                        "I 3 reconcile|$ No. of config entities found: 2, in drift path: " + kPath +
                            "config/",
                        "I 3 reconcile|$ Found inactive unit id: 3 "}),
                 mounted("3", "2"),
                 lines({"I 2 makeSwTable|$ Clearing entries for table: TcamEntry, unitId: 3"}),
                 cleared, begun("2", "5", true)});
  agent.interface<Tcam>()->reconcile();
  EXPECT_EQ(notes.taken().size(), 2U) << "the second one finds all units active";
  agent.interface<Tcam>()->makeSwTable(
      UnitId(3), Fenrik::ptrIsImpl<QuarnBastil::TcamEntrySwTableHelperBase>(), true);
  expect(notes,
         {lines({"I 8 makeSwTable|$ unitId: 3", "I 3 makeSwTable|$swTable with unitId: 3 exists",
                 "I 2 makeSwTable|$Update software table helper",
                 "I 2 makeSwTable|$ Clearing entries for table id: 04:08:0404"}),
          cleared});
  EXPECT_EQ(agent.interface<Tcam>()->entryLog()->tableVersion().value(), 7U);
}

template <class Family>
struct InterfaceTest : testing::Test {
  Support::TempDir dir;
};
using Families = testing::Types<Tcam, Blocks>;
TYPED_TEST_SUITE(InterfaceTest, Families);

TYPED_TEST(InterfaceTest, IsOneInAProcessAndItsTablesOneForEachUnit) {
  using Interface = typename TypeParam::Interface;
  using Helper = typename TypeParam::SwTableHelperBase;
  Running agent(this->dir.path());
  const auto interface = agent.template interface<TypeParam>();
  EXPECT_EQ(Interface::getIntf(nullptr), interface);
  EXPECT_EQ(agent.tables().swTableIntf(Interface::registryKey()), interface.get());
  const auto table = interface->makeSwTable(UnitId(1), nullptr, false);
  const auto byDefault = table->swTableHelper();
  EXPECT_NE(byDefault, nullptr);
  const auto helper = Fenrik::ptrIsImpl<Helper>();
  EXPECT_EQ(interface->makeSwTable(UnitId(2), helper, false)->swTableHelper(), helper);
  table->entryWrite(TypeParam::keyOf(1), entryOf<TypeParam>(1, 1), nullptr);
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
  Running agent(this->dir.path());
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
  const auto held = interface->swTableSet();
  EXPECT_EQ(interface->swTableSetDel(), held);
  EXPECT_EQ(interface->swTableSet(), nullptr);
  interface->swTableSetIs(set);
}

TYPED_TEST(InterfaceTest, PassesOverWhatIsNoUnitsConfiguration) {
  {
    Running agent(this->dir.path());
    agent.template table<TypeParam>(1)->entryWrite(TypeParam::keyOf(1), entryOf<TypeParam>(1, 1),
                                                   nullptr);
    agent.pumpAll();
  }
  const Drift::Directory directory(this->dir.path(), Drift::Directory::Access::read);
  const auto config = TypeParam::Constants::configDriftPath(UnitId(1));
  for (const char* const stray : {"/saved", "x", "99999"}) {
    std::ofstream(directory.pathOf((config + stray).view())) << "what somebody left here";
  }
  Running agent(this->dir.path());
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
    Running agent(this->dir.path());
    const auto table = agent.template table<TypeParam>(1);
    for (std::uint32_t key = 0; key < 3; ++key) {
      table->entryWrite(TypeParam::keyOf(key), entryOf<TypeParam>(key, 1), nullptr);
    }
    table->entryRemove(TypeParam::keyOf(0), nullptr);
    agent.pumpAll();
  }
  {
    Running agent(this->dir.path());
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
  Running agent(dir.path());
  agent.interface<Tcam>();
  EXPECT_DEATH(QuarnBastil::TcamEntryInterface second(
                   Fenrik::Ptr<Asic::OrderedTableInterface>(&agent.tables())),
               "^Interface already created .*\n"
               ".*void QuarnBastil::TcamEntryInterface::handleInitialized\\(\\): Assertion "
               ".*!singleton->swTableIntfHas\\( .{1,2}QuarnBastil::TcamEntryInterface.{1,2} \\)");
}

}  // namespace
}  // namespace RestartTest
