#include <gmock/gmock.h>

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

}  // namespace
