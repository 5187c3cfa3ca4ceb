#include <gtest/gtest.h>

#include <iostream>

#include "OrderedTable/Choice.h"
#include "Support/KillPoint.h"
#include "Support/Process.h"
#include "Support/Soak.h"
#include "TableKillPoints/Told.h"

namespace TableKill {
namespace {

using Support::storesLeft;
using Support::TempDir;

void copyDirectory(const std::string& from, const std::string& to) {
  for (const auto& file : std::filesystem::directory_iterator(from)) {
    Drift::Specimens::copyFile(file.path(), to + "/" + file.path().filename().string());
  }
}

// A sanitizer makes a fork so dear that only every 17th store is tried.
constexpr std::size_t kStride = BASTIL_SANITIZED ? 17 : 1;

using Body = std::function<void(const std::string& directory, const std::function<void()>& arm)>;

/// One process after the other does the same over a copy of a directory, and dies at its first,
/// second, third store and so on, until one gets through.
class Deaths {
 public:
  Deaths(const std::string& original, const Told& told, Body body)
      : stages_(told.stages()), body_(std::move(body)) {
    copyDirectory(original, original_.path());
  }

  /// After each death a reader sees one of the pictures, and never one before that of a death at
  /// an earlier store. `check` is given the directory and what is seen.
  template <class Check>
  void run(Check check) {
    std::vector<std::size_t> hits(stages_.size());
    std::size_t stage = 0;
    for (std::size_t stores = 1;; stores += kStride) {
      const TempDir work;
      copyDirectory(original_.path(), work.path());
      if (livesThrough(work.path(), stores)) {
        EXPECT_EQ(textOf(pictureOf(work.path())), textOf(stages_.back()));
        break;
      }
      ++deaths_;
      SCOPED_TRACE(fmt::format("death at store {}", stores));
      const Picture seen = pictureOf(work.path());
      const auto found =
          std::find(stages_.begin() + static_cast<std::ptrdiff_t>(stage), stages_.end(), seen);
      if (found == stages_.end()) {
        FAIL() << "behind " << textOf(stages_[stage]) << "\nnobody promised" << textOf(seen);
      }
      stage = static_cast<std::size_t>(found - stages_.begin());
      ++hits[stage];
      check(work.path(), seen);
      if (testing::Test::HasFailure()) return;
    }
    for (std::size_t i = 0; kStride == 1 && i < hits.size(); ++i) {
      EXPECT_NE(hits[i], 0U) << "no death left" << textOf(stages_[i]);
    }
  }
  std::size_t deaths() const { return deaths_; }

 private:
  bool livesThrough(const std::string& directory, std::size_t stores) {
    const int status = Support::Process([&] {
                         body_(directory, [=] { storesLeft = stores; });
                         ::_exit(0);
                       }).wait();
    if (status == -SIGKILL) return false;
    if (status != 0) Drift::Specimens::fault("a process ended with {}", status);
    return true;
  }

  /// Never mounted, so that it has no memory where nothing was written, and is copied quickly.
  TempDir original_;
  std::vector<Picture> stages_;
  Body body_;
  std::size_t deaths_ = 0;
};

/// Comes up in a process of its own.
struct Client : RealAgent {
  explicit Client(const std::string& directory) : RealAgent(directory, plan()) {
    start({});
    events.clear();
  }
};

class TableKillPointDeathTest : public testing::TestWithParam<unsigned> {
 protected:
  const unsigned t = GetParam();
  const unsigned other = 1 - t;
  /// Words of a log record, each a store.
  const std::size_t words = families()[t].logWords;

