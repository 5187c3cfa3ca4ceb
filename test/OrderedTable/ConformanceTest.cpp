#include <fmt/ranges.h>

#include <cstring>

#include "OrderedTable/Catalogue.h"
#include "OrderedTable/TableDescriptor.h"
#include "OrderedTable/TableFixture.h"
#include "Support/Golden.h"
#include "Support/Process.h"
#include "Support/Running.h"

namespace {

using testing::ElementsAre;

template <class Family>
using Conformance = TableFixture<Family>;
TYPED_TEST_SUITE(Conformance, AllFamilies);

/// Module and number of a class, and its attributes with theirs.
template <class T>
std::string numbersOf() {
  const Kiv::KivType type = Kiv::typeOf<T>();
  std::string text = fmt::format("{} {}:", type.module()->name, type.index());
  for (const Kiv::AttributeFact& row : type.facts()->attributes) {
    text += fmt::format(" {} {}", row.fieldId.number(), row.name);
  }
  return text;
}

/// What others know a family by: names, numbers, and each byte of what it stores.
TYPED_TEST(Conformance, IsWhatOthersKnowItBy) {
  using Family = TypeParam;
  const Asic::TableDescriptor& is = QuarnBastil::descriptorOf<Family>();
  EXPECT_THAT(Asic::TableRegistration::all(), testing::Contains(&is));
  EXPECT_EQ(this->table->typeData(), Kiv::typeOf<typename Family::SwTable>());
  const auto handle = this->write(0x20005, 1);
  EXPECT_EQ(handle->tableId(), is.tableId);
  EXPECT_EQ(this->rig.resolver().head().waiting.key, handle->keyText());
  this->removeAll();
  this->agent.pumpAll();
  EXPECT_NEAR(this->stats().lastCommitTime(), static_cast<double>(time(nullptr)), 5.0);
  std::vector<std::string> lines{
      fmt::format("{} {} {}", handle->tableName(), is.tableId, Family::Interface::registryKey()),
      fmt::format("{} {} of {}", this->config().path(), is.collections.configType,
                  this->config().file().header().capacity),
      fmt::format("{} {} of {}", this->log().tableEntryLog()->path(), is.collections.logType,
                  this->log().tableEntryLog()->file().header().capacity),
      fmt::format("key 0x20005: {}", handle->keyText()),
      numbersOf<typename Family::EntryHandle>(),
      numbersOf<typename Family::SwTableEntries_py>(),
      numbersOf<typename Family::SwTable>(),
      numbersOf<typename Family::IteratorState>(),
      numbersOf<typename Family::EntryWrapper>(),
      numbersOf<typename Family::ResolverEntry>(),
      numbersOf<typename Family::SwTableHelperBase>(),
      numbersOf<typename Family::EntryLog>(),
      numbersOf<typename Family::Interface>()};
  if constexpr (!std::is_void_v<typename Family::ResourceLinkage>) {
    using Linkage = typename Family::ResourceLinkage;
    lines.push_back(numbersOf<typename Linkage::LocalUsageUpdateSm>());
    lines.push_back(numbersOf<Linkage>());
  }
  if (!std::is_same_v<Family, ToyFamily>) {
    const std::string page = Support::textOf(BASTIL_TABLES_PAGE);
    EXPECT_THAT(page, testing::HasSubstr(fmt::format("| `{}` | {} | {} | {}, {} |", is.tableName,
                                                     is.tableId, is.groupName, is.records.key.size,
                                                     is.records.logEntry.size)));
  }

  const auto dump = [&](const char* what, const auto& collection, auto read) {
    std::vector<Drift::Word> words((collection.file().header().recordSize + 7) / 8);
    EXPECT_TRUE(read(collection.view(), words)) << what;
    const std::span bytes(reinterpret_cast<const unsigned char*>(words.data()), words.size() * 8);
    for (std::size_t at = 0; at < bytes.size(); at += 32) {
      const auto line = bytes.subspan(at, std::min<std::size_t>(32, bytes.size() - at));
      lines.push_back(fmt::format("{} {:3}: {:02x}", what, at, fmt::join(line, " ")));
    }
  };
  const auto dumpLogged = [&](const char* what, Drift::Word version) {
    dump(what, *this->log().tableEntryLog(),
         [&](const auto& view, auto& words) { return view.findFrom(version, words); });
  };
  const auto entry = Support::fullEntryOf<Family>();
  std::vector<Drift::Word> key((is.records.key.size + 7) / 8);
  Drift::FlatLayout<typename Family::Key>::toWords(entry.key, key.data());
  this->log().entryIs(entry, {}, nullptr, this->kUnit, this->table->stats(), false);
  dumpLogged("write", 3);
  this->table->entryRemove(entry.key, nullptr);
  this->agent.pumpAll();
  dumpLogged("remove", 4);
  dump("configured", this->config(),
       [&](const auto& view, auto& words) { return view.find(key, words); });
  dumpLogged("remove all", 2);
  Support::expectGolden(fmt::format("Family.{}.txt", is.tableName), lines);
}

TYPED_TEST(Conformance, IsReadByWhomTheCatalogueAloneTellsOfIt) {
  const Support::TempDir place;
  Support::Running agent(place.path());
  agent.template write<TypeParam>(3, 0x20005, 0x020304);
  agent.pumpAll();
  const auto fileOf = [&](std::string_view path) {
    return place.path() + "/" + Drift::Directory::fileNameOf(path);
  };
  const std::string key = fmt::format("{}", this->key(0x20005));
  const std::string shown = key[0] == '{' ? "{\"number\": 131077}" : '"' + key + '"';
  for (const Fenrik::String& path : {this->config().path(), this->log().tableEntryLog()->path()}) {
    const auto [status, out, error] =
        Support::run({"/usr/bin/env", "python3", BASTIL_READER, fileOf(path.view()),
                      fileOf(Asic::CatalogueDrift::kPath)},
                     place.path());
    EXPECT_EQ(status, 0) << error;
    EXPECT_THAT(out, testing::HasSubstr("{\"version\": 1, "));
    EXPECT_THAT(out, testing::HasSubstr("\"key\": " + shown));
    EXPECT_THAT(out, testing::HasSubstr(fmt::format("{}", 0x020304)));
  }
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
  table.agent.resources().valueIs(entry.requestId, 9, nullptr);
  table.agent.pumpAll();
  entry.destId = 9;
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

/// Makes some slots of a collection unreadable.
void damage(const Drift::DriftFile& file, std::size_t slot, std::size_t count) {
  const auto& header = file.header();
  Support::overwrite(file.path(), header.slotsOffset + slot * header.slotStride,
                     std::string(header.slotStride * count, '\x5a'));
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
  EXPECT_EQ(this->logSize(), 0u);
}

}  // namespace
