#include <gmock/gmock.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <set>

#include "Drift/RecordLayout.h"
#include "QuarnBastil/SmallAds.h"
#include "QuarnBastil/TcamAction.h"
#include "Support/Process.h"
#include "policy/Generate.h"
#include "policy/Plan.h"
#include "policy/Rows.h"
#include "policy/RuleFile.h"
#include "tables/Collections.h"

namespace PolicyTest {
namespace {

using Policy::Rule;
using QuarnBastil::BigBbFamily;
using QuarnBastil::TcamEntryFamily;
using testing::HasSubstr;
using testing::StartsWith;

/// The agent's program over a directory.
struct AgentRun : Support::Program {
  AgentRun(const std::string& directory, std::vector<std::string> arguments)
      : Program([&] {
          arguments.insert(arguments.begin(), {BASTIL_AGENT, "--dir", directory});
          return arguments;
        }()) {}
};

template <class Family>
void eachEntry(const Drift::Directory& directory, std::uint16_t unit, auto take) {
  const auto& kind = *Tables::kindOf(Family::kTableId);
  if (std::ranges::count(Tables::configuredUnits(directory, kind), Asic::UnitId(unit)) == 0) return;
  Tables::Config(directory, kind, Asic::UnitId(unit))
      .walk(
          [&](const Tables::ConfigRow& row) {
            typename Family::LogEntry entry;
            Drift::FlatLayout<typename Family::LogEntry>::fromWords(row.entry.data(), entry);
            if (!row.isDeleted) take(entry);
          },
          [](const std::string& damage) { ADD_FAILURE() << damage; });
}

/// What another process finds in the directory: the rows of a unit, those in deletion left out.
Policy::Picture pictureIn(const std::string& path, std::uint16_t unit) {
  Policy::Picture picture;
  const Drift::Directory directory(path, Drift::Directory::Access::read);
  eachEntry<BigBbFamily>(directory, unit, [&](const auto& entry) {
    picture.prefixes.push_back(Policy::prefixRowOf(entry));
  });
  eachEntry<TcamEntryFamily>(directory, unit, [&](const auto& entry) {
    picture.rules.push_back(
        {entry.key.bank, entry.key.index, Policy::ruleOf(entry), Policy::ruleRowOf(entry)});
  });
  return picture;
}

/// How far the logs of both tables go.
std::array<std::uint64_t, 2> versionsIn(const std::string& path) {
  const Drift::Directory directory(path, Drift::Directory::Access::read);
  const auto announced = [&](Asic::SwTableId id) {
    const auto& kind = *Tables::kindOf(id);
    const Tables::Collection log(directory, kind.logPath, kind.log);
    return Tables::lineOf(log.file(), Drift::Format::Line::announced).value_or(0);
  };
  return {announced(BigBbFamily::kTableId), announced(TcamEntryFamily::kTableId)};
}

class AgentTest : public testing::Test {
 protected:
  std::string tables() const { return dir_.path() + "/tables"; }

  /// Under its name at once, as a careful editor does it.
  std::string file(const std::string& name, const std::string& text) const {
    const std::string path = dir_.path() + "/" + name;
    std::ofstream(path + ".new") << text;
    std::filesystem::rename(path + ".new", path);
    return path;
  }
  std::string rules(const std::string& name, const std::vector<Rule>& rules) const {
    std::string text;
    for (const Rule& rule : rules) text += Policy::lineOf(rule);
    return file(name, text);
  }

  /// Whether a unit carries out these rules and holds nothing else.
  void expectCarriedOut(std::uint16_t unit, const std::vector<Rule>& rules) const {
    const auto picture = pictureIn(tables(), unit);
    Policy::Wanted wanted;
    Policy::addRules(wanted, rules);
    EXPECT_EQ(Policy::planOf(picture, wanted).steps.size(), 0U);
    EXPECT_EQ(picture.rules.size(), rules.size());
  }

  /// Takes what the agent commits, and reports it.
  Support::Process hardwareWriter() const {
    return {{BASTIL_HWWRITER, "--dir", tables()}, "/dev/null", "/dev/null"};
  }

