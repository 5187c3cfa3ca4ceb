#include "Kiv/Inspect.h"

#include <gmock/gmock.h>

#include <fstream>

#include "Support/Process.h"
#include "Support/Running.h"
#include "Support/TempDir.h"

namespace {

using Kiv::Inspect::Bounds;
using Kiv::Inspect::Form;
using Kiv::Inspect::PathException;
using testing::AllOf;
using testing::HasSubstr;
using testing::Not;
using Prefixes = QuarnBastil::BigBbFamily;
using Rules = QuarnBastil::TcamEntryFamily;

/// An agent with a configured prefix, and a rule that waits for a handle of nobody.
struct InspectTest : testing::Test {
  InspectTest() {
    const auto prefix = prefixes->entryWrite(kPrefix, Prefixes::Entry(kPrefix), nullptr);
    agent.pumpAll();
    const auto waits = Fenrik::ptrIsImpl<Prefixes::EntryHandle>(
        Asic::EntryVersion(Asic::MajorVersion(0), 0), kPrefix, &*prefixes);
    rule = agent.write<Rules>(1, 17, 5, waits);
    agent.pumpAll();
  }
  std::string show(std::string_view path, Form form = Form::text, const Bounds& bounds = {}) {
    return Kiv::Inspect::show(Fenrik::Ptr<const Fenrik::Node>(&agent.tables()), path, form, bounds);
  }
  std::string refused(std::string_view path) {
    try {
      return "shown: " + show(path);
    } catch (const PathException& e) {
      return std::string(e.msg().view());
    }
  }

  static constexpr const char* kRules =
      "swTableIntf/QuarnBastil::TcamEntryInterface/swTableSet/swTable/1";
  static constexpr const char* kPrefixes =
      "swTableIntf/QuarnBastil::BigBbInterface/swTableSet/swTable/0";

  const Prefixes::Key kPrefix{0x0a010000, 16};
  Support::TempDir dir;
  Support::Running agent{dir.path()};
  Fenrik::Ptr<Prefixes::SwTable> prefixes = agent.table<Prefixes>(0);
  Fenrik::Ptr<const Rules::EntryHandle> rule;
};

TEST_F(InspectTest, FollowsPathsThroughObjectsCollectionsAndCalls) {
  const std::string key(rule->keyText().view());
  const std::string rules = kRules, table = kPrefixes;
  EXPECT_THAT(show(rules), AllOf(HasSubstr("TcamEntrySwTable\n"), HasSubstr("\n  unitId: 1\n"),
                                 HasSubstr("\n  transientAddEntry: 1 members\n")));
  EXPECT_THAT(show(rules + "/transientAddEntry/" + key + "/entryHandle/entryState"),
              "entryPending\n");
  EXPECT_EQ(show(rules + "/groupResolver/resolverQueue/1/dependantEntryHandle/keyText"),
            "10.1.0.0/16\n");
  EXPECT_EQ(show(table + "/entryHandleInLog/1/key"), "10.1.0.0/16\n");
  EXPECT_EQ(show(table + "/entryHas(10.1.0.0%2F16)"), "true\n");
  EXPECT_EQ(show(table + "/entryHas(10.1.0.0%2F17)"), "false\n");
  EXPECT_THAT(show(table + "/getTableEntries_py/tableEntries/10.1.0.0/16"),
              HasSubstr("10.1.0.0/16"));
  EXPECT_EQ(show(table + "/stats/commitCnt"), "1\n");
}

/// JSON as another program reads it, and bounds that are kept and shown.
TEST_F(InspectTest, AnswersInJsonAndWithinItsBounds) {
  for (unsigned n = 0; n < 300; ++n) agent.write<Rules>(1, 1000 + n, 1, nullptr);
  const std::string rules = kRules;
  std::ofstream answers(dir.path() + "/answers");
  for (const unsigned depth : {0U, 1U, 3U, 9U}) {
    for (const std::string& path : {std::string(), rules, rules + "/transientAddEntry"}) {
      const std::string json = show(path, Form::json, {depth, 50, 20'000});
      EXPECT_LT(json.size(), 60'000U) << "one value more than the bound at each level";
      answers << json << '\n';
    }
  }
  answers.close();
  const auto [status, out, error] = Support::run(
      {"/usr/bin/env", "python3", "-c",
       "import json, sys; print(len([json.loads(line) for line in open(sys.argv[1])]))",
       dir.path() + "/answers"},
      dir.path());
  EXPECT_EQ(out, "12\n") << error;
  EXPECT_THAT(show(rules + "/transientAddEntry", Form::json), HasSubstr("\"cut\": true"));
  EXPECT_THAT(show(rules + "/transientAddEntry"), HasSubstr("... and more"));
  EXPECT_THAT(show(rules + "/transientAddEntry", Form::text, {1, 1000}), Not(HasSubstr("more")));
}

TEST_F(InspectTest, SaysWhereAPathIsWrongAndCallsOnlyWhatReads) {
  const std::string rules = kRules;
  const struct {
    std::string path;
    const char* text;
  } cases[] = {
      {"nothing", "is a OrderedTableInterface, which has no attribute \"nothing\"; it has: "},
      {rules + "/transientAddEntry/9:9", "is a collection without \"9:9\""},
      {rules + "/unitId/x", "is a value, which has no parts"},
      {rules + "/entryRemoveAll", "\"entryRemoveAll\" is not marked as reading"},
      {rules + "/clearTable(true)", "\"clearTable\" is not marked as reading"},
      {rules + "/entryHas", "takes 1 arguments"},
      {rules + "/entryHas(1:2,3)", "takes 1 arguments"},
      {rules + "/entryHas(x)", "takes a TcamEntryEntryKey where \"x\" stands"},
      {rules + "/entryHas(1:2", "ends with ')'"},
      {rules + "/unitId()", "\"unitId\" is no function"},
      {rules + "/transientAddEntry/%zz", "two hexadecimal digits"},
      {"swTableIntf/", "shown: "},
  };
  for (const auto& [path, text] : cases) EXPECT_THAT(refused(path), HasSubstr(text)) << path;
  EXPECT_EQ(rule->entryState(), Asic::EntryState::entryPending);
  EXPECT_EQ(prefixes->entrys(), 1U);
}

}  // namespace
