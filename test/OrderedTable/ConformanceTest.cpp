#include <fcntl.h>
#include <unistd.h>

#include <cstring>

#include "OrderedTable/TableFixture.h"

namespace {

using testing::ElementsAre;

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
