// test-wraps: vorn_get_jiffies
// Tests the rate limiter of log messages.
// SPDX-License-Identifier: Apache-2.0
#include "base/ratelimit.hpp"

#include <gtest/gtest.h>
#include <string>

#include "support/log_capture.hpp"

static uint64_t jiffies = 0;
extern "C" uint64_t __wrap_vorn_get_jiffies() { return jiffies; }

namespace {

void site() { VORN_LOG_RATELIMITED(vorn::kWarning, "hit"); }

// Returns what that many hits log: "h" for each message, and the number in a report.
std::string hit(int times) {
  for (int i = 0; i < times; ++i)
    site();
  std::string printed;
  for (const auto &message : capture::take()) {
    EXPECT_EQ(message.function, "site");
    if (message.text == "hit") {
      printed += 'h';
      continue;
    }
    const std::string tail = " messages suppressed.site,line=" + std::to_string(message.line) + ".";
    EXPECT_TRUE(message.text.starts_with("print: ") && message.text.ends_with(tail))
        << message.text;
    EXPECT_EQ(message.level, vorn::kInfo);
    printed += message.text.substr(7, message.text.size() - 7 - tail.size());
  }
  return printed;
}

class RateLimit : public testing::TestWithParam<uint64_t> {
  void SetUp() override { jiffies = GetParam(); }
};

TEST_P(RateLimit, PrintsThreeInABurstAndReportsWhenDue) {
  const struct {
    uint64_t later;
    int times;
    const char *printed;
  } rows[] = {
      {0, 10, "hhh"},   {14999, 1, ""},
      {1, 6, "8hhh"},   // due, as none was made yet
      {15000, 1, "h"},  // three more are suppressed, but the last report is too young
      {134999, 1, "h"}, // by one tick
      {15000, 1, "3h"}, {14000, 1, "h"},
      {14000, 1, "h"}, // each that is printed starts the interval again
      {14000, 1, ""},
  };
  for (const auto &row : rows) {
    jiffies += row.later;
    EXPECT_EQ(hit(row.times), row.printed) << jiffies;
  }
}

// The last start value passes 2^32 in the middle of the test.
INSTANTIATE_TEST_SUITE_P(Starts, RateLimit, testing::Values(150000, 1u << 31, UINT32_MAX - 7000));

TEST(RateLimitLevel, CountsOnlyMessagesThatPassTheLevelCheck) {
  jiffies = 1000000;
  capture::set_level(vorn::kError);
  EXPECT_EQ(hit(10), "");
  capture::set_level(vorn::kWarning); // passes the message, not the level of the report
  EXPECT_EQ(hit(4), "hhh");
  jiffies += 15000;
  EXPECT_EQ(hit(1), "1h");
}

} // namespace
