#include <gtest/gtest.h>
#include <sys/wait.h>

#include <csignal>
#include <iostream>

#include "Support/KillPoint.h"
#include "TableKillPoints/Client.h"

namespace TableKill {
namespace {

using DriftTest::TempDir;
using Support::storesLeft;

void copyDirectory(const std::string& from, const std::string& to) {
  for (const auto& file : std::filesystem::directory_iterator(from)) {
    DriftTest::copyFile(file.path(), to + "/" + file.path().filename().string());
  }
}

/// What holds of every picture, whoever died when.
void expectSound(const Picture& picture) {
  for (const TablePicture& table : picture.tables) {
    const Word newest = table.log.empty() ? table.scratchpad : table.log.rbegin()->first;
    if (!table.log.empty()) {
      EXPECT_EQ(table.log.size(), newest - table.log.begin()->first + 1) << "a gap in the log";
    }
    EXPECT_LE(table.announced, newest);
    EXPECT_LE(newest - table.scratchpad, 1U);
    for (const auto& [version, record] : table.log) {
      if (record.change == Change::removeAll) continue;
      const auto& entries = table.units[record.unit].entries;
      ASSERT_TRUE(entries.contains(record.key)) << "nothing configured for version " << version;
      EXPECT_GE(entries.at(record.key).version, version);
    }
  }
}

// A sanitizer makes a fork so dear that only every 17th store is tried.
constexpr std::size_t kStride = DriftTest::kInstrumented ? 17 : 1;
/// A takeover is much the same after each death: so many of them together try all of its stores.
constexpr std::size_t kTakeOverStride = DriftTest::kInstrumented ? 101 : 7;

using Process = std::function<void(const std::string& directory, const std::function<void()>& arm)>;

/// One process after the other does the same over a copy of a directory, and dies at its first,
/// second, third store and so on, until one gets through.
class Deaths {
 public:
  /// Dies at the store of that number, and then at every so many behind it.
  Deaths(const std::string& original, const Told& told, Process process, std::size_t first,
         std::size_t stride)
      : stages_(told.stages()), process_(std::move(process)), first_(first), stride_(stride) {
    copyDirectory(original, original_.path());
  }

  /// After each death a reader sees one of the pictures, and never one before that of a death at
  /// an earlier store. `check` is given the directory, what is seen, and whether it is new.
  template <class Check>
  void run(Check check) {
    std::vector<std::size_t> hits(stages_.size());
    std::size_t stage = 0;
    for (std::size_t stores = first_;; stores += stride_) {
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
      check(work.path(), seen, hits[stage]++ == 0);
      if (testing::Test::HasFailure()) return;
    }
    for (std::size_t i = 0; stride_ == 1 && i < hits.size(); ++i) {
      EXPECT_NE(hits[i], 0U) << "no death left" << textOf(stages_[i]);
    }
  }
  std::size_t deaths() const { return deaths_; }

 private:
  bool livesThrough(const std::string& directory, std::size_t stores) {
    const pid_t child = ::fork();
    if (child == 0) {
      process_(directory, [=] { storesLeft = stores; });
      ::_exit(0);
    }
    int status = 0;
    ::waitpid(child, &status, 0);
    if (WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) return false;
    if (status != 0) DriftTest::fault("a process ended with {:#x}", status);
    return true;
  }

  /// Never mounted, so that it has no memory where nothing was written, and is copied quickly.
  TempDir original_;
  std::vector<Picture> stages_;
  Process process_;
  std::size_t first_;
  std::size_t stride_;
  std::size_t deaths_ = 0;
};

/// An operation, what is there before it, and what it is promised to do.
struct Scenario {
  std::function<void(Client&)> operation;
  std::function<void(Told&)> told;
  /// By an earlier process.
  std::function<void(Client&)> before = [](Client&) {};
  /// By the process that dies, before it can.
  std::function<void(Client&)> ready = [](Client&) {};
};

class TableKillPointDeathTest : public testing::TestWithParam<std::size_t> {
 protected:
  const std::size_t t = GetParam();
  const std::size_t other = 1 - t;
  /// Words of a log record, each a store.
  const std::size_t words = t == 0 ? sizeof(Family<0>::LogDriftEntry) / sizeof(Word)
                                   : sizeof(Family<1>::LogDriftEntry) / sizeof(Word);

