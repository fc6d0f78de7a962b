#include "vorn_time.h"

#include <gtest/gtest.h>

TEST(Time, ReadsZeroBeforeItIsStarted) {
  EXPECT_EQ(vorn_time_getnanosec(), 0u);
  EXPECT_EQ(vorn_time_getmillisec(), 0u);
  EXPECT_EQ(vorn_time_cycles2ns(1000), 0u);
}
