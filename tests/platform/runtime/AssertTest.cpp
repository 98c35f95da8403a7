#include <gtest/gtest.h>

#include "Nimbo/Assert.h"

namespace {

class AssertDeathTest : public ::testing::Test {
 protected:
  // Other tests of this binary start threads; re-running the binary is the safe way.
  void SetUp() override { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
};

TEST_F(AssertDeathTest, AViolatedConditionStopsWithItsText) {
  EXPECT_DEATH(VESK_ASSERT(1 == 2), "assertion failed: 1 == 2 at .*AssertTest.cpp");
  const int entries = 3;
  EXPECT_DEATH(VESK_ASSERT(entries == 0), "entries == 0");
}

TEST_F(AssertDeathTest, TheMessageIsStreamedAfterTheCondition) {
  const int unit = 7;
  EXPECT_DEATH(
      VESK_ASSERT_MSG(unit < 2, "Config shard for unitId:" << unit << " is not created yet!"),
      "unit < 2 .*: Config shard for unitId:7 is not created yet!");
}

TEST(Assert, AHoldingConditionIsEvaluatedOnceAndNothingElseHappens) {
  int evaluated = 0;
  VESK_ASSERT(++evaluated == 1);
  VESK_ASSERT_MSG(++evaluated == 2, "never built: " << (evaluated = 100));
  EXPECT_EQ(evaluated, 2) << "the message is only streamed on failure";
}

}  // namespace