  /// The acts of an agent that dies at each of their stores. Before it there were keys 1 to 5 in
  /// one unit, of which 4 is in deletion, key 1 in the other, key 1 in the other table; another
  /// agent did `before`; and the hardware reported the versions, of which that agent heard of all
  /// but the last.
  void dieEverywhere(const Acts& acts, std::size_t leastDeaths, const Acts& before = {},
                     const std::vector<Word>& reports = {}) {
    SCOPED_TRACE(fmt::format("BASTIL_SEED={} {}", kSeed, families()[t].name));
    const TempDir original;
    Acts furniture = {write(other, 0, 1, 10)};
    for (unsigned key = 1; key <= 5; ++key) furniture.push_back(write(t, 0, key, 10 * key));
    furniture.push_back(write(t, 1, 1, 15));
    furniture.push_back(of(Kind::remove, t, 0, 4));
    for (const Acts& earlier : {furniture, before}) {
      Client client(original.path());
      run(client, earlier);
    }
    const Places places = placesOf(original.path());
    Told told(pictureOf(original.path()), places);
    const auto report = [&](TableModel::Agent& agent, const auto& reportedIs) {
      for (std::size_t i = 0; i < reports.size(); ++i) {
        if (i != 0) agent.run(of(Kind::hear, t, 0));
        reportedIs(reports[i]);
      }
    };
    report(told.model, [&](Word version) { told.reportedIs(t, version); });
    told.beginAnew();
    run(told.model, acts);
    Deaths deaths(original.path(), told, [&](const std::string& directory, const auto& arm) {
      Client client(directory);
      report(client, [&](Word version) { client.families[t]->reportedIs(version); });
      arm();
      run(client, acts);
    });
    deaths.run([&](const std::string& directory, const Picture& seen) {
      Told next(seen, places);
      goOn(directory, acts, next);
    });
    std::cout << deaths.deaths() << " deaths, " << told.stages().size() << " pictures\n";
    // With most stores left out there is no telling how many are met; that there were some is.
    EXPECT_GT(deaths.deaths(), kStride == 1 ? leastDeaths : 0);
  }

