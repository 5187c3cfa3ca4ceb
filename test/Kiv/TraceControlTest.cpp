#include <gmock/gmock.h>

#include <functional>
#include <random>
#include <string>

#include "Kiv/TraceControl.h"
#include "Kiv/TraceHandle.h"

namespace {

using Kiv::TraceControl;
using testing::HasSubstr;

struct TraceControlTest : testing::Test {
  ~TraceControlTest() override { TraceControl::settingDelAll(); }
};

TEST_F(TraceControlTest, SettingsHoldForHandlesThatAreThereAndThoseThatComeTheLastOneWins) {
  const Kiv::TraceHandle before("Lamp.Before", false);
  const Kiv::TraceHandle open("Lamp.Open", true);
  EXPECT_EQ(before.mask(), 0);
  EXPECT_EQ(open.mask(), 0xffff);
  TraceControl::settingIs("Lamp.*/1-3,8;\n Lamp.Open/none  Nobody/*");
  const Kiv::TraceHandle after("Lamp.After", false);
  const Kiv::TraceHandle twin("Lamp.After", false);
  EXPECT_EQ(before.mask(), 0x10e);
  EXPECT_EQ(after.mask(), 0x10e);
  EXPECT_EQ(twin.mask(), 0x10e);
  EXPECT_EQ(open.mask(), 0);
  TraceControl::settingIs("Lamp.??e*/9,15 Lamp.*/7");
  EXPECT_EQ(after.mask(), 0x80);
  TraceControl::settingIs("Lamp.????r/9,15,0-0");
  EXPECT_EQ(after.mask(), 0x8201);
  EXPECT_EQ(before.mask(), 0x80);

  const Fenrik::String setting = TraceControl::setting();
  EXPECT_EQ(setting, "Lamp.Open/none Nobody/* Lamp.??e*/9,15 Lamp.*/7 Lamp.????r/0,9,15");
  TraceControl::settingDelAll();
  EXPECT_EQ(open.mask(), 0xffff);
  EXPECT_EQ(after.mask(), 0);
  TraceControl::settingIs(setting);
  EXPECT_EQ(after.mask(), 0x8201);
  TraceControl::settingIs("*/none");
  EXPECT_EQ(TraceControl::setting(), "*/none");

  unsigned twins = 0;
  for (const TraceControl::HandleInfo& info : TraceControl::handles())
    if (info.name == "Lamp.After") twins = info.count;
  EXPECT_EQ(twins, 2u);
}

TEST_F(TraceControlTest, ABadSettingTellsColumnAndExpectationAndChangesNothing) {
  const Kiv::TraceHandle handle("Bad", false);
  TraceControl::settingIs("Bad/5");
  const struct {
    const char* setting;
    std::size_t column;
    const char* message;
  } cases[] = {
      {"Bad", 4, "expected '/' and levels after the pattern, found the end"},
      {"Bad/3 /1", 7, "expected a pattern of handle names before '/', found '/1'"},
      {"Bad/", 5, "expected a level from 0 to 15, '*' or 'none', found the end"},
      {"Bad/3 Bad/16", 11, "expected a level from 0 to 15"},
      {"Bad/3,99999999999999999999", 7, "expected a level from 0 to 15, found"},
      {"Bad/1-", 7, "expected a level from 0 to 15, found the end"},
      {"Bad/8-2", 7, "expected a level not below 8, found '2'"},
      {"Bad/1,x", 7, "found 'x'"},
      {"Bad/*,1", 6, "expected the end of the rule, found ',1'"},
      {"Bad/none1", 9, "found '1'"},
      {"Bad/-1", 5, "found '-1'"},
  };
  for (const auto& bad : cases) {
    SCOPED_TRACE(bad.setting);
    try {
      TraceControl::settingIs(bad.setting);
      ADD_FAILURE() << "was taken";
    } catch (const Kiv::TraceSettingException& exception) {
      EXPECT_EQ(exception.column(), bad.column);
      EXPECT_THAT(exception.what(), HasSubstr(bad.message));
      EXPECT_THAT(exception.what(), HasSubstr("column " + std::to_string(bad.column)));
    }
    EXPECT_EQ(handle.mask(), 1u << 5);
  }
}

TEST_F(TraceControlTest, PatternsFitAsTheirDefinitionSaysOnRandomText) {
  const std::function<bool(std::string_view, std::string_view)> fits =
      [&](std::string_view pattern, std::string_view name) -> bool {
    if (pattern.empty()) return name.empty();
    if (pattern[0] == '*')
      return fits(pattern.substr(1), name) || (!name.empty() && fits(pattern, name.substr(1)));
    return !name.empty() && (pattern[0] == '?' || pattern[0] == name[0]) &&
           fits(pattern.substr(1), name.substr(1));
  };
  std::mt19937 random(20);
  const auto word = [&](std::string_view letters, std::size_t shortest) {
    std::string text(shortest + random() % 7, ' ');
    for (char& letter : text) letter = letters[random() % letters.size()];
    return text;
  };
  int fitted = 0;
  for (int round = 0; round < 2000; ++round) {
    const std::string name = word("ab", 0);
    const std::string pattern = word("ab**?", 1);
    const Kiv::TraceHandle handle(name.c_str(), false);
    TraceControl::settingDelAll();
    TraceControl::settingIs(pattern + "/4");
    EXPECT_EQ(handle.levelEnabled(4), fits(pattern, name)) << pattern << " on " << name;
    fitted += handle.levelEnabled(4);
  }
  EXPECT_GT(fitted, 200);
}

}  // namespace
