#include "vorn_cpu.h"

#include <array>
#include <cerrno>
#include <gtest/gtest.h>
#include <sched.h>
#include <string>
#include <vector>

#include "evlog.h"
#include "support/log_capture.hpp"
#include "vorn_cpufreq.h"
#include "vorn_syscall.h"

// The kernel module: what it was asked, and what it answers.
using Words = std::array<unsigned long, 5>;
static Words asked;
static uint32_t set_value = 0;
static long answer = 0;

long vorn_private_syscall(unsigned long command, unsigned long a1, unsigned long a2,
                          unsigned long a3, unsigned long a4) {
  asked = {command, a1, a2, a3, a4};
  if (command == VORN_SYSCALL_COMMAND(0x306)) set_value = *reinterpret_cast<uint32_t *>(a2);
  errno = EIO;
  return answer;
}

namespace {

using Texts = std::vector<std::string>;

Words words(unsigned int operation, unsigned long a1, unsigned long a2) {
  return {381ul << 32 | operation, a1, a2, ~0ul, ~0ul};
}

TEST(Cpu, ListsOfCpus) {
  const std::string bad = "Parse cpu mask fail, invalid format:";
  const struct {
    const char *text;
    int result;
    std::vector<int> cpus;
    Texts records;
  } rows[] = {
      {"0,2- 4, 70", 0, {0, 2, 3, 4, 70}, {}},
      {"1022-2000", 0, {1022, 1023}, {}},
      {"2000,99999999999", 0, {1023}, {}},
      {"8-4", -1, {}, {"Parse cpu mask 8-4 fail, end:4 is less than start:8"}},
      {"*/A,,5,-6", 0, {5}, {bad + "*/A", bad, bad + "-6"}},
      {"3--5", 0, {3}, {}},
      {"", -1, {}, {bad}},
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
    EXPECT_EQ(capture::take_texts(), row.records);
  }
  uint64_t mask[VORN_CPUM_MASK_WORDS] = {1ul << 9};
  vorn_cpum_parse_cpumask("0,x", mask);
  EXPECT_EQ(mask[0], 0x201u);
  EXPECT_ONE_RECORD(EVLOG_ERROR, "vorn_cpu.c", "vorn_cpum_parse_cpumask_as_list", bad + "x");
}

TEST(Cpu, RequestsOfTheKernelModule) {
  uint32_t value = 0;
  const auto address = reinterpret_cast<unsigned long>(&value);
  answer = 7;
  EXPECT_EQ(vorn_get_idle_no_cstates(5, &value), 7);
  EXPECT_EQ(asked, words(0x305, 5, address));
  EXPECT_EQ(vorn_set_idle_no_cstates(6, 0xFFFFFFFE), 7);
  EXPECT_EQ(asked, words(0x306, 6, asked[2]));
  EXPECT_EQ(set_value, 0xFFFFFFFE);
  EXPECT_EQ(vorn_get_cpu_task_info(~0u, &value), -1);
  EXPECT_EQ(asked, words(0x307, ~0u, address));
  answer = 1l << 32; // 0 in 32 bits
  EXPECT_EQ(vorn_get_cpu_task_info(0, &value), 0);
  answer = 0xFFFFFFFF; // -1 in 32 bits
  EXPECT_EQ(vorn_get_idle_no_cstates(5, &value), -1);
  EXPECT_NO_RECORD();

  EXPECT_EQ(vorn_set_idle_no_cstates(6, 1), -1);
  EXPECT_EQ(errno, EIO);
  EXPECT_EQ(vorn_get_idle_no_cstates(5, nullptr), -1);
  EXPECT_EQ(vorn_get_cpu_task_info(5, nullptr), -1);
  EXPECT_EQ(capture::take_texts(),
            (Texts{"Syscall for vorn_set_idle_no_cstates failed.", "idle_no_cstates_value is null.",
                   "pCpuTaskInfo is null."}));
}

TEST(Cpu, FrequencyRequestsPassTwoWords) {
  unsigned int operation = 0x300;
  for (auto *function :
       {vorn_cpufreq_set_low_all, vorn_cpufreq_set_high_all, vorn_cpufreq_up_allcpu_freq_by_step,
        vorn_cpufreq_down_allcpu_freq_by_step, vorn_get_local_cpufreq}) {
    answer = operation - 0x302l;
    EXPECT_EQ(function(~1ul, ~2ul), answer);
    EXPECT_EQ(asked, words(operation++, ~1ul, ~2ul));
  }
}

} // namespace
