#include "vorn_init.h"

#include <atomic>
#include <gtest/gtest.h>
#include <thread>

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
  auto records = capture::take();
  ASSERT_GE(records.size(), 2u);
  EXPECT_EQ(records.back().text, "Vorn init end ret 7.");
  const auto &failure = records[records.size() - 2];
  EXPECT_EQ(failure.text, "Vorn cpufreq initialize failed.");
  EXPECT_EQ(failure.level, EVLOG_ERROR);
  EXPECT_EQ(failure.function, "vorn_init_inner");

  vorn_destory(); // not started: nothing to undo, nothing to say
  EXPECT_NO_RECORD();

  cpufreq_result = 0;
  EXPECT_EQ(vorn_Init(), 0);
  EXPECT_EQ(cpufreq_calls, 2);
  EXPECT_EQ(count_text(capture::take(), "Vorn init start."), 1);
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
static unsigned long seen[6];

extern "C" {
// NOLINTBEGIN: the declarations of evlog.h do not bind another logging library
int fake_init(unsigned long a, unsigned long b, unsigned long c, unsigned long d, unsigned long e,
              unsigned long f) __asm__("evlog_init");
int fake_level_set(unsigned long a, unsigned long b, unsigned long c, unsigned long d,
                   unsigned long e, unsigned long f) __asm__("evlog_loglevel_set");
int fake_group(unsigned int module) __asm__("evlog_get_group_id");
int fake_ratelimit(int group, unsigned int a, unsigned int b) __asm__("evlog_ratelimit_set");
// NOLINTEND

static int keep(unsigned long a, unsigned long b, unsigned long c, unsigned long d, unsigned long e,
                unsigned long f, int result) {
  const unsigned long words[] = {a, b, c, d, e, f};
  std::copy(std::begin(words), std::end(words), seen);
  return result;
}
int fake_init(unsigned long a, unsigned long b, unsigned long c, unsigned long d, unsigned long e,
              unsigned long f) {
  return keep(a, b, c, d, e, f, 17);
}
int fake_level_set(unsigned long a, unsigned long b, unsigned long c, unsigned long d,
                   unsigned long e, unsigned long f) {
  return keep(a, b, c, d, e, f, 18);
}
int fake_group(unsigned int module) { return static_cast<int>(module) + 1000; }
int fake_ratelimit(int group, unsigned int a, unsigned int b) {
  return keep(static_cast<unsigned long>(group), a, b, 0, 0, 0, 19);
}
}

namespace {

TEST(Log, PassesFullWordsAndResultsUnchanged) {
  const unsigned long first = 0x123456789ABCDEF0;
  const std::vector<unsigned long> words{first,     first + 1, first + 2,
                                         first + 3, first + 4, first + 5};
  const auto got = [] { return std::vector<unsigned long>(std::begin(seen), std::end(seen)); };

  EXPECT_EQ(vorn_log_init(reinterpret_cast<const char *>(first), words[1], words[2], words[3],
                          words[4], words[5]),
            17);
  EXPECT_EQ(got(), words);
  std::fill(std::begin(seen), std::end(seen), 0);
  EXPECT_EQ(vorn_log_level_set(first, words[1], words[2], words[3], words[4], words[5]), 18);
  EXPECT_EQ(got(), words);
}

TEST(Log, LimitsTheGroupOfAModule) {
  EXPECT_EQ(vorn_ratelimit_set(5, 0xFFFFFFFF, 7), 19);
  EXPECT_EQ(seen[0], 1005u);
  EXPECT_EQ(seen[1], 0xFFFFFFFFu);
  EXPECT_EQ(seen[2], 7u);
}

} // namespace
