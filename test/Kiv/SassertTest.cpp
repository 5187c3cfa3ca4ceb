#include "Kiv/Sassert.h"

#include <gtest/gtest.h>

#include "Fenrik/String.h"

namespace {

TEST(SassertDeathTest, TheMessageComesFirstThenTheQuotedConditionComparedWithNull) {
  testing::FLAGS_gtest_death_test_style = "threadsafe";
  int unitId = 3;
  KIV_SASSERT(++unitId == 4, "made: " << ++unitId);
  ASSERT_EQ(unitId--, 4) << "tested twice, or the message made for a condition that holds";
  EXPECT_DEATH(KIV_SASSERT_TEXT(unitId == 4, "tableConfigDriftHas( unitId )",
                                "Config drift for unitId:" << unitId << Fenrik::String(" is not ")
                                                           << "created yet!"),
               "^Config drift for unitId:3 is not created yet!.*\n"
               ".*SassertTest.cpp:.*TestBody.*Assertion `\"tableConfigDriftHas\\( unitId \\)\" == "
               "nullptr' failed");
  EXPECT_DEATH(KIV_SASSERT(!std::string_view("a\\b").starts_with("a"), "Interface already created"),
               "Assertion `\"!std::string_view\\(\\\\\"a\\\\\\\\\\\\\\\\b\\\\\"\\).starts_with\\("
               "\\\\\"a\\\\\"\\)\" == nullptr' failed");
}

}  // namespace
