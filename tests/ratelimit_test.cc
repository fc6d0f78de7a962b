// test-wraps: vorn_get_jiffies
#include "base/ratelimit.hpp"

#include <gtest/gtest.h>
#include <string>
#include <thread>
#include <vector>

#include "support/log_capture.hpp"

static std::atomic<uint64_t> jiffies{0};
extern "C" uint64_t __wrap_vorn_get_jiffies() { return jiffies; }

namespace {

void site() { VORN_LOG_RATELIMITED(vorn::kWarning, "hit"); }

int hit(int times) {
  for (int i = 0; i < times; ++i)
    site();
  int printed = 0;
  for (const auto &text : capture::take_texts())
    printed += text == "hit" ? 1 : 0;
  return printed;
}

class RateLimit : public testing::TestWithParam<uint64_t> {
  void SetUp() override { jiffies = GetParam(); }
};

TEST_P(RateLimit, PrintsThreeInABurstAndReportsWhenDue) {
  EXPECT_EQ(hit(10), 3);
  jiffies += 14999;
  EXPECT_EQ(hit(1), 0);
  jiffies += 1;
  site(); // the interval is over, and the report is due as none was made yet
  const auto records = capture::take();
  ASSERT_EQ(records.size(), 2u);
  EXPECT_EQ(records[0].text.rfind("print: 8 messages suppressed.site,line=", 0), 0u)
      << records[0].text;
  EXPECT_EQ(records[0].text.substr(records[0].text.find("line=")),
            "line=" + std::to_string(records[0].line) + ".");
  EXPECT_EQ(records[0].level, vorn::kInfo);
  EXPECT_EQ(records[0].function, "site");
  EXPECT_EQ(records[1].text, "hit");

  EXPECT_EQ(hit(5), 2);
  jiffies += 15000;
  EXPECT_EQ(hit(1), 1); // three more are suppressed, but the last report is too young
  jiffies += 134999;
  EXPECT_EQ(hit(1), 1); // not due by one tick
  jiffies += 15000;
  site();
  EXPECT_EQ(capture::take_texts().front().rfind("print: 3 messages suppressed.", 0), 0u);
}

TEST_P(RateLimit, EachPrintedRecordStartsTheIntervalAgain) {
  EXPECT_EQ(hit(1), 1);
  jiffies += 14000;
  EXPECT_EQ(hit(1), 1);
  jiffies += 14000;
  EXPECT_EQ(hit(1), 1);
  jiffies += 14000;
  EXPECT_EQ(hit(1), 0);
}

// The last start value passes 2^32 in the middle of the test.
INSTANTIATE_TEST_SUITE_P(Starts, RateLimit, testing::Values(150000, 1u << 31, UINT32_MAX - 7000));

TEST(RateLimitLevel, UnwantedRecordsAreNotCounted) {
  jiffies = 1000000;
  capture::set_level(vorn::kError);
  EXPECT_EQ(hit(10), 0);
  capture::set_level(vorn::kDebug);
  EXPECT_EQ(hit(10), 3);
}

TEST(RateLimitLevel, ReportSkipsTheLevelCheck) {
  jiffies = 1000000;
  capture::set_level(vorn::kWarning); // wants the record, not the report's level
  EXPECT_EQ(hit(4), 3);
  jiffies += 15000;
  site();
  EXPECT_EQ(capture::take_texts().front().rfind("print: 1 messages suppressed.", 0), 0u);
}

TEST(RateLimitThreads, MayMeetInOneSite) {
  jiffies = 1000000;
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([] {
      for (int i = 0; i < 1000; ++i)
        site();
    });
  }
  for (auto &thread : threads)
    thread.join();
  EXPECT_GE(capture::take().size(), 3u);
}

} // namespace
