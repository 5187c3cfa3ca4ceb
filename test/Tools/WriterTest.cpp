#include <gmock/gmock.h>

#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>

#include "Support/Soak.h"
#include "Support/TempDir.h"
#include "Tools/Churn.h"

namespace ToolsTest {
namespace {

using nlohmann::json;

/// One directory, an agent at work in it and a hardware writer, each of which is killed and started
/// again.
class Scene {
 public:
  explicit Scene(unsigned seed) : churn_(seed, 60), tables_(dir_.path() + "/tables") {
    startAgent();
    while (churn_.page->changes == 0 && agent_.running()) ::usleep(1000);
    startWriter();
  }

  unsigned dice() { return churn_.random(); }
  unsigned changes() const { return churn_.page->changes; }

  void killAgent() {
    agent_.kill();
    ++deaths_;
  }
  void startAgent() { agent_ = churn_.agent(tables_); }
  void killWriter() {
    writer_.kill();
    ++deaths_;
  }
  /// The chip is replaced by an empty one.
  void loseChip() {
    std::filesystem::remove_all(tables_ + "/asic");
    ++losses_;
  }
  /// The next agent finds the log of the rules unusable.
  void loseLog() {
    for (const auto& entry : std::filesystem::directory_iterator(tables_)) {
      const std::string name = entry.path().filename();
      if (name.find("entryLog%2F04080404") == std::string::npos) continue;
      std::fstream file(entry.path(), std::ios::in | std::ios::out | std::ios::binary);
      file.seekp(40).write("damage", 6);
      ++losses_;
    }
  }
  void startWriter() { writer_ = Process(writerArguments(), dir_.path() + "/news", errors()); }

  void linger() { ::usleep(dice() % 12'000); }

  /// Lets everything come to rest and looks at what the hardware holds then.
  void check() {
    churn_.page->order = Order::settle;
    for (int i = 0; !churn_.page->settled; ++i) {
      ASSERT_LT(i, 30'000) << "it hangs" << Support::textOf(errors());
      ASSERT_TRUE(agent_.running()) << "the agent ended by itself";
      ASSERT_TRUE(writer_.running()) << "the writer ended by itself" << Support::textOf(errors());
      ::usleep(1000);
    }
    // A slow start is ended by the signal itself.
    EXPECT_THAT(writer_.end(), testing::AnyOf(0, -SIGTERM));
    const bool emptied = ++checks_ % 2 == 0;
    if (emptied) loseChip();
    const json before = once();
    EXPECT_EQ(before.contains("lost"), emptied) << before;
    const json after = once();
    EXPECT_EQ(after["summary"]["written"], before["summary"]["written"]);
    const Outcome verified = Support::run({BASTIL_CTL, "--dir", tables_, "verify"}, dir_.path());
    EXPECT_EQ(verified.status, 0) << verified.out << verified.err;
    churn_.page->settled = false;
    churn_.page->order = Order::churn;
    startWriter();
  }

  /// What a writer says that brings everything home and ends.
  json once() {
    auto arguments = writerArguments();
    arguments.push_back("--once");
    const Outcome outcome = Support::run(arguments, dir_.path());
    EXPECT_EQ(outcome.status, 0) << outcome.out << outcome.err;
    json news;
    std::istringstream lines(outcome.out);
    for (std::string line; std::getline(lines, line);) {
      const json one = json::parse(line);
      news[one["event"].get<std::string>()] = one;
    }
    const json& summary = news["summary"];
    EXPECT_EQ(summary["digest"], summary["configuration"]) << summary;
    EXPECT_EQ(summary["violations"], 0);
    return news;
  }

  unsigned deaths() const { return deaths_; }
  unsigned losses() const { return losses_; }

 private:
  std::string errors() const { return dir_.path() + "/errors"; }

  std::vector<std::string> writerArguments() {
    std::vector<std::string> arguments = {
        BASTIL_HWWRITER, "--dir", tables_, "--json", "--batch", std::to_string(1 + dice() % 40)};
    if (dice() % 3 == 0) arguments.insert(arguments.end(), {"--delay", "200"});
    if (dice() % 3 == 0) arguments.insert(arguments.end(), {"--rate", "30000"});
    return arguments;
  }

  Support::TempDir dir_;
  Churn churn_;
  std::string tables_;
  Process agent_;
  Process writer_;
  unsigned deaths_ = 0;
  unsigned losses_ = 0;
  unsigned checks_ = 0;
};

TEST(HwWriterSoak, TablesThatAreEmptiedAtOnceComeOutRightThroughDeathsOfEither) {
  const unsigned seed = Support::seed();
  SCOPED_TRACE(testing::Message() << "BASTIL_SEED=" << seed);
  Scene scene(seed);
  const int rounds = 40 * Support::soakFactor();
  for (int round = 0; round < rounds && !testing::Test::HasFailure(); ++round) {
    SCOPED_TRACE(testing::Message() << "round " << round);
    scene.linger();
    const unsigned who = scene.dice() % 8;
    if (who < 6) scene.killWriter();
    if (who >= 5) scene.killAgent();
    if (who < 6 && scene.dice() % 4 == 0) scene.loseChip();
    if (who >= 5 && scene.dice() % 4 == 0) scene.loseLog();
    scene.linger();
    // In either order, and with the other one dead for a while.
    if (who >= 5 && scene.dice() % 2 == 0)
      scene.startAgent();
    else if (who >= 5)
      scene.linger(), scene.startAgent();
    if (who < 6) scene.startWriter();
    if (round % 8 == 7) scene.check();
  }
  EXPECT_GE(scene.deaths(), static_cast<unsigned>(rounds));
  EXPECT_GT(scene.changes(), 10U) << "it never got to work";
  EXPECT_GT(scene.losses(), 0U);
}

}  // namespace
}  // namespace ToolsTest