  /// Keys 1 to 5 in one unit, of which 4 is in deletion, key 1 in the other, key 1 in the other
  /// table.
  void furnish(Client& client) const {
    client.write(other, 0, 1, 10);
    for (unsigned key = 1; key <= 5; ++key) client.write(t, 0, key, 10 * key);
    client.write(t, 1, 1, 15);
    client.remove(t, 0, 4);
    client.pump();
  }

  void dieEverywhere(const Scenario& scenario, std::size_t leastDeaths) {
    const TempDir original;
    {
      Client client(original.path());
      furnish(client);
      scenario.before(client);
      client.pump();
    }
    const Picture order = pictureOf(original.path(), true);
    Told told(pictureWhenReady(original.path(), scenario), order);
    scenario.told(told);
    Deaths deaths(
        original.path(), told,
        [&](const std::string& directory, const auto& arm) {
          Client client(directory);
          scenario.ready(client);
          arm();
          scenario.operation(client);
          client.pump();
        },
        1, kStride);
    std::size_t takeOvers = 0;
    std::size_t takeOverDeaths = 0;
    deaths.run([&](const std::string& directory, const Picture& seen, bool isNew) {
      expectSound(seen);
      Told next(seen, order);
      next.takeOver();
      if (isNew) {
        takeOverDeaths += dieInTakeOver(directory, next, takeOvers++ % kTakeOverStride + 1);
      }
      goOn(directory, scenario, std::move(next));
    });
    std::cout << deaths.deaths() << " deaths and " << takeOverDeaths << " in the takeover, "
              << told.stages().size() << " pictures\n";
    // With most stores left out there is no telling how many are met; that there were some is.
    EXPECT_GT(deaths.deaths(), kStride == 1 ? leastDeaths : 0);
    EXPECT_GT(takeOverDeaths, kStride == 1 ? takeOvers : 0);
  }

 private:
  static Picture pictureWhenReady(const std::string& original, const Scenario& scenario) {
    const TempDir work;
    copyDirectory(original, work.path());
    Client client(work.path());
    scenario.ready(client);
    return pictureOf(work.path());
  }

  /// Who takes over what a death left dies, too.
  static std::size_t dieInTakeOver(const std::string& directory, const Told& told,
                                   std::size_t first) {
    SCOPED_TRACE("taken over by one that dies");
    Deaths deaths(
        directory, told,
        [](const std::string& work, const auto& arm) {
          arm();
          Client client(work);
        },
        first, kTakeOverStride);
    deaths.run([&](const std::string& work, const Picture& seen, bool) {
      expectSound(seen);
      Client successor(work);
      EXPECT_EQ(textOf(pictureOf(work)), textOf(told.last()));
    });
    return deaths.deaths();
  }

  /// The client of the next agent asks again for what it has no answer to, and goes on.
  void goOn(const std::string& directory, const Scenario& scenario, Told told) const {
    Client client(directory);
    EXPECT_EQ(textOf(pictureOf(directory)), textOf(told.last())) << "after the takeover";
    scenario.operation(client);
    scenario.told(told);
    for (const unsigned key : {3U, 4U, 6U}) {
      client.remove(t, 0, key);
      told.remove(t, 0, key);
      client.write(t, 0, key, 77);
      told.write(t, 0, key, 77);
    }
    client.pump();
    EXPECT_EQ(textOf(pictureOf(directory)), textOf(told.last())) << "after going on";
    acknowledge(client, told);
    const Picture end = pictureOf(directory);
    EXPECT_EQ(client.done(), client.asked());
    for (const TablePicture& table : end.tables) {
      EXPECT_TRUE(table.log.empty() && table.needed.empty()) << textOf(end);
    }
    for (unsigned key = 1; key <= 6; ++key) {
      const auto& entries = end.tables[t].units[0].entries;
      const auto found = entries.find(key);
      EXPECT_EQ(client.read(t, 0, key),
                found == entries.end() ? std::nullopt : std::optional(found->second.value))
          << "key " << key << textOf(end);
    }
    EXPECT_EQ(client.read(t, 1, 1), 15U);
  }

