#include <gmock/gmock.h>

#include <random>

#include "OrderedTable/Catalogue.h"
#include "QuarnBastil/Families.h"
#include "Support/Running.h"
#include "Support/Soak.h"
#include "Support/TempDir.h"
#include "tables/Catalogue.h"

namespace ToolsTest {
namespace {

using Asic::CatalogueRecord;

/// Families that no program knows: real ones under other names, with any byte of theirs changed.
TEST(CatalogueSoak, LearnsWhatCanBeReadAndNothingThatCannot) {
  const Support::TempDir dir;
  const Support::Seed seed;
  std::mt19937 random(seed);
  std::vector<CatalogueRecord> rows;
  Support::Running agent(dir.path());
  agent.interface<QuarnBastil::TcamEntryFamily>();
  agent.interface<QuarnBastil::SmallBbFamily>();
  const auto catalogue = Fenrik::dynamicPtrCast<Asic::CatalogueDrift>(
      agent.memory()->getEntity(Fenrik::String(Asic::CatalogueDrift::kPath)));
  Asic::CatalogueDrift::Map::Cursor cursor;
  for (bool more = catalogue->map()->driftMapIterBegin(cursor); more;
       more = catalogue->map()->driftMapIterNext(CatalogueRecord(cursor.record).key, cursor)) {
    rows.push_back(cursor.record);
  }
  const Drift::Directory directory(dir.path(), Drift::Directory::Access::read);
  Tables::Catalogue reader;
  unsigned learnt = 0, refused = 0;
  const unsigned rounds = 400 * static_cast<unsigned>(Support::soakFactor());
  for (unsigned round = 0; round < rounds; ++round) {
    catalogue->recordDelAll();
    const unsigned id = 0x0f000000 + 2 * round;
    const auto damaged = random() % rows.size();
    for (std::size_t i = 0; i < rows.size(); ++i) {
      CatalogueRecord row = rows[i];
      const bool isRule = row.key.tableId == QuarnBastil::TcamEntryFamily::kTableId;
      row.key.tableId = Asic::SwTableId(id + (isRule ? 1 : 0));
      const bool isName = row.key.part == Asic::CataloguePart::facts && row.key.row == 0;
      if (isName) row.nameIs(fmt::format("Unknown{}", row.key.tableId.value()));
      auto* const bytes = reinterpret_cast<unsigned char*>(&row);
      if (i == damaged) bytes[4 + random() % 36] ^= static_cast<unsigned char>(1 + random() % 255);
      catalogue->recordIs(row);
    }
    catalogue->ring();
    reader.learn(directory, [&](const std::string& text) {
      ++refused;
      EXPECT_THAT(text, testing::HasSubstr("is not described so that it can be read: "));
    });
    for (const unsigned table : {id, id + 1}) {
      const Tables::TableKind* const kind = Tables::kindOf(Asic::SwTableId(table));
      if (kind == nullptr) continue;
      ++learnt;
      // Whatever it says, showing a value leads nowhere else.
      const std::vector<Tables::Word> value(kind->entryWords(), random());
      EXPECT_NE(kind->entry.text(value.data()), "");
      EXPECT_NE(kind->key.text(value.data()), "");
    }
  }
  EXPECT_GT(learnt, rounds);
  EXPECT_GT(refused, rounds / 4);
}

}  // namespace
}  // namespace ToolsTest
