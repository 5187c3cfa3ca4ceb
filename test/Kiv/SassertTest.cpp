#include "Kiv/Sassert.h"

#include <gtest/gtest.h>

#include "Fenrik/String.h"

namespace {

bool holds(bool value, int& calls) {
  ++calls;
  return value;
}

TEST(Sassert, AConditionThatHoldsIsTestedOnceAndItsMessageNotMade) {
  int tested = 0;
  int streamed = 0;
  KIV_SASSERT(holds(true, tested), "n: " << ++streamed);
  EXPECT_EQ(tested, 1);
  EXPECT_EQ(streamed, 0);
}

TEST(SassertDeathTest, TheMessageComesFirstThenTheQuotedConditionComparedWithNull) {
  testing::FLAGS_gtest_death_test_style = "threadsafe";
  const int unitId = 3;
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