  static void acknowledge(Client& client, const Told& told) {
    for (std::size_t table = 0; table < kTables; ++table) {
      client.report(table, told.last().tables[table].scratchpad);
    }
    client.pump();
  }
};

INSTANTIATE_TEST_SUITE_P(Families, TableKillPointDeathTest, testing::Values(0U, 1U),
                         [](const auto& info) { return info.param == 0 ? "TcamEntry" : "BigBb"; });

TEST_P(TableKillPointDeathTest, AWriteIsStoredInTheToldOrder) {
  for (const unsigned key : {6U, 2U, 4U}) {
    SCOPED_TRACE(fmt::format("key {}: new, there, in deletion", key));
    dieEverywhere({.operation = [&](Client& client) { client.write(t, 0, key, 99); },
                   .told = [&](Told& told) { told.write(t, 0, key, 99); }},
                  2 * words);
  }
}

TEST_P(TableKillPointDeathTest, ARemoveIsStoredInTheToldOrder) {
  for (const unsigned key : {2U, 4U}) {
    SCOPED_TRACE(fmt::format("key {}: there, in deletion", key));
    dieEverywhere({.operation = [&](Client& client) { client.remove(t, 0, key); },
                   .told = [&](Told& told) { told.remove(t, 0, key); }},
                  2 * words);
  }
}

TEST_P(TableKillPointDeathTest, ARemovalOfEverythingMarksOneEntryAfterTheOther) {
  dieEverywhere({.operation = [&](Client& client) { client.removeAll(t, 0); },
                 .told = [&](Told& told) { told.removeAll(t, 0); }},
                5 * words);
}

TEST_P(TableKillPointDeathTest, AWriteIsNotAnnouncedBeforeWhatItNeeds) {
  dieEverywhere({.operation =
                     [&](Client& client) {
                       const auto dependency = client.write(other, 0, 6, 98);
                       client.write(t, 0, 6, 99, dependency);
                     },
                 .told =
                     [&](Told& told) {
                       const Word needed = told.nextVersion(other);
                       told.write(other, 0, 6, 98);
                       told.write(t, 0, 6, 99, {{kTableIds[other], needed}});
                     }},
                2 * words);
}

TEST_P(TableKillPointDeathTest, AnUpdateIsStoredInTheToldOrder) {
  dieEverywhere({.operation = [&](Client& client) { client.update(t, 0, 2, 99); },
                 .told = [&](Told& told) { told.update(t, 0, 2, 99); }},
                2 * words);
}

/// The hardware acknowledges writes, removes and a removal of everything, some taken over by later
/// changes, and the set that one of them needs.
TEST_P(TableKillPointDeathTest, AReportCleansRecordAfterRecord) {
  for (const Word earlier : {0U, 2U}) {
    SCOPED_TRACE(fmt::format("{} acknowledged before", earlier));
    // The removal of key 2 is the last of it; key 3 has come back behind it.
    constexpr Word kReported = 13;
    dieEverywhere({.operation = [](Client&) {},
                   .told = [&](Told& told) { told.clean(t, kReported); },
                   .before =
                       [&](Client& client) {
                         const auto dependency = client.write(other, 0, 2, 20);
                         client.remove(t, 0, 3);
                         client.write(t, 0, 5, 51, dependency);
                         client.removeAll(t, 0);
                         client.write(t, 0, 2, 21);
                         client.remove(t, 1, 2);
                         client.write(t, 0, 1, 11);
                         client.remove(t, 0, 2);
                         client.write(t, 0, 3, 31);
                       },
                   .ready =
                       [&](Client& client) {
                         if (earlier != 0) {
                           client.report(t, earlier);
                           client.pump();
                         }
                         client.report(t, kReported);
                       }},
                  kReported);
  }
}

}  // namespace
}  // namespace TableKill
