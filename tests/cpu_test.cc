#include "vorn_cpu.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <sched.h>
#include <string>
#include <vector>

#include "evlog.h"
#include "support/log_capture.hpp"
#include "support/scratch.hpp"
#include "vorn_cpufreq.h"

namespace {

TEST(Cpu, ListsOfCpus) {
  const std::string bad = "E Parse cpu mask fail, invalid format:";
  const struct {
    const char *text;
    int result;
    std::vector<int> cpus;
    std::vector<std::string> records;
  } rows[] = {
      {"0,2- 4, 70", 0, {0, 2, 3, 4, 70}, {}},
      {"1022-2000", 0, {1022, 1023}, {}},
      {"2000,99999999999", 0, {1023}, {}},
      {"8-4", -1, {}, {"E Parse cpu mask 8-4 fail, end:4 is less than start:8"}},
      {"*/A,,5,-6", 0, {5}, {bad + "*/A", bad, bad + "-6"}},
      {"3--5", 0, {3}, {}},
      {nullptr, -1, {}, {}},
  };
  for (const auto &row : rows) {
    cpu_set_t expected;
    CPU_ZERO(&expected);
    for (int cpu : row.cpus)
      CPU_SET(cpu, &expected);
    cpu_set_t set;
    CPU_ZERO(&set);
    EXPECT_EQ(vorn_cpum_parse_cpumask(row.text, set.__bits), row.result);
    EXPECT_TRUE(CPU_EQUAL(&set, &expected)) << row.text;
    EXPECT_EQ(capture::take_lines(), row.records);
  }
  uint64_t mask[VORN_CPUM_MASK_WORDS] = {1ul << 9};
  vorn_cpum_parse_cpumask("0,x", mask);
  EXPECT_EQ(mask[0], 0x201u);
  EXPECT_ONE_RECORD(EVLOG_ERROR, "vorn_cpu.c", "vorn_cpum_parse_cpumask_as_list",
                    "Parse cpu mask fail, invalid format:x");
}

TEST(Cpufreq, FindsThePoliciesThatCanBeRead) {
  const std::string root = "/sys/devices/system/cpu/cpufreq/";
  if (!scratch::cover_directory("/sys/devices/system/cpu")) GTEST_SKIP() << scratch::kNoMounts;
  EXPECT_EQ(vorn_cpufreq_init(), 0); // a machine that offers none

  for (const std::string policy : {"policy0", "policy4"}) {
    scratch::write_file(root + policy + "/cpuinfo_min_freq", "200000\n");
    scratch::write_file(root + policy + "/cpuinfo_max_freq", "2600000\n");
  }
  scratch::write_file(root + "policy8/cpuinfo_min_freq", "junk");
  scratch::write_file(root + "boost", "1");
  EXPECT_EQ(vorn_cpufreq_init(), 0);
  auto texts = capture::take_lines();
  std::sort(texts.begin(), texts.end());
  const std::string range = ": 200000 to 2600000 kHz.";
  EXPECT_EQ(texts, (std::vector<std::string>{"cpufreq policy0" + range, "cpufreq policy4" + range,
                                             "cpufreq: 0 policies can be controlled.",
                                             "cpufreq: 2 policies can be controlled."}));
}

} // namespace
