// Tests the time base.
// SPDX-License-Identifier: Apache-2.0
#include "vorn_time.h"

#include <cstdlib>
#include <ctime>
#include <gtest/gtest.h>
#include <string>
#include <sys/stat.h>
#include <vector>

#include "arch/counter.hpp"
#include "base/timespec.hpp"
#include "support/log_capture.hpp"
#include "support/scratch.hpp"
#include "time/vorn_time.hpp"
#include "vorn_cmd.h"

// Replaces the library's: records commands with their white lists, and limits how many run.
static std::vector<std::string> commands;
static std::size_t runnable = 2;

FILE *vorn_popen_s(const char *command, const char *mode, const char *whitelist) {
  commands.push_back(command + std::string(" allowing ") + whitelist);
  if (commands.size() > runnable || isDangerousCmd(command, whitelist) != 0) return nullptr;
  return vorn_popen(command, mode);
}

namespace {

TEST(Time, RunsAtTheRateOfTheMonotonicClock) {
  EXPECT_EQ(vorn_time_getnanosec(), 0u);
  ASSERT_EQ(vorn_gettime_init(), 0u);
  EXPECT_EQ(currCpuGHz, 2.6);
  currCpuGHz = 9;
  EXPECT_EQ(vorn_gettime_init(), 0u);
  EXPECT_EQ(currCpuGHz, 9); // the second changes nothing
  const uint64_t earliest = vorn_time_getnanosec() / 1000000;
  EXPECT_GE(vorn_time_getmillisec(), earliest);
  EXPECT_LE(vorn_time_getmillisec(), vorn_time_getnanosec() / 1000000);
  EXPECT_EQ(vorn_time_cycles2ns(3), 3 * (1000000000 / vorn::arch::counter_frequency()));

  const auto monotonic = [] {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC_RAW, &now);
    return vorn::nanoseconds(now);
  };
  const uint64_t clock_start = monotonic();
  const uint64_t start = vorn_time_getnanosec();
  const timespec pause{0, 100000000};
  nanosleep(&pause, nullptr);
  const auto elapsed = static_cast<double>(vorn_time_getnanosec() - start);
  const auto clock_elapsed = static_cast<double>(monotonic() - clock_start);
  EXPECT_GT(elapsed, 0.9e8);
  EXPECT_NEAR(elapsed / clock_elapsed, 1.0, 0.1); // wide: the machine may stop between two readings
}

// The shell runs a cat that prints this instead of the processor's description.
class CpuInfo {
public:
  explicit CpuInfo(const std::string &text) {
    scratch::write_file(scratch_ / "text", text);
    scratch::write_file(scratch_ / "cat", "#!/bin/sh\nexec /bin/cat " + (scratch_ / "text") + "\n");
    chmod((scratch_ / "cat").c_str(), 0755);
    setenv("PATH", (scratch_.path() + ":/usr/bin:/bin").c_str(), 1);
  }

private:
  scratch::Directory scratch_;
};

TEST(Time, FrequencyIsThatOfTheModelNameOrMeasured) {
  const std::string flags = "flags : fpu constant_tsc\nflags : fpu constant_tsc\n";
  const double measured = static_cast<double>(vorn::arch::counter_frequency()) / 1e9;
  const struct {
    std::string info;
    std::size_t runnable;
    int result;
    double ghz;
    double tolerance;
    std::string message;
  } rows[] = {
      {flags + "model name : A @ 2.60GHz\nmodel name : A @ 3.10GHz\n", 2, 0, 2.6, 0, ""},
      {flags + "model name : A @ fast\n", 2, 0, 0, 0, ""},
      {"model name : A @ 2.6\n", 2, -1, 99, 0, "E There is no constant_tsc flag in /proc/cpuinfo"},
      {flags, 0, -1, 99, 0, "E Cat /proc/cpuinfo for constant_tsc fail"},
      {flags, 1, -1, 99, 0, "E Cat /proc/cpuinfo fail for cpufreq fail"},
      {flags, 2, 0, measured, 0.1 * measured + 0.005, "cpu standard hz is "},
  };
  for (const auto &row : rows) {
    const CpuInfo info(row.info);
    commands.clear();
    runnable = row.runnable;
    currCpuGHz = 99;
    EXPECT_EQ(vorn_get_tsc_freq(), row.result);
    EXPECT_NEAR(currCpuGHz, row.ghz, row.tolerance);
    const auto texts = capture::take_lines();
    EXPECT_EQ(texts.size(), row.message.empty() ? 0u : 1u);
    EXPECT_TRUE(texts.empty() || texts[0].starts_with(row.message)) << texts[0];
  }
  const std::vector<std::string> wanted = {
      "cat /proc/cpuinfo | grep -o constant_tsc | uniq allowing |",
      "cat /proc/cpuinfo | grep @ | uniq | awk '{print $NF}' allowing |$"};
  EXPECT_EQ(commands, wanted);
}

TEST(Time, FrequenciesRoundAndTruncate) {
  using vorn::time::round_frequency;
  using vorn::time::tick_nanoseconds;
  EXPECT_EQ(round_frequency(24999999), 20000000u);
  EXPECT_EQ(round_frequency(25000000), 30000000u); // a tie goes up
  EXPECT_EQ(round_frequency(30000000), 30000000u);
  EXPECT_EQ(tick_nanoseconds(24000000), 41u);
  EXPECT_EQ(tick_nanoseconds(0), 0u);
}

} // namespace
