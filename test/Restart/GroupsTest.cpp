#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Restart/Running.h"
#include "Support/TempDir.h"

namespace RestartTest {
namespace {

using Asic::EntryState;

class GroupsTest : public testing::Test {
 protected:
  template <class Family>
  auto write(std::uint32_t key, const Fenrik::Ptr<const Asic::DependencyEntryHandle>& dependency) {
    return agent_.table<Family>(0)->entryWrite(Family::keyOf(key), entryOf<Family>(key, 1),
                                               dependency);
  }
  template <class Family>
  void report(std::uint64_t version) {
    Support::ReporterRig(dir_.path(), Family::Constants::canonicalGroupName())
        .report(Family::kTableId, version);
    agent_.pumpAll();
  }

  using Needs = std::vector<std::pair<std::uint64_t, std::vector<Asic::TableVersion>>>;
  /// What the hardware writer is told that the versions of a family need.
  template <class Family>
  Needs needs() const {
    const auto path =
        Asic::Constants::neededPathOfEntryLogPath(Family::Constants::tableEntryLogDriftPath());
    const auto needed =
        Fenrik::dynamicPtrCast<Asic::NeededEntryDrift>(agent_.memory()->getEntity(path));
    Needs result;
    Drift::DriftMap<Asic::NeededEntryRecord>::Cursor cursor;
    for (bool more = needed->map()->driftMapIterBegin(cursor); more;
         more = needed->map()->driftMapIterNext(cursor.record.sequence, cursor)) {
      const auto& versions = cursor.record.needed;
      result.push_back({cursor.record.version.value(),
                        {versions.begin(), versions.begin() + cursor.record.count}});
    }
    return result;
  }
  template <class Family>
  static Asic::TableVersion versionOf(std::uint64_t version) {
    return Asic::TableVersion(Family::kTableId, Asic::LogVersion(version));
  }

  Support::TempDir dir_;
  Running agent_{dir_.path()};
};

TEST_F(GroupsTest, AStuckHeadHoldsItsGroupAndNoOther) {
  const auto foreign = Fenrik::ptrIsImpl<ForeignHandle>();
  const auto stuck = write<Tcam>(0, foreign);
  const auto behind = write<Tcam>(1, nullptr);
  // More than one group commits in a turn, in a pump that ends early and in one that does not.
  std::vector<Blocks::SwTable::HandlePtr> others;
  for (std::uint32_t key = 0; key < 1000; ++key) others.push_back(write<Blocks>(key, nullptr));
  const auto pumped = agent_.tables().pump(100);
  EXPECT_EQ(pumped.commits, 100U);
  EXPECT_TRUE(pumped.more);
  agent_.pumpAll();
  for (const auto& other : others) ASSERT_EQ(other->entryState(), EntryState::entryInLog);
  report<Blocks>(1000);
  EXPECT_EQ(others.back()->entryState(), EntryState::entryDone);
  EXPECT_FALSE(agent_.interface<Blocks>()->swTableStatus()->pendingHwWrites());
  EXPECT_EQ(stuck->entryState(), EntryState::entryPending);
  EXPECT_EQ(behind->entryState(), EntryState::entryPending);
  EXPECT_TRUE(agent_.interface<Tcam>()->swTableStatus()->pendingHwWrites());
  EXPECT_TRUE(agent_.group<Tcam>().groupResolver()->suspended());
  EXPECT_FALSE(agent_.tables().pump(100).more) << "there is nothing to do until something changes";

  foreign->settle(EntryState::entryInLog);
  agent_.pumpAll();
  EXPECT_EQ(stuck->logVersion().value(), 1U);
  EXPECT_EQ(behind->logVersion().value(), 2U);
  EXPECT_EQ(needs<Tcam>(), (Needs{{1, {foreign->entryTableVersion()}}}));
}

TEST_F(GroupsTest, WhatDependsOnAnotherGroupWaitsForItAndTellsTheHardware) {
  std::vector<Blocks::SwTable::HandlePtr> blocks;
  std::vector<Tcam::SwTable::HandlePtr> entries;
  // Each waits for one of the other group that was asked for before it, in a zigzag.
  blocks.push_back(write<Blocks>(0, nullptr));
  for (std::uint32_t key = 0; key < 300; ++key) {
    entries.push_back(write<Tcam>(key, blocks.back()));
    blocks.push_back(write<Blocks>(key + 1, entries.back()));
  }
  agent_.pumpAll();
  Needs ofEntries;
  Needs ofBlocks;
  for (std::uint64_t version = 1; version <= 300; ++version) {
    ASSERT_EQ(entries[version - 1]->logVersion().value(), version);
    ASSERT_EQ(blocks[version]->logVersion().value(), version + 1);
    ofEntries.push_back({version, {versionOf<Blocks>(version)}});
    ofBlocks.push_back({version + 1, {versionOf<Tcam>(version)}});
  }
  EXPECT_EQ(needs<Tcam>(), ofEntries);
  EXPECT_EQ(needs<Blocks>(), ofBlocks);
  report<Tcam>(299);
  EXPECT_EQ(needs<Tcam>(), (Needs{{300, {versionOf<Blocks>(300)}}}));
  EXPECT_EQ(needs<Blocks>(), ofBlocks) << "another table's report says nothing of these";
}

TEST_F(GroupsTest, AFailureReachesTheOtherGroupWhateverTheOrderOfTheGroups) {
  const auto foreign = Fenrik::ptrIsImpl<ForeignHandle>();
  const auto entry = write<Tcam>(0, foreign);
  const auto block = write<Blocks>(0, entry);
  const auto second = write<Tcam>(1, block);
  const auto after = write<Blocks>(1, nullptr);
  agent_.pumpAll();
  EXPECT_EQ(after->entryState(), EntryState::entryPending);
  foreign->settle(EntryState::entryRejected);
  agent_.pumpAll();
  EXPECT_EQ(entry->entryState(), EntryState::entryDependencyFailed);
  EXPECT_EQ(block->entryState(), EntryState::entryDependencyFailed);
  EXPECT_EQ(second->entryState(), EntryState::entryDependencyFailed);
  EXPECT_EQ(after->logVersion().value(), 1U);
  EXPECT_EQ(needs<Blocks>(), Needs{});
}

}  // namespace
}  // namespace RestartTest
