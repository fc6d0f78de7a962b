#include "vorn_time.h"

#include <atomic>
#include <cstdlib>
#include <ctime>
#include <gtest/gtest.h>
#include <sched.h>
#include <string>
#include <sys/stat.h>
#include <thread>
#include <utility>
#include <vector>

#include "arch/counter.hpp"
#include "support/log_capture.hpp"
#include "support/scratch.hpp"
#include "time/vorn_time.hpp"
#include "vorn_cmd.h"

// Stands in front of the library's: commands with their whitelists, and how many of them run.
static std::vector<std::pair<std::string, std::string>> commands;
static std::size_t runnable = 2;

FILE *vorn_popen_s(const char *command, const char *mode, const char *whitelist) {
  commands.emplace_back(command, whitelist);
  if (commands.size() > runnable || isDangerousCmd(command, whitelist) != 0) return nullptr;
  return vorn_popen(command, mode);
}

namespace {

TEST(Time, RunsAtTheRateOfTheMonotonicClock) {
  ASSERT_EQ(vorn_gettime_init(), 0u);
  const uint64_t earliest = vorn_time_getnanosec() / 1000000;
  EXPECT_GE(vorn_time_getmillisec(), earliest);
  EXPECT_LE(vorn_time_getmillisec(), vorn_time_getnanosec() / 1000000);
  EXPECT_EQ(vorn_time_cycles2ns(3), 3 * (1000000000 / vorn::arch::counter_frequency()));

  const auto monotonic = [] {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC_RAW, &now);
    return static_cast<double>(now.tv_sec) * 1e9 + static_cast<double>(now.tv_nsec);
  };
  const double clock_start = monotonic();
  const auto start = static_cast<double>(vorn_time_getnanosec());
  const timespec pause{0, 100000000};
  nanosleep(&pause, nullptr);
  const double elapsed = static_cast<double>(vorn_time_getnanosec()) - start;
  const double clock_elapsed = monotonic() - clock_start;
  EXPECT_GT(elapsed, 0.9e8);
  EXPECT_NEAR(elapsed / clock_elapsed, 1.0, 0.1); // wide: the machine may stop between two readings
}

// The shell finds a cat that prints this instead of the processor's description.
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

constexpr char kFlags[] = "flags : fpu constant_tsc\nflags : fpu constant_tsc\n";

TEST(TimeFrequency, IsThatOfTheModelName) {
  const struct {
    const char *model;
    double ghz;
  } rows[] = {
      {"model name : Some @ 2.60GHz\nmodel name : Some @ 3.10GHz\n", 2.6},
      {"model name : Some @ 3GHz\n", 3.0},
      {"model name : Some @ fast\n", 0.0},
  };
  for (const auto &row : rows) {
    const CpuInfo info(std::string(kFlags) + row.model);
    commands.clear();
    currCpuGHz = 1.5;
    EXPECT_EQ(vorn_get_tsc_freq(), 0);
    EXPECT_EQ(currCpuGHz, row.ghz);
  }
  const std::vector<std::pair<std::string, std::string>> want = {
      {"cat /proc/cpuinfo | grep -o constant_tsc | uniq", "|"},
      {"cat /proc/cpuinfo | grep @ | uniq | awk '{print $NF}'", "|$"}};
  EXPECT_EQ(commands, want);
  EXPECT_NO_RECORD();
}

// What stops the search: that the counter is not constant, or that a command cannot be run. The
// frequency stays then. It is measured where no model tells it.
TEST(TimeFrequency, StaysWhereItCannotBeTold) {
  const struct {
    std::string info;
    std::size_t runnable;
    int result;
    const char *text;
  } rows[] = {
      {"model name : Some @ 2.60GHz\n", 2, -1, "There is no constant_tsc flag in /proc/cpuinfo"},
      {kFlags, 0, -1, "Cat /proc/cpuinfo for constant_tsc fail"},
      {kFlags, 1, -1, "Cat /proc/cpuinfo fail for cpufreq fail"},
      {kFlags, 2, 0, "cpu standard hz is "},
  };
  vorn_gettime_init();
  for (const auto &row : rows) {
    const CpuInfo info(row.info);
    commands.clear();
    runnable = row.runnable;
    currCpuGHz = 99;
    EXPECT_EQ(vorn_get_tsc_freq(), row.result);
    EXPECT_EQ(currCpuGHz == 99, row.result != 0) << row.text;
    EXPECT_EQ(capture::take_texts().at(0).rfind(row.text, 0), 0u);
  }
  const double want = static_cast<double>(vorn::arch::counter_frequency()) / 1e9;
  EXPECT_NEAR(currCpuGHz, want, 0.1 * want + 0.005);
}

TEST(Time, FrequenciesRoundAndTruncate) {
  using vorn::time::round_frequency;
  using vorn::time::tick_nanoseconds;
  EXPECT_EQ(round_frequency(24999999), 20000000u);
  EXPECT_EQ(round_frequency(25000000), 30000000u); // a tie goes up
  EXPECT_EQ(round_frequency(30000000), 30000000u);
  EXPECT_EQ(round_frequency(0), 0u);
  EXPECT_EQ(tick_nanoseconds(100000000), 10u);
  EXPECT_EQ(tick_nanoseconds(24000000), 41u);
  EXPECT_EQ(tick_nanoseconds(0), 0u);
}

} // namespace
