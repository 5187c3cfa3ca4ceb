#include <gmock/gmock.h>

#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <random>

#include "Support/Process.h"
#include "Support/Soak.h"
#include "policy/Generate.h"
#include "policy/RuleFile.h"

namespace ToolsTest {
namespace {

using json = nlohmann::ordered_json;
using Random = std::independent_bits_engine<std::mt19937, 32, std::uint32_t>;
using Support::Outcome;
using Support::Process;
using testing::AnyOf;
using testing::HasSubstr;
namespace fs = std::filesystem;

/// Every command in a form that has something to show.
const std::vector<std::vector<std::string>> kCommands = {{"status"},
                                                         {"top", "--once"},
                                                         {"log", "TcamEntry"},
                                                         {"config", "BigBb", "0"},
                                                         {"config", "BigBb", "1", "0.0.0.0/0"},
                                                         {"config", "TcamEntry", "1"},
                                                         {"config", "TcamAction", "0"},
                                                         {"resources"},
                                                         {"verify"}};

/// A directory with what an agent left that was killed at work, and a hardware writer before it.
class CtlTest : public testing::Test {
 protected:
  CtlTest() {
    change();
    Process writer({BASTIL_HWWRITER, "--dir", tables_}, "/dev/null", "/dev/null");
    Support::Program agent = startAgent();
    EXPECT_NE(agent.await("acknowledged"), "");
    writer.kill();
    change();
    EXPECT_NE(agent.await("programmed"), "");
    agent.kill();
  }

  Support::Program startAgent() const {
    return Support::Program({BASTIL_AGENT, "--dir", tables_, "--unit", "0", "--unit", "1",
                             "--next-hops", rules_ + ".hops", "--watch", rules_});
  }
  /// Gives the agent other rules, a third of which redirect, and other next hops.
  void change() {
    flip();
    std::ofstream file(rules_ + ".new");
    for (const auto& rule : Policy::generate({.rules = 60, .seed = random_(), .networks = 4})) {
      std::string line = Policy::lineOf(rule);
      if (random_() % 3 == 0) line.insert(line.size() - 1, random_() % 2 == 0 ? " one" : " other");
      file << line;
    }
    file.close();
    fs::rename(rules_ + ".new", rules_);
  }
  void flip() {
    std::ofstream file(rules_ + ".new");
    ++flips_;
    file << "one " << flips_ << ":192.0.2.1\nother " << flips_ << ":192.0.2.1 1:192.0.2.5\n"
         << "third " << (flips_ % 2 == 0 ? "down\n" : "1:192.0.2.1\n");
    file.close();
    fs::rename(rules_ + ".new", rules_ + ".hops");
  }

  Outcome ctl(const std::string& directory, std::vector<std::string> command, bool json = false) {
    command.insert(command.begin(), {BASTIL_CTL, "--dir", directory});
    if (json) command.push_back("--json");
    return Support::run(command, dir_.path());
  }
  void expectFine(const std::string& directory, const std::vector<std::string>& command) {
    const Outcome outcome = ctl(directory, command);
    EXPECT_EQ(outcome.status, 0) << command[0] << ' ' << outcome.out << outcome.err;
  }
  std::string snapshotOf(const std::string& directory) {
    const std::string copy = directory + ".copy";
    fs::remove_all(copy);
    expectFine(directory, {"snapshot", copy});
    return copy;
  }
  std::vector<fs::path> collections(const std::string& directory, const std::string& part) {
    std::vector<fs::path> found;
    for (const auto& entry : fs::directory_iterator(directory)) {
      const std::string name = entry.path().filename();
      if (name.find('%') != std::string::npos && name.find(part) != std::string::npos) {
        found.push_back(entry.path());
      }
    }
    return found;
  }

  const Support::Seed seed_;
  Support::TempDir dir_;
  std::string tables_ = dir_.path() + "/tables";
  std::string rules_ = dir_.path() + "/rules";
  int flips_ = 0;
  Random random_{seed_};
};

/// Turns bits of a byte around, and back at the end.
class Flip {
 public:
  Flip(const fs::path& file, off_t at, unsigned char bits)
      : file_(file, std::ios::in | std::ios::out | std::ios::binary), at_(at), bits_(bits) {
    turn();
  }
  ~Flip() { turn(); }