  Support::TempDir dir_;
};

TEST_F(AgentTest, AChangedFileIsAppliedAndABadOneIsNot) {
  const auto hardware = hardwareWriter();
  auto wanted = Policy::generate({.rules = 200, .networks = 10});
  const auto path = rules("rules", wanted);
  AgentRun agent(tables(), {"--watch", path});
  EXPECT_THAT(agent.await("programmed"), StartsWith("programmed: 200 rules, "));
  EXPECT_NE(agent.await("acknowledged"), "");
  const auto versions = versionsIn(tables());
  const auto isRefused = [&](const std::string& why) {
    EXPECT_THAT(agent.await(path), HasSubstr(why));
    EXPECT_NE(agent.await("the rules before stay in force"), "");
    EXPECT_EQ(versionsIn(tables()), versions);
  };
  file("rules", Policy::lineOf(wanted[0]) + "@10.0.0.0/8 10.0.0.0/40\n");
  isRefused(path + ":2:22: expected a prefix length from 0 to 32");
  file("rules", "# all gone\n");
  isRefused("--allow-empty");
  ASSERT_EQ(::mkfifo((path + ".new").c_str(), 0600), 0);
  std::filesystem::rename(path + ".new", path);
  isRefused("it is not a regular file");
  std::filesystem::remove(path);
  {
    std::ofstream half(path);
    half << Policy::lineOf(wanted[0]) << std::flush;
    agent.signal(SIGHUP);
    ::usleep(300'000);
    EXPECT_EQ(versionsIn(tables()), versions) << "its writer has not closed it";
    half << "@10.0";
  }
  isRefused(path + ":2:2: expected an IPv4 address");
  // One rule leaves, and one comes; prefixes as they need them.
  const Rule other{{0xcb007100, 24}, wanted[5].destination, {}, {}, {}, {}};
  wanted.erase(wanted.begin() + 100);
  wanted.insert(wanted.begin() + 50, other);
  rules("rules", wanted);
  EXPECT_THAT(agent.await("programmed"), StartsWith("programmed: 200 rules, "));
  EXPECT_NE(agent.await("acknowledged"), "");
  expectCarriedOut(0, wanted);
  const auto after = versionsIn(tables());
  EXPECT_EQ(after[1], versions[1] + 2) << "a row for each rule that changed";
  agent.signal(SIGTERM);
  EXPECT_EQ(agent.wait(), 0);
  const auto none = file("none", "");
  EXPECT_EQ(AgentRun(tables(), {"--once", none}).wait(), 1);
  EXPECT_EQ(versionsIn(tables()), after);
  EXPECT_EQ(AgentRun(tables(), {"--once", "--allow-empty", none}).wait(), 0);
  expectCarriedOut(0, {});
}

TEST_F(AgentTest, ANextHopThatIsDownKeepsItsPacketsOrDropsThem) {
  const auto hardware = hardwareWriter();
  const std::string up = "core 1:192.0.2.1\nnever down\n";
  const auto hops = file("hops", up);
  const auto path = file("rules", Policy::lineOf(Policy::generate({.rules = 1})[0]));
  const auto redirects = file("redirects",
                              "@10.0.0.0/8 0.0.0.0/0 0:9 0:9 6/255 core\n"
                              "@10.0.0.0/8 0.0.0.0/0 0:9 0:9 7/255 never\n");
  /// The destinations that rows have, and how many rows destinations have.
  const auto held = [&] {
    std::multiset<std::uint32_t> destinations;
    const Drift::Directory directory(tables(), Drift::Directory::Access::read);
    eachEntry<QuarnBastil::TcamActionFamily>(
        directory, 0, [&](const auto& entry) { destinations.insert(entry.destId); });
    std::size_t rows = 0;
    eachEntry<QuarnBastil::SmallAdsFamily>(directory, 0, [&](const auto&) { ++rows; });
    return std::pair(destinations, rows);
  };
  const std::pair<std::multiset<std::uint32_t>, std::size_t> standing{{0, 1}, 1}, none{{0, 0}, 0};
  const auto start = [&](const std::string& onDown) {
    return AgentRun(tables(), {"--watch", "--next-hops", hops, "--redirect", redirects, "--on-down",
                               onDown, path});
  };
  {
    AgentRun agent = start("keep");
    EXPECT_NE(agent.await("acknowledged"), "");
    EXPECT_EQ(held(), standing);
    const auto isRefused = [&](const std::string& why) {
      EXPECT_THAT(agent.await(dir_.path()), HasSubstr(why));
      EXPECT_NE(agent.await("the rules before stay in force"), "");
      EXPECT_EQ(held(), standing);
    };
    file("hops", "never down\n");
    isRefused(redirects + ":1:37: expected one of the 1 next hops, found \"core\"");
    file("hops", "core 1:192.0.2.2\ncore down\n");
    isRefused(hops + ":2:1: expected each next hop once");
    file("hops", "core down\nnever down\n");
    EXPECT_NE(agent.await("next hops: 2, 1 changed, 2 down; 0 rows written"), "");
    EXPECT_NE(agent.await("acknowledged"), "");
    EXPECT_EQ(held(), standing) << "it goes where it went";
    agent.signal(SIGKILL);
  }
  AgentRun agent = start("drop");
  EXPECT_NE(agent.await("next hops: 2, 1 changed, 2 down; 0 rows written"), "");
  EXPECT_NE(agent.await("taken down: 1 destinations"), "");
  EXPECT_NE(agent.await("acknowledged"), "");
  EXPECT_EQ(held(), none);
  file("hops", up);
  EXPECT_NE(agent.await("next hops: 2, 1 changed, 1 down; 1 rows written"), "");
  EXPECT_NE(agent.await("acknowledged"), "");
  EXPECT_EQ(held(), standing);
}

TEST_F(AgentTest, UnitsComeGoAndAreReset) {
  const auto hardware = hardwareWriter();
  const auto wanted = Policy::generate({.rules = 100, .networks = 5});
  const auto path = rules("rules", wanted);
  const auto routes = file("routes", "192.0.2.0/24 203.0.113.1\n");
  EXPECT_EQ(AgentRun(tables(), {"--once", "--unit", "0", "--unit", "7", path, routes}).wait(), 0);
  EXPECT_EQ(pictureIn(tables(), 7).rules.size(), 100U);
  AgentRun other(tables(), {"--once", "--unit", "7", path});
  EXPECT_THAT(other.await("emptied"), StartsWith("emptied: unit 0; "));
  EXPECT_EQ(other.wait(), 0);
  EXPECT_EQ(pictureIn(tables(), 0).rules.size() + pictureIn(tables(), 0).prefixes.size(), 0U);
  expectCarriedOut(7, wanted);
  const auto versions = versionsIn(tables());
  EXPECT_EQ(AgentRun(tables(), {"--once", "--unit", "7", "--reset", path}).wait(), 0);
  EXPECT_EQ(versionsIn(tables())[1], versions[1] + 200) << "all rows went and came";
  expectCarriedOut(7, wanted);
}

TEST_F(AgentTest, WhatCannotBeIsToldAndChangesNothing) {
  const auto path = rules("rules", Policy::generate({.rules = 20}));
  const auto failureOf = [&](const std::vector<std::string>& arguments, int status) {
    AgentRun agent(tables(), arguments);
    const std::string text = agent.rest();
    EXPECT_EQ(agent.wait(), status) << text;
    return text;
  };
  const auto bad = file("bad", "@10.0.0.0/8\n");
  EXPECT_THAT(failureOf({path, bad}, 1), StartsWith("bastil-agent: " + bad + ":1:12: expected"));
  EXPECT_FALSE(std::filesystem::exists(tables())) << "files are read before anything is made";

  AgentRun first(tables(), {path});
  ASSERT_NE(first.await("programmed"), "");
  EXPECT_THAT(failureOf({path}, 1), HasSubstr("another process writes it; stop that one first"));
  first.signal(SIGINT);
  EXPECT_EQ(first.wait(), 0);

  const auto versions = versionsIn(tables());
  const auto many = rules("many", Policy::generate({.rules = 65'530, .networks = 800}));
  EXPECT_THAT(
      failureOf({"--unit", "0", "--unit", "1", many}, 1),
      testing::MatchesRegex("bastil-agent: unit 0: TcamEntry would hold 655.. rows during the "
                            "change, 20 rules that stand and 655.. new ones; a unit takes "
                            "65536\n"));
  EXPECT_THAT(failureOf({"--unit", "1", "--reset", many + "x", many}, 1),
              HasSubstr("cannot be read"));
  const auto tooMany = rules("tooMany", Policy::generate({.rules = 65'537, .networks = 800}));
  EXPECT_THAT(failureOf({"--unit", "1", "--reset", tooMany}, 1), HasSubstr("65537"));
  EXPECT_EQ(versionsIn(tables()), versions) << "nor was unit 0 emptied before it was refused";
  EXPECT_EQ(pictureIn(tables(), 1).rules.size(), 0U);
}

TEST_F(AgentTest, TheExampleGoesOnFromWhereItWasKilled) {
  const auto example = [&](const std::string& networks, const std::string& told, int signal) {
    Support::Program agent({BASTIL_EXAMPLE, tables(), "1", networks, "300"});
    EXPECT_EQ(agent.await("added"), told);
    agent.signal(signal);
    EXPECT_EQ(agent.wait(), signal == SIGKILL ? -SIGKILL : 0);
  };
  example("2", "3 added, 0 removed", SIGKILL);
  example("2", "0 added, 0 removed", SIGTERM);
  example("7", "1 added, 1 removed", SIGKILL);
  const auto picture = pictureIn(tables(), 0);
  ASSERT_EQ(picture.prefixes.size(), 3U);
  EXPECT_EQ(picture.rules.size(), 3U);
}

TEST_F(AgentTest, FullMemoryEndsItAndMoreMemoryLetsItGoOn) {
  const std::string small = dir_.path() + "/small";
  std::filesystem::create_directory(small);
  if (::mount("tmpfs", small.c_str(), "tmpfs", 0, "size=16m") != 0) {
    GTEST_SKIP() << "a small file system is root's to make";
  }
  struct Mounted {
    std::string path;
    ~Mounted() { ::umount2(path.c_str(), MNT_DETACH); }
  } mounted{small};
  const auto wanted = Policy::generate({.rules = 20'000, .networks = 400});
  const auto path = rules("rules", wanted);
  const std::string inSmall = small + "/tables";
  AgentRun agent(inSmall, {"--once", path});
  EXPECT_NE(agent.await("no space"), "");
  EXPECT_EQ(agent.wait(), 1);
  const auto written = pictureIn(inSmall, 0);
  EXPECT_GT(written.prefixes.size(), 0U);
  ASSERT_EQ(::mount("tmpfs", small.c_str(), "tmpfs", MS_REMOUNT, "size=512m"), 0);
  EXPECT_EQ(AgentRun(inSmall, {"--once", path}).wait(), 0);
  EXPECT_EQ(pictureIn(inSmall, 0).rules.size(), wanted.size());
}

}  // namespace
}  // namespace PolicyTest
