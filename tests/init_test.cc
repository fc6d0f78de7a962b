#include "vorn_init.h"

#include <atomic>
#include <gtest/gtest.h>
#include <thread>
#include <vector>

#include "evlog.h"
#include "support/log_capture.hpp"
#include "vorn_cpufreq.h"
#include "vorn_log.h"
#include "vorn_process.h"
#include "vorn_time.h"

// Stands in front of the library's own, as any process may do.
static std::atomic<int> cpufreq_result{0};
static std::atomic<int> cpufreq_calls{0};
int vorn_cpufreq_init() {
  ++cpufreq_calls;
  return cpufreq_result;
}

namespace {

int count_text(const std::vector<capture::Record> &records, const std::string &text) {
  int count = 0;
  for (const auto &record : records)
    count += record.text == text ? 1 : 0;
  return count;
}

TEST(Init, StartsOnceAndSaysSo) {
  ASSERT_EQ(vorn_Init(), 0);
  const auto records = capture::take();
  ASSERT_GE(records.size(), 2u);
  EXPECT_EQ(records.front().text, "Vorn init start.");
  EXPECT_EQ(records.back().text, "Vorn init end ret 0.");
  EXPECT_EQ(records.back().function, "vorn_Init");
  // A machine without the jiffies driver starts, and says what is missing.
  EXPECT_EQ(count_text(records, "Get jiffies usr addr failed."), 1);
  EXPECT_NE(vorn_time_getnanosec(), 0u);

  EXPECT_EQ(vorn_Init(), 0);
  EXPECT_NO_RECORD();
}

TEST(Init, FailedStepStopsAndALaterCallRunsAllAgain) {
  cpufreq_result = 7;
  EXPECT_EQ(vorn_Init(), -1);
  const auto texts = capture::take_texts();
  EXPECT_EQ(texts.back(), "Vorn init end ret 7.");
  EXPECT_EQ(texts.at(texts.size() - 2), "Vorn cpufreq initialize failed.");
  vorn_destory(); // not started: nothing to undo, nothing to say
  EXPECT_NO_RECORD();
  cpufreq_result = 0;
  EXPECT_EQ(vorn_Init(), 0);
  EXPECT_EQ(cpufreq_calls, 2);
}

TEST(Init, ConcurrentCallersStartAndStopItOnceARound) {
  for (int round = 0; round < 20; ++round) {
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i)
      threads.emplace_back([] { EXPECT_EQ(vorn_Init(), 0); });
    for (auto &thread : threads)
      thread.join();
    threads.clear();
    for (int i = 0; i < 4; ++i)
      threads.emplace_back([] { vorn_destory(); });
    for (auto &thread : threads)
      thread.join();
    const auto records = capture::take();
    ASSERT_EQ(count_text(records, "Vorn init start."), 1);
    ASSERT_EQ(count_text(records, "Vorn destroy start."), 1);
    ASSERT_EQ(records.back().text, "Vorn destroy end.");
    ASSERT_EQ(records.back().function, "vorn_destory");
  }
  EXPECT_STREQ(vorn_pid_get_name(381), "OSAX"); // built again on demand
}

} // namespace

// A logging library whose functions take more than the default one's.
static std::vector<unsigned long> seen;

// NOLINTBEGIN: the declarations of evlog.h do not bind another logging library
extern "C" int fake_level_set(unsigned long a, unsigned long b, unsigned long c, unsigned long d,
                              unsigned long e, unsigned long f) __asm__("evlog_loglevel_set");
// NOLINTEND
int fake_level_set(unsigned long a, unsigned long b, unsigned long c, unsigned long d,
                   unsigned long e, unsigned long f) {
  seen = {a, b, c, d, e, f};
  return 18;
}

namespace {

TEST(Log, PassesFullWordsAndResultsUnchanged) {
  const unsigned long w = 0x123456789ABCDEF0;
  EXPECT_EQ(vorn_log_level_set(w, w + 1, w + 2, w + 3, w + 4, w + 5), 18);
  EXPECT_EQ(seen, (std::vector{w, w + 1, w + 2, w + 3, w + 4, w + 5}));
}

} // namespace