  /// Somewhere where there is memory.
  static off_t place(const fs::path& file, Random& random) {
    const int fd = ::open(file.c_str(), O_RDONLY);
    const auto size = static_cast<off_t>(fs::file_size(file));
    const bool header = random() % 4 == 0;
    const off_t data = ::lseek(fd, header ? 0 : random() % size, SEEK_DATA);
    ::close(fd);
    return (std::max<off_t>(data, 0) + random() % (header || data < 0 ? 1280 : 4096)) % size;
  }

 private:
  void turn() {
    const int byte = file_.seekg(at_).get();
    EXPECT_TRUE(file_.seekp(at_).put(static_cast<char>(byte ^ bits_)).flush());
  }

  std::fstream file_;
  off_t at_;
  unsigned char bits_;
};

TEST_F(CtlTest, ShowsWhatADeadAgentLeftAndACopyOfItAsWell) {
  for (const std::string& directory : {tables_, snapshotOf(tables_)}) {
    for (const auto& command : kCommands) {
      SCOPED_TRACE(command[0] + " in " + directory);
      expectFine(directory, command);
      std::istringstream lines(ctl(directory, command, true).out);
      for (std::string line; std::getline(lines, line);) EXPECT_TRUE(json::accept(line)) << line;
    }
  }
  // The numbers of one command are those of the others.
  const json status = json::parse(ctl(tables_, {"status"}, true).out);
  for (const json& table : status["tables"]) {
    const std::string log = ctl(tables_, {"log", table["table"]}, true).out;
    EXPECT_EQ(std::ranges::count(log, '\n'), table["logged"].get<long>());
    for (const json& unit : table["units"]) {
      const std::string number = std::to_string(unit["unit"].get<int>());
      const auto config = ctl(tables_, {"config", table["table"], number}, true);
      EXPECT_EQ(std::ranges::count(config.out, '\n'),
                unit["live"].get<long>() + unit["inDeletion"].get<long>());
      if (config.out.empty()) continue;
      const json first = json::parse(config.out.substr(0, config.out.find('\n')));
      std::string key;
      for (const auto& [name, value] : first["key"].items()) {
        key += name + ':' + (value.is_string() ? value.get<std::string>() : value.dump()) + ',';
      }
      const auto one = ctl(tables_, {"config", table["table"], number, key}, true);
      EXPECT_EQ(one.out, config.out.substr(0, config.out.find('\n') + 1)) << one.err;
    }
  }
}

/// What users meet: how each program answers a use, on both of its outputs.
TEST_F(CtlTest, AnswersEachUseAsItShould) {
  // The project may lie in a folder with a blank in its name.
  const std::string anyCtl = "'" BASTIL_CTL "' ";
  const std::string ctl = anyCtl + "--dir " + tables_ + ' ';
  const std::string writer = "'" BASTIL_HWWRITER "' --dir ";
  const std::string agent = "'" BASTIL_AGENT "' --dir " + dir_.path() + "/agent ";
  const std::string none = dir_.path() + "/none ";
  const struct {
    std::string words;
    int status;
    const char* text;
  } uses[] = {
      {ctl, 2, "A subcommand is required"},
      {ctl + "frobnicate", 2,
       "there is no command \"frobnicate\"; there are status, top, log, config, resources, "
       "verify, snapshot"},
      {ctl + "log Tcam", 2, "there is no table \"Tcam\"; there are PortXformTcamAction, "},
      {ctl + "log BigBb --since 0", 2, "\"0\" is no number above 0"},
      {ctl + "log BigBb --since 7x", 2, "\"7x\" is no number above 0"},
      {ctl + "log BigBb --since 99999999", 1, "version 99999999 is not logged yet; the log ends"},
      {ctl + "log TcamEntry", 0, "bastilctl: TcamEntry: no agent is at work"},
      {ctl + "config BigBb 0 10.0.0.256/8", 2, "is no key of BigBb: give it as prefix/length"},
      {ctl + "config BigBb 0 10.0.0.1/8", 2, "is no key of BigBb"},
      {ctl + "config BigBb 0 10.0.0.0/33", 2, "is no key of BigBb"},
      {ctl + "config BigBb 0 length:33,prefix:10.0.0.0", 2, "is no key of BigBb"},
      {ctl + "config TcamEntry 0 index:999,bank:5", 1, "has no entry 5:999"},
      {ctl + "config BigBb 9", 3, "config%2F9: cannot open"},
      {ctl + "config BigBb 70000", 2, "70000"},
      {ctl + "status", 0, "  agent: dead, it was process "},
      {ctl + "top --once", 0, "\n  hardware writer: dead"},
      {ctl + "status >/dev/full", 3, "cannot write to standard output: No space left on device"},
      {ctl + "--help >/dev/full", 3, ""},
      {ctl + "snapshot " + tables_, 2, "is not empty; give a new directory"},
      {anyCtl + "status --dir " + none, 3, "/none: No such file or directory"},
      {ctl + "--version", 0, "bastilctl 0."},
      {writer + none + "--version", 0, "bastil-hwwriter 0."},
      {writer + none + "--once", 3, "no agent has made any table there"},
      {writer + none + "--once --timeout 0.2", 1, "none: no agent has made any table there"},
      {writer + none + "--timeout 1", 2, "--once"},
      {agent + "--version", 0, "bastil-agent 0."},
      {agent + "--trace Tcam*/99 /dev/null", 2, "--trace: "},
      {agent + "--unit 65535 /dev/null", 2, "65535"},
      {agent + "/dev/null", 1, "/dev/null: cannot be read: it is not a regular file"},
  };
  for (const auto& use : uses) {
    const Outcome outcome = Support::run({"/bin/sh", "-c", use.words}, dir_.path());
    EXPECT_EQ(outcome.status, use.status) << use.words << outcome.out << outcome.err;
    EXPECT_THAT(outcome.out + outcome.err, HasSubstr(use.text)) << use.words;
    std::istringstream lines(outcome.out);
    for (std::string line;
         use.words.find(" status") != std::string::npos && std::getline(lines, line);) {
      EXPECT_LE(line.size(), 80U) << line;
    }
  }
}

TEST_F(CtlTest, KnowsWhatIsNoAgents) {
  const std::string foreign = dir_.path() + "/foreign";
  fs::create_directories(foreign + "/hardware");
  for (const char* const name : {"passwd", "%zz", "asic%2Flog", ".hidden"}) {
    std::ofstream(foreign + "/" + name) << "nothing of ours";
  }
  for (const auto& command : kCommands) EXPECT_EQ(ctl(foreign, command).status, 3) << command[0];
  // Beside an agent's files they are nobody's business; under the name of a collection, a finding.
  fs::copy(foreign, tables_, fs::copy_options::recursive);
  expectFine(tables_, {"verify"});
  std::ofstream(tables_ + "/hardware%2Fother") << "nothing of ours";
  EXPECT_EQ(ctl(tables_, {"verify"}).status, 1);
}

TEST_F(CtlTest, FindsEachDamageThatMatters) {
  for (const char* const part :
       {"entryLog", "config", "needed", "tableVersion", "resource", "nextHops"}) {
    for (const fs::path& file : collections(tables_, part)) {
      // The sizes in the header, and each copy of a word that changes.
      const Flip size(file, 40, 1);
      EXPECT_EQ(ctl(tables_, {"verify"}).status, 1) << file;
    }
  }
  for (const char* const part : {"config", "stavro"}) {
    const fs::path lost = collections(tables_, part).at(0);
    fs::rename(lost, dir_.path() + "/lost");
    EXPECT_THAT(ctl(tables_, {"verify"}).out, HasSubstr(" is lost: ")) << lost;
    fs::rename(dir_.path() + "/lost", lost);
  }
  // Everything was put back.
  expectFine(tables_, {"verify"});
  // Values of another time, and rows that are not all there.
  Support::Program agent = startAgent();
  const Process writer({BASTIL_HWWRITER, "--dir", tables_}, "/dev/null", "/dev/null");
  const auto settle = [&] {
    EXPECT_NE(agent.await("acknowledged"), "");
    ::usleep(300'000);
    return snapshotOf(tables_);
  };
  settle();
  fs::rename(tables_ + ".copy", dir_.path() + "/earlier");
  flip();
  const std::string later = settle();
  expectFine(later, {"verify"});
  const auto exchange = [&](const std::string& part, const std::string& found) {
    const fs::path file = collections(later, part).at(0);
    fs::rename(file, dir_.path() + "/lost");
    fs::copy(fs::path(dir_.path() + "/earlier") / file.filename(), file);
    EXPECT_THAT(ctl(later, {"verify"}).out, HasSubstr(found));
    fs::rename(dir_.path() + "/lost", file);
  };
  exchange("TcamAction%2Fconfig%2F0", "entries do not have destination ");
  fs::resize_file(collections(later, "TcamAction%2Fconfig%2F0").at(0), 0);
  EXPECT_THAT(ctl(later, {"verify"}).out, HasSubstr(" users, the agent counted "));
  for (const fs::path& file : collections(tables_, "entryLog")) {
    constexpr off_t kAnnounced = 384 + 11 * 64;
    const Flip first(file, kAnnounced, 0x10);
    expectFine(tables_, {"verify"});  // The second copy is whole.
    const Flip second(file, kAnnounced + 16, 0x10);
    EXPECT_EQ(ctl(tables_, {"verify"}).status, 1);
    EXPECT_EQ(ctl(tables_, {"status"}).status, 1);
  }
}

using CtlSoak = CtlTest;

TEST_F(CtlSoak, LivesThroughAnyBytes) {
  int found = 0;
  const auto files = collections(tables_, "");
  for (int round = 0; round < 15 * Support::soakFactor() && !HasFailure(); ++round) {
    std::vector<std::unique_ptr<Flip>> flips;
    // Most bytes mean nothing; one of a header does.
    if (round == 0) flips.push_back(std::make_unique<Flip>(files.front(), 100, 1));
    for (auto n = 1 + random_() % 4; n != 0; --n) {
      const fs::path& file = files[random_() % files.size()];
      const auto bits = static_cast<unsigned char>(1 + random_() % 255);
      flips.push_back(std::make_unique<Flip>(file, Flip::place(file, random_), bits));
    }
    for (const auto& command : kCommands) {
      const Outcome outcome = ctl(tables_, command, random_() % 2 == 0);
      ASSERT_THAT(outcome.status, AnyOf(0, 1, 3)) << command[0] << outcome.err;
      found += command[0] == "verify" && outcome.status == 1;
    }
    // The hardware writer neither, and it ends when it is asked.
    Process writer({BASTIL_HWWRITER, "--dir", tables_}, "/dev/null", "/dev/null");
    ::usleep(20'000);
    // A slow start is ended by the signal itself.
    EXPECT_THAT(writer.end(), AnyOf(0, 1, 3, -SIGTERM));
    fs::remove_all(tables_ + "/asic");
    // The last flip is taken back first.
    while (!flips.empty()) flips.pop_back();
  }
  EXPECT_GT(found, 0);
}

TEST_F(CtlSoak, FindsNothingWrongWithAnAgentAtWork) {
  const Support::Program agent = startAgent();
  const Process writer({BASTIL_HWWRITER, "--dir", tables_}, "/dev/null", "/dev/null");
  for (int round = 0; round < 8 * Support::soakFactor() && !HasFailure(); ++round) {
    for (const auto& command : kCommands) {
      change();
      expectFine(tables_, command);
    }
    expectFine(snapshotOf(tables_), {"verify"});
  }
  EXPECT_TRUE(agent.running());
  EXPECT_TRUE(writer.running());
}

}  // namespace
}  // namespace ToolsTest
