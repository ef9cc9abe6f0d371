// Command lines of the native benchmark programs.
#include "../bench/native_options.h"

#include <gtest/gtest.h>

namespace nimbra::bench {
namespace {

using ::testing::ExitedWithCode;

TEST(NativeOptions, TakesWholeNumbersBetweenTheBounds) {
  EXPECT_EQ(numberOf("--entries", "1", 1, 10), 1U);
  EXPECT_EQ(numberOf("--entries", "10", 1, 10), 10U);
}

TEST(NativeOptionsDeathTest, NamesOptionAndValueOfAWrongNumber) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  for (const char* wrong : {"0", "11", "-1", "1e6", "", " 3", "3 ", "99999999999999999999"}) {
    EXPECT_EXIT(numberOf("--entries", wrong, 1, 10), ExitedWithCode(2),
                std::string("--entries is '") + wrong +
                    "', but has to be a whole number between "
                    "1 and 10");
  }
}

TEST(NativeOptionsDeathTest, NamesAnOptionWithoutAValue) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  char program[] = "program";
  char option[] = "--entries";
  char number[] = "7";
  char* arguments[] = {program, option, number};
  int at = 1;
  EXPECT_STREQ(valueBehind(3, arguments, &at), "7");
  EXPECT_EQ(at, 2);
  at = 1;
  EXPECT_EXIT(valueBehind(2, arguments, &at), ExitedWithCode(2), "--entries needs a value");
}

}  // namespace
}  // namespace nimbra::bench