 private:
  /// The client of the next agent asks again for what it has no answer to, and goes on: it sees
  /// what it would see of an agent that nobody was killed before.
  void goOn(const std::string& directory, const Acts& again, Told& told) const {
    Client client(directory);
    EXPECT_EQ(textOf(pictureOf(directory)), textOf(told.last())) << "after the takeover";
    Acts acts = again;
    for (const unsigned key : {3U, 4U, 6U}) {
      acts.push_back(of(Kind::remove, t, 0, key));
      acts.push_back(write(t, 0, key, 77));
    }
    run(client, acts);
    run(told.model, acts);
    EXPECT_EQ(textOf(pictureOf(directory)), textOf(told.last())) << "after going on";
    for (unsigned table = 0; table < kTables; ++table) {
      const Word newest = told.last()[table].scratchpad;
      told.reportedIs(table, newest);
      client.families[table]->reportedIs(newest);
    }
    Acts end = {of(Kind::hear, t, 0), of(Kind::read, t, 1, 1)};
    for (unsigned key = 1; key <= 6; ++key) end.push_back(of(Kind::read, t, 0, key));
    run(client, end);
    run(told.model, end);
    const Picture seen = pictureOf(directory);
    EXPECT_EQ(textOf(seen), textOf(told.last())) << "with everything acknowledged";
    // Tables hear of a report in any order.
    for (auto* const events : {&told.model.events, &client.events}) {
      std::ranges::sort(*events, {}, &TableModel::Event::facts);
    }
    EXPECT_EQ(TableModel::difference(told.model.events, client.events), "");
    for (const Support::Memory& memory : seen) {
      EXPECT_TRUE(memory.log.empty() && memory.needed.empty()) << textOf(seen);
    }
  }
};

INSTANTIATE_TEST_SUITE_P(Families, TableKillPointDeathTest, testing::Values(0U, 1U),
                         [](const auto& info) { return info.param == 0 ? "Own" : "Prefix"; });

TEST_P(TableKillPointDeathTest, AnOperationIsStoredInTheToldOrder) {
  const struct {
    const char* name;
    Acts acts;
    std::size_t leastDeaths;
  } cases[] = {
      {"a write of a new key", {write(t, 0, 6, 99)}, 2 * words},
      {"a write of a key that is there", {write(t, 0, 2, 99)}, 2 * words},
      {"a write of a key in deletion", {write(t, 0, 4, 99)}, 2 * words},
      {"a remove", {of(Kind::remove, t, 0, 2)}, 2 * words},
      {"a remove of a key in deletion", {of(Kind::remove, t, 0, 4)}, 2 * words},
      {"a remove of everything", {of(Kind::removeAll, t, 0)}, 5 * words},
      {"a write and what it needs", {write(other, 0, 6, 98), write(t, 0, 6, 99, 0)}, 2 * words},
      {"an update", update(t, 0, 2, 20 ^ 99), 2 * words},
  };
  for (const auto& [name, acts, leastDeaths] : cases) {
    SCOPED_TRACE(name);
    dieEverywhere(acts, leastDeaths);
  }
}

/// The hardware acknowledges writes, removes and a removal of everything, some taken over by later
/// changes, and the set that one of them needs.
TEST_P(TableKillPointDeathTest, AReportCleansRecordAfterRecord) {
  const Acts before = {
      write(other, 0, 2, 20),    of(Kind::remove, t, 0, 3), write(t, 0, 5, 51, 0),
      of(Kind::removeAll, t, 0), write(t, 0, 2, 21),        of(Kind::remove, t, 1, 2),
      write(t, 0, 1, 11),        of(Kind::remove, t, 0, 2), write(t, 0, 3, 31)};
  // The removal of key 2 is the last of it; key 3 has come back behind it.
  constexpr Word kReported = 13;
  for (const auto& reports : {std::vector<Word>{kReported}, std::vector<Word>{2, kReported}}) {
    SCOPED_TRACE(fmt::format("{} reports", reports.size()));
    dieEverywhere({of(Kind::hear, t, 0)}, kReported, before, reports);
  }
}

/// One directory through many agents, each of which comes up with other units than the last one,
/// does anything, and dies at any store: what it leaves is one of the pictures that were promised.
TEST(TableKillRoundsSoakDeathTest, WhatAKilledAgentLeavesIsTakenOver) {
  const Support::Seed seed;
  std::mt19937_64 random(seed);
  const TempDir directory;
  Places places(kTables);
  {
    Client client(directory.path());
    for (unsigned t = 0; t < kTables * kUnits; ++t) {
      places[t / kUnits].push_back(client.families[t / kUnits]->learnPlaces(t % kUnits, kKeys));
    }
  }
  std::size_t deaths = 0, unlogged = 0, unannounced = 0, lives = 0;
  const unsigned rounds =
      (BASTIL_SANITIZED ? 60U : 600U) * static_cast<unsigned>(Support::soakFactor());
  for (unsigned round = 0; round < rounds && !testing::Test::HasFailure(); ++round) {
    SCOPED_TRACE(fmt::format("round {}", round));
    TableModel::Model::Start start;
    for (unsigned t = 0; t < kTables * kUnits && round != 0; ++t) {
      if (random() % 6 == 0) start.absent.insert(t);
      if (random() % 8 == 0) start.reset.insert(t);
    }
    start.absent.erase(static_cast<unsigned>(random() % (kTables * kUnits)));
    Told told(pictureOf(directory.path()), places, start);
    TableModel::Choice choice(static_cast<unsigned>(random()), told.model, 3);
    choice.remoteIs();
    Acts acts;
    for (auto left = random() % 48; left > 0; --left) {
      acts.push_back(choice.act());
      told.model.run(acts.back());
    }
    const std::size_t most = std::size_t{1} << (4 + random() % 9);
    const std::size_t stores = 1 + random() % most;
    const int status = Support::Process([&] {
                         storesLeft = stores;
                         RealAgent agent(directory.path(), plan());
                         agent.start(start);
                         for (const Act& act : acts) agent.run(act);
                         ::_exit(0);
                       }).wait();
    const Picture seen = pictureOf(directory.path());
    if (status == 0) {
      ++lives;
      EXPECT_EQ(textOf(seen), textOf(told.last()));
      continue;
    }
    ASSERT_EQ(status, -SIGKILL);
    ++deaths;
    if (std::ranges::find(told.stages(), seen) == told.stages().end()) {
      ADD_FAILURE() << "death at store " << stores << " behind" << textOf(told.stages().front())
                    << "\nnobody promised" << textOf(seen) << "\nbefore" << textOf(told.last());
    }
    for (const Support::Memory& memory : seen) {
      unannounced += memory.announced < memory.newest() ? 1 : 0;
      const auto isBeyond = [&](const auto& record) {
        return record.second.logVersion > memory.newest();
      };
      unlogged += std::ranges::any_of(
          memory.config, [&](const auto& unit) { return std::ranges::any_of(unit, isBeyond); });
    }
  }
  std::cout << deaths << " deaths, " << unlogged << " left a change unlogged, " << unannounced
            << " unannounced; " << lives << " agents lived\n";
  EXPECT_GT(deaths, rounds / 4);
  EXPECT_GT(lives, rounds / 20);
  if (BASTIL_SANITIZED) return;
  EXPECT_GT(unlogged, 0U);
  EXPECT_GT(unannounced, 0U);
}

}  // namespace
}  // namespace TableKill
