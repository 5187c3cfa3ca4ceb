#include <fcntl.h>
#include <unistd.h>

#include <cstring>
#include <fstream>

#include "OrderedTable/Catalogue.h"
#include "OrderedTable/TableDescriptor.h"
#include "OrderedTable/TableFixture.h"
#include "Support/Ear.h"
#include "Support/FamilyFacts.h"
#include "Support/Process.h"
#include "Support/Running.h"

namespace {

using Support::factsOf;
using testing::ElementsAre;

/// "642 swTableHelper, 643 ...", the numbers counted from the first one's.
std::string attributesOf(Kiv::KivType type) {
  std::string text;
  for (const Kiv::AttributeFact& row : type.facts()->attributes) {
    text += fmt::format("{}{} {}", text.empty() ? "" : ", ", row.fieldId.number(), row.name);
  }
  return text;
}
std::string numbered(unsigned from, std::initializer_list<std::pair<unsigned, const char*>> names) {
  std::string text;
  for (const auto& [number, name] : names) {
    text += fmt::format("{}{} {}", text.empty() ? "" : ", ", from + number, name);
  }
  return text;
}

std::string tablesPage() {
  std::ifstream file(BASTIL_TABLES_PAGE);
  return {std::istreambuf_iterator<char>(file), {}};
}

using Bytes = std::vector<unsigned char>;

template <class T>
void put(Bytes& bytes, std::size_t at, const T& value) {
  std::memcpy(bytes.data() + at, &value, sizeof value);
}
Bytes bytesOf(std::span<const Drift::Word> words) {
  Bytes bytes(words.size_bytes());
  std::memcpy(bytes.data(), words.data(), bytes.size());
  return bytes;
}

template <class Family>
struct Conformance : TableFixture<Family> {
  /// What is in flight on key 5 and what is configured under it, versions from `base` on: written
  /// value, version of a remove, version of the key and of a remove-all, value@version, "-" behind
  /// it if that is in deletion.
  std::string view(unsigned unit, std::uint64_t base) {
    const auto& table = *this->table;
    const auto key = this->key(5);
    const auto number = [](const auto& version) {
      return version.valid() ? fmt::format("{}", version.value()) : "-";
    };
    const auto add = table.transientAddEntry(key);
    const auto remove = table.transientRemoveEntry(key);
    bool found = false;
    const auto& record = this->config(unit).map()->driftMapFind(key, found);
    return fmt::format(
        "{} {} {} {} {}@{}{}",
        add == nullptr ? "-" : fmt::format("{}", this->valueOf(add->entry())),
        remove == nullptr ? "-" : number(remove->entryHandle()->version().majorVersion()),
        number(table.transientVersionForKey(key).majorVersion()),
        number(table.transientRemoveAllVersion()), this->valueOf(record.logEntry),
        record.logVersion.value() - base, record.isDeleted ? "-" : "");
  }
};
TYPED_TEST_SUITE(Conformance, AllFamilies);

TYPED_TEST(Conformance, HasTheNamesAndNumbersThatOthersKnowItBy) {
  using Family = TypeParam;
  const auto& facts = factsOf<Family>();
  const std::string name(facts.name);
  const Asic::TableDescriptor& is = QuarnBastil::descriptorOf<Family>();
  EXPECT_THAT(Asic::TableRegistration::all(), testing::Contains(&is));
  EXPECT_EQ(is.tableId, Asic::SwTableId(facts.tableId));
  EXPECT_EQ(Family::Interface::groupName(), facts.group);
  EXPECT_EQ(Family::Interface::tableName(), name.c_str());
  EXPECT_EQ(Family::Interface::registryKey(), ("QuarnBastil::" + name + "Interface").c_str());
  EXPECT_EQ(is.collections.configType, facts.model + std::string("ConfigDrift"));
  EXPECT_EQ(is.collections.logType, facts.model + std::string("EntryLogDrift"));
  const std::string root = fmt::format("hardware/{}/QuarnBastil::{}/", facts.group, name);
  EXPECT_EQ(this->config().path().view(), root + "config/3");
  EXPECT_EQ(this->log().tableEntryLog()->path().view(),
            root + fmt::format("entryLog/{:08x}", facts.tableId));

  if (name != "Toy") {
    EXPECT_THAT(tablesPage(), testing::HasSubstr(fmt::format(
                                  "| `{}` | {} | {} | {}, {} |", is.tableName, is.tableId,
                                  is.groupName, is.records.key.size, is.records.logEntry.size)));
  }

  const auto type = [&]<class T>(const T*, const char* module, unsigned index) {
    EXPECT_EQ(Kiv::typeOf<T>().module()->name, name + module);
    EXPECT_EQ(Kiv::typeOf<T>().index(), index);
    return attributesOf(Kiv::typeOf<T>());
  };
  using Table = typename Family::SwTable;
  EXPECT_EQ(type((typename Family::EntryHandle*)nullptr, "SwTable", 0), "514 key, 515 swTable");
  EXPECT_EQ(type((typename Family::SwTableEntries_py*)nullptr, "SwTable", 1), "130 tableEntries");
  const unsigned link = name == "TcamAction" ? 1 : 0;
  EXPECT_EQ(type((Table*)nullptr, "SwTable", 2),
            numbered(facts.tableAttribute, {{0, "swTableHelper"},
                                            {1, "transientAddEntry"},
                                            {2, "transientRemoveEntry"},
                                            {3, "transientVersionForKey"},
                                            {4, "transientRemoveAllVersion"},
                                            {5, "entryWrite"},
                                            {7, "entryRemove"},
                                            {9, "entryRemoveAll"},
                                            {11, "entryRead"},
                                            {12, "entry"},
                                            {13, "entryHas"},
                                            {14, "entrys"},
                                            {16, "getTableEntries_py"},
                                            {17, "entryLog"},
                                            {18, "groupResolver"},
                                            {20, "entryHandleInLog"},
                                            {21, "commitEntry"},
                                            {22, "updateEntry"},
                                            {23, "getNeededEntrySet"},
                                            {24, "isResolverEntryResolved"},
                                            {25, "setRsrcPtrs"},
                                            {26, "entryFromConfig"},
                                            {27, "restoreEntries"},
                                            {28, "clearTable"},
                                            {29 + link, "initIterState"},
                                            {30 + link, "initIterStateFromKey"},
                                            {31 + link, "handleInitialized"}}));
  EXPECT_EQ(
      type((typename Family::IteratorState*)nullptr, "SwTable", 3),
      numbered(facts.iteratorAttribute, {{0, "maybeUpdateCurrentEntry"}, {1, "bookmarkKey"}}));
  type((typename Family::EntryWrapper*)nullptr, "InfraTypes", 0);
  type((typename Family::ResolverEntry*)nullptr, "InfraTypes", 1);
  type((typename Family::SwTableHelperBase*)nullptr, "SwTableHelperBase", 0);
  type((typename Family::EntryLog*)nullptr, "EntryLog", 0);
  type((typename Family::Interface*)nullptr, "Interface", 0);
  EXPECT_EQ(this->table->typeData(), Kiv::typeOf<Table>());

  constexpr unsigned kKey = 0x20005;
  EXPECT_EQ(fmt::format("{}", this->key(kKey)), facts.key);
  const auto handle = this->write(kKey, 1);
  EXPECT_EQ(handle->keyText().view(), facts.key);
  EXPECT_EQ(handle->tableId(), is.tableId);
  EXPECT_EQ(handle->tableName(), fmt::format("OrderedSwTable.{}.{}", facts.group, name).c_str());
  EXPECT_EQ(this->rig.resolver().head().waiting.key, facts.key);
}

TYPED_TEST(Conformance, StoresAChangeByteByByteAsTheFormatSays) {
  const auto& facts = factsOf<TypeParam>();
  using LogEntry = typename TypeParam::LogEntry;
  const auto entryBytes = [&](const LogEntry& entry) {
    Bytes bytes(facts.entrySize);
    static_assert(sizeof entry >= 8);
    EXPECT_EQ(sizeof entry, bytes.size());
    std::memcpy(bytes.data(), &entry, bytes.size());
    for (const std::size_t at : facts.padding) bytes[at] = 0;
    return bytes;
  };
  const auto logged = [&](Drift::Word version) {
    std::vector<Drift::Word> words((12 + facts.entrySize + 7) / 8);
    EXPECT_TRUE(this->log().tableEntryLog()->view().findFrom(version, words));
    return bytesOf(words);
  };
  const auto expectedLog = [&](std::uint64_t version, std::uint8_t flags, const LogEntry& entry) {
    Bytes bytes((12 + facts.entrySize + 7) / 8 * 8);
    put(bytes, 0, version);
    put(bytes, 8, flags);
    put(bytes, 10, std::uint16_t{3});
    std::ranges::copy(entryBytes(entry), bytes.begin() + 12);
    return bytes;
  };
  const LogEntry entry = Support::entryOf<TypeParam, LogEntry>(0x20005, 0x01020304);
  const auto key = this->key(0x20005);
  const auto configured = [&] {
    std::vector<Drift::Word> words((facts.isDeleted + 4 + 7) / 8);
    std::vector<Drift::Word> keyWords((facts.keySize + 7) / 8);
    Drift::FlatLayout<typename TypeParam::Key>::toWords(key, keyWords.data());
    EXPECT_TRUE(this->config().view().find(keyWords, words));
    return bytesOf(words);
  };
  const auto expectedConfig = [&](std::uint64_t version, bool isDeleted) {
    Bytes bytes((facts.isDeleted + 4 + 7) / 8 * 8);
    std::ranges::copy(entryBytes(entry), bytes.begin());
    put(bytes, facts.logVersion, version);
    put(bytes, facts.isDeleted, isDeleted);
    return bytes;
  };
  EXPECT_EQ(sizeof key, facts.keySize);

  this->write(0x20005, 0x01020304);
  this->agent.pumpAll();
  EXPECT_EQ(logged(1), expectedLog(1, 0, entry));
  EXPECT_EQ(configured(), expectedConfig(1, false));
  this->remove(0x20005);
  this->agent.pumpAll();
  EXPECT_EQ(logged(2), expectedLog(2, 1, entry));
  EXPECT_EQ(configured(), expectedConfig(2, true));
  this->write(6, 6);
  this->removeAll();
  this->agent.pumpAll();
  EXPECT_EQ(logged(4), expectedLog(4, 2, LogEntry(typename TypeParam::Key())));
}

TYPED_TEST(Conformance, IsReadByWhomTheCatalogueAloneTellsOfIt) {
  const Support::TempDir place;
  Support::Running agent(place.path());
  agent.template write<TypeParam>(3, 0x20005, 0x01020304);
  agent.pumpAll();
  const auto fileOf = [&](std::string_view path) {
    return place.path() + "/" + Drift::Directory::fileNameOf(path);
  };
  const std::string key(factsOf<TypeParam>().key);
  const std::string shown = key[0] == '{' ? "{\"number\": 131077}" : '"' + key + '"';
  for (const Fenrik::String& path : {this->config().path(), this->log().tableEntryLog()->path()}) {
    const auto [status, out, error] =
        Support::run({"/usr/bin/env", "python3", BASTIL_READER, fileOf(path.view()),
                      fileOf(Asic::CatalogueDrift::kPath)},
                     place.path());
    EXPECT_EQ(status, 0) << error;
    EXPECT_THAT(out, testing::HasSubstr("{\"version\": 1, "));
    EXPECT_THAT(out, testing::HasSubstr("\"key\": " + shown));
    EXPECT_THAT(out, testing::HasSubstr(fmt::format("{}", 0x01020304)));
  }
}

TYPED_TEST(Conformance, AnEntryLivesFromItsWriteToItsPurgeThroughARestart) {
  using Family = TypeParam;
  const Support::TempDir place;
  const auto seen = [&] { return textOf(Support::MemoryReader<Family>(place.path(), 1).read()); };
  const auto report = [&](std::uint64_t version) {
    Support::ReporterRig(place.path(), Family::Constants::canonicalGroupName())
        .report(Family::kTableId, version);
  };
  const auto walked = [](const auto& table) {
    std::map<unsigned, unsigned> entries;
    for (auto it = table.entryIteratorConst(); it; ++it) {
      entries.insert(Support::numbersOf<Family>((*it).logEntry()));
    }
    return entries;
  };
  using Entries = std::map<unsigned, unsigned>;
  {
    Support::Running agent(place.path());
    const auto table = agent.template table<Family>(0);
    for (const unsigned n : {1U, 2U, 3U}) agent.template write<Family>(0, n, 10 * n);
    EXPECT_EQ(walked(*table), (Entries{{1, 10}, {2, 20}, {3, 30}}));
    EXPECT_EQ(seen(), "\n  issued 0 announced 0 reported 0\n    configured:\n    logged:");
    agent.pumpAll();
    table->entryRemove(this->key(2), nullptr);
    agent.pumpAll();
  }
  report(2);
  EXPECT_EQ(seen(),
            "\n  issued 4 announced 4 reported 2\n    configured: 1=10@1 2=20@4- 3=30@3\n"
            "    logged: 1:w0 1=10 2:w0 2=20 3:w0 3=30 4:d0 2=20");
  {
    Support::Running agent(place.path());
    const auto table = agent.template table<Family>(0);
    EXPECT_EQ(seen(),
              "\n  issued 4 announced 4 reported 2\n    configured: 1=10@1 2=20@4- 3=30@3\n"
              "    logged: 3:w0 3=30 4:d0 2=20");
    EXPECT_EQ(walked(*table), (Entries{{1, 10}, {3, 30}}));
    EXPECT_EQ(table->entryRead(this->key(3)), this->entry(3, 30));
    EXPECT_TRUE(table->hasPendingHwWrites());
  }
  report(4);
  Support::Running agent(place.path());
  const auto table = agent.template table<Family>(0);
  EXPECT_EQ(seen(),
            "\n  issued 4 announced 4 reported 4\n    configured: 1=10@1 3=30@3\n"
            "    logged:");
  agent.template table<Family>(0, true);
  EXPECT_EQ(table->entrys(), 0U);
  EXPECT_EQ(seen(),
            "\n  issued 5 announced 5 reported 4\n    configured: 1=10@5- 3=30@5-\n"
            "    logged: 5:t0 0=0");
  report(5);
  agent.tables().waitForReport(std::chrono::seconds(1));
  agent.pumpAll();
  EXPECT_EQ(seen(), "\n  issued 5 announced 5 reported 5\n    configured:\n    logged:");
}

TYPED_TEST(Conformance, ARecordTooManyIsRejectedAndAnotherValueIsNot) {
  for (unsigned n = 0; n < 65'536; ++n) {
    this->log().entryIs(Support::entryOf<TypeParam, typename TypeParam::LogEntry>(n, 1), {},
                        nullptr, this->kUnit, this->table->stats(), false);
  }
  const auto rejected = this->write(65'536, 2);
  const auto replaced = this->write(65'535, 2);
  this->agent.pumpAll();
  EXPECT_EQ(rejected->entryState(), Asic::EntryState::entryRejected);
  EXPECT_EQ(replaced->entryState(), Asic::EntryState::entryInLog);
  EXPECT_FALSE(this->table->entryHas(this->key(65'536)));
  EXPECT_EQ(this->table->entryRead(this->key(65'535)), this->entry(65'535, 2));
  EXPECT_THAT(this->calls, ElementsAre("W65536 entryRejected"));
}

TYPED_TEST(Conformance, ItsHooksChangeWhatIsLoggedAndItsChangesAreAnnouncedByNumber) {
  using Family = TypeParam;
  struct Helper final : Fenrik::NodeClass<Helper, typename Family::SwTableHelperBase> {
    using Table = typename Family::SwTable;
    using Wrapper = typename Family::EntryWrapper;
    void finalizeOnSuccess(const Fenrik::Ptr<Wrapper>& wrapper, bool isDelete,
                           const Fenrik::Ptr<Table>& table) override {
      hooks += fmt::format("{} {} {};", isDelete ? "remove" : "write",
                           Support::Numbers<Family>::number(wrapper->key()), table->unitId());
      if (!isDelete) Support::Numbers<Family>::valueIs(wrapper->mutableEntry(), 8);
    }
    std::string hooks;
  };
  const auto helper = Fenrik::ptrIsImpl<Helper>();
  this->table->swTableHelperIs(helper);
  std::vector<int> numbers;
  const Support::Ear ear(*this->table->publisher(), [&](const Fenrik::Change& change) {
    const int number = static_cast<int>(change.fieldId.number()) -
                       static_cast<int>(factsOf<Family>().tableAttribute);
    if (number >= 0) numbers.push_back(number);
  });
  this->write(5, 7);
  EXPECT_THAT(std::exchange(numbers, {}), testing::IsSupersetOf({1, 3}));
  this->agent.pumpAll();
  EXPECT_THAT(std::exchange(numbers, {}), testing::IsSupersetOf({1, 3, 20}));
  EXPECT_EQ(this->table->entryRead(this->key(5)), this->entry(5, 8));
  this->remove(5);
  EXPECT_THAT(std::exchange(numbers, {}), testing::IsSupersetOf({2, 3}));
  this->removeAll();
  EXPECT_THAT(std::exchange(numbers, {}), testing::IsSupersetOf({2, 4}));
  this->agent.pumpAll();
  EXPECT_EQ(helper->hooks, "write 5 3;remove 5 3;");
}

/// The keys of a resource are configured, compared and kept from the log.
TEST(TcamActionTable, KeepsTheKeysOfItsResourceInTheConfigurationAlone) {
  using Family = QuarnBastil::TcamActionFamily;
  struct Fixture : TableFixture<Family> {
    void TestBody() override {}
  } table;
  auto entry = table.entry(5, 7);
  entry.requestId = QuarnL3NiLib::ReqIdToFecResourceTableEntryKey(0x1122334455667788);
  table.table->entryWrite(entry.key, entry, nullptr);
  table.agent.pumpAll();
  EXPECT_EQ(table.table->entryRead(entry.key), entry);
  EXPECT_EQ(table.log().entryRsrcKeys(entry.key, table.kUnit), entry.rsrcKeys());
  const auto again = [&](bool withKeys) {
    const auto keys = withKeys ? entry.rsrcKeys() : QuarnBastil::TcamActionResourceKeys();
    return table.log()
        .entryIs(entry.logEntry(), keys, nullptr, table.kUnit, table.table->stats(), true)
        .value();
  };
  EXPECT_EQ(again(true), 1U);
  EXPECT_EQ(again(false), 2U);
  EXPECT_EQ(again(false), 2U);
  EXPECT_NE(table.table->entryRead(entry.key), entry);
}

TYPED_TEST(Conformance, OperationsOnOneKeyOvertakeEachOtherInTheViewAndNeverInTheLog) {
  struct Row {
    const char* operations;
    const char* stages[3];
  };
  const Row rows[] = {
      {"WW", {"2 - 1 - 9@1", "2 - 1 - 1@2", "- - - - 2@3"}},
      {"WR", {"- 1 1 - 9@1", "- 1 1 - 1@2", "- - - - 1@3-"}},
      {"RW", {"2 - 1 - 9@1", "2 - 1 - 9@2-", "- - - - 2@3"}},
      {"RR", {"- 1 1 - 9@1", "- 1 1 - 9@2-", "- - - - 9@3-"}},
      {"WA", {"- - 0 0 9@1", "- - 0 0 1@2", "- - 0 - 1@3-"}},
      {"RA", {"- - 0 0 9@1", "- - 0 0 9@2-", "- - 0 - 9@2-"}},
      {"AW", {"2 - 0 0 9@1", "2 - 0 - 9@2-", "- - - - 2@3"}},
      {"AR", {"- 0 0 0 9@1", "- 0 0 - 9@2-", "- - - - 9@3-"}},
      {"AA", {"- - - 1 9@1", "- - - 0 9@2-", "- - - - 9@2-"}},
  };
  unsigned unit = 10;
  for (const Row& row : rows) {
    SCOPED_TRACE(row.operations);
    this->table = this->rig.table(++unit);
    const auto base = this->log().tableVersion().value();
    this->write(5, 9);
    this->agent.pumpAll();
    for (unsigned i = 0; i < 2; ++i) {
      if (row.operations[i] == 'W') this->write(5, i + 1);
      if (row.operations[i] == 'R') this->remove(5);
      if (row.operations[i] == 'A') this->removeAll();
    }
    EXPECT_EQ(this->view(unit, base), row.stages[0]);
    EXPECT_EQ(this->pumpOne(), 1u);
    EXPECT_EQ(this->view(unit, base), row.stages[1]);
    EXPECT_EQ(this->pumpOne(), 1u);
    EXPECT_EQ(this->view(unit, base), row.stages[2]);
    EXPECT_EQ(this->log().tableVersion().value(), base + 3);
    EXPECT_NEAR(this->stats().lastCommitTime(), static_cast<double>(time(nullptr)), 5.0);
    if (!this->table->transientVersionForKeyHas(this->key(5))) continue;
    // A version that stayed behind has no effect but a higher count, and goes with the next commit.
    EXPECT_FALSE(this->table->hasPendingHwWrites() &&
                 this->log().tableVersion() == this->log().tableStatusVersion());
    EXPECT_EQ(this->write(5, 3)->version().majorVersion(), Asic::MajorVersion(1));
    this->agent.pumpAll();
    EXPECT_EQ(this->table->transientVersionForKeyCount(), 0u);
  }
}

TYPED_TEST(Conformance, AKeyAtTheLimitsOfItsTypeIsAKeyLikeAnyOther) {
  typename TypeParam::Key highest;
  std::memset(static_cast<void*>(&highest), 0xff, sizeof highest);
  for (const auto& key : {typename TypeParam::Key(), highest}) {
    this->table->entryWrite(key, typename TypeParam::Entry(key), nullptr);
    this->agent.pumpAll();
    EXPECT_TRUE(this->table->entryHas(key));
    EXPECT_EQ(this->table->entryFromConfig(key).key, key);
  }
  EXPECT_EQ(this->table->entrys(), 2u);
  this->removeAll();
  this->agent.pumpAll();
  this->report(3);
  EXPECT_EQ(this->config().map()->driftMapSize(), 0u);
}

/// Makes some slots of a collection unreadable.
void damage(const Drift::DriftFile& file, std::size_t slot, std::size_t count) {
  const auto& header = file.header();
  const int fd = ::open(file.path().c_str(), O_RDWR);
  const std::string garbage(header.slotStride * count, '\x5a');
  EXPECT_EQ(::pwrite(fd, garbage.data(), garbage.size(),
                     static_cast<off_t>(header.slotsOffset + slot * header.slotStride)),
            static_cast<ssize_t>(garbage.size()));
  ::close(fd);
}

TYPED_TEST(Conformance, DamageReadsAsNothingAndIsNotedWithTheCollection) {
  this->write(1, 1);
  this->write(2, 2);
  this->agent.pumpAll();
  damage(this->config().file(), 0, 2);
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
  // A log record that cannot be read holds no other back.
  damage(this->log().tableEntryLog()->file(), 2, 1);
  this->report(4);
  EXPECT_THAT(this->calls,
              ElementsAre("W1 entryDone", "W2 entryDone", "W1 entryDone", "W3 entryDone"));
}

using SmallLog = TableFixture<SmallToyFamily>;

TEST_F(SmallLog, MovesOnPastARecordThatCannotBeRead) {
  write(1, 1);
  agent.pumpAll();
  const auto& file = log().tableEntryLog()->file();
  damage(file, 1, 1);
  const Drift::Word round = 3 * file.header().slotCount;
  for (unsigned n = 2; n <= round; ++n) {
    write(1, n);
    agent.pumpAll();
    report(n);
  }
  EXPECT_THAT(calls, testing::SizeIs(round));
  EXPECT_THAT(calls, testing::Each(testing::EndsWith("entryDone")));
  EXPECT_EQ(logSize(), 0u);
}

}  // namespace
