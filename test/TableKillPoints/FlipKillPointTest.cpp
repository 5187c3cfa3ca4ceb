#include <gmock/gmock.h>

#include <algorithm>
#include <filesystem>
#include <iostream>

#include "Support/Collections.h"
#include "Support/KillPoint.h"
#include "Support/Process.h"
#include "Support/Running.h"
#include "Support/TempDir.h"

/// A next hop moves, and the last row of another one goes, cut short at every store.
namespace {

using Support::Key;
using Support::Value;
using Action = QuarnBastil::TcamActionFamily;
using ResourceKey = QuarnL3NiLib::ReqIdToFecResourceTableEntryKey;

constexpr std::size_t kStride = BASTIL_SANITIZED ? 17 : 1;
/// Request ids, and the destinations of the first one.
constexpr Key kMoving = 1, kStill = 2, kLeft = 3;
constexpr Value kBefore = 1, kAfter = 4;
/// Rows: some follow the moving one, one each the others, one none.
constexpr Key kFollowers[] = {1, 2, 3}, kStays = 4, kPlain = 5, kGoes = 6;

class Agent : public Support::Running {
 public:
  explicit Agent(const std::string& directory) : Running(directory), rows(*table<Action>(0)) {
    interface<Action>()->reconcile();
    resources().reconcile();
  }

  void give(Key id, Value destination) {
    resources().valueIs(ResourceKey(id), destination, nullptr);
  }
  void put(Key key, Key id) { write<Action>(0, key, key | id << Support::kRequestShift); }
  void change() {
    give(kMoving, kAfter);
    rows.entryRemove(Support::Numbers<Action>::key(kGoes), nullptr);
    pumpAll();
  }
  Value destination(Key key) const {
    return rows.entryFromConfig(Support::Numbers<Action>::key(key)).destId;
  }
  bool has(Key key) const { return rows.entryHas(Support::Numbers<Action>::key(key)); }

  QuarnBastil::TcamActionSwTable& rows;
};

/// A process that follows the log alone has what is configured.
void expectFollowed(const std::string& directory, std::uint64_t& newest) {
  const Support::Memory memory = Support::MemoryReader<Action>(directory, 1).read();
  newest = memory.newest();
  EXPECT_EQ(memory.announced, newest);
  std::map<Key, Value> followed, configured;
  for (const auto& [version, record] : memory.log) {
    record.flags == Support::LogFlags::entryDelete ? void(followed.erase(record.key))
                                                   : void(followed[record.key] = record.value);
  }
  for (const auto& [key, record] : memory.config[0]) {
    if (!record.isDeleted) configured[key] = Support::Changing::logged(record.value);
  }
  EXPECT_EQ(followed, configured);
}

TEST(FlipKillPointDeathTest, EveryUserEndsAtTheDestinationThatIsStored) {
  const Support::TempDir original;
  {
    Agent agent(original.path());
    for (const Key id : {kMoving, kStill, kLeft}) agent.give(id, id);
    for (const Key key : kFollowers) agent.put(key, kMoving);
    agent.put(kStays, kStill);
    agent.put(kPlain, 0);
    agent.put(kGoes, kLeft);
    agent.pumpAll();
  }
  std::size_t deaths = 0, moved = 0, gone = 0, unlogged = 0;
  for (std::size_t stores = 1;; stores += kStride) {
    SCOPED_TRACE(fmt::format("death at store {}", stores));
    const Support::TempDir work;
    for (const auto& file : std::filesystem::directory_iterator(original.path())) {
      Drift::Specimens::copyFile(file.path(), work.path() + "/" + file.path().filename().string());
    }
    const int status = Support::Process([&] {
                         Agent agent(work.path());
                         Support::storesLeft = stores;
                         agent.change();
                         ::_exit(0);
                       }).wait();
    if (status == 0) break;
    ASSERT_EQ(status, -SIGKILL);
    ++deaths;
    const auto left = Support::MemoryReader<Action>(work.path(), 1).read();
    unlogged += left.announced < left.newest() ? 1 : 0;

    Agent next(work.path());
    auto& resources = next.resources();
    next.pumpAll();
    const Value stored = resources.destId(ResourceKey(kMoving));
    EXPECT_TRUE(stored == kAfter || (stored == kBefore && moved == 0)) << stored;
    moved += stored == kAfter ? 1 : 0;
    for (const Key key : kFollowers) EXPECT_EQ(next.destination(key), stored) << key;
    EXPECT_EQ(next.destination(kStays), kStill);
    EXPECT_EQ(next.destination(kPlain), 0U);
    // What the death kept from being released is used by nobody.
    EXPECT_TRUE(gone == 0 || !next.has(kGoes));
    gone += next.has(kGoes) ? 0 : 1;
    // What the hardware may still have of an earlier agent has no client.
    EXPECT_EQ(std::ranges::any_of(resources.users(ResourceKey(kLeft)),
                                  [](const auto& user) { return user.clientNumber != 0; }),
              next.has(kGoes));
    std::uint64_t newest = 0;
    expectFollowed(work.path(), newest);

    next.change();
    for (const Key key : kFollowers) EXPECT_EQ(next.destination(key), kAfter) << key;
    expectFollowed(work.path(), newest);
    EXPECT_FALSE(resources.earlierSettled() && !resources.destIdUsed(kBefore))
        << "the hardware has not followed yet";
    resources.resourceDel(ResourceKey(kLeft));
    Support::ReporterRig(work.path(), Action::Constants::canonicalGroupName())
        .report(Action::kTableId, newest);
    next.pumpAll();
    EXPECT_TRUE(resources.earlierSettled());
    EXPECT_FALSE(resources.destIdUsed(kBefore) || resources.destIdUsed(kLeft));
    if (testing::Test::HasFailure()) return;
  }
  std::cout << deaths << " deaths, " << moved << " behind the new value, " << gone
            << " behind the removal, " << unlogged << " with something unannounced\n";
  if (kStride != 1) return;
  EXPECT_GT(deaths - moved, 0U);
  EXPECT_GT(moved - gone, 100U);
  EXPECT_GT(gone, 0U);
  EXPECT_GT(unlogged, 0U);
}

}  // namespace
