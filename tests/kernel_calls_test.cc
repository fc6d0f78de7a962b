// test-wraps: vorn_private_syscall
// Tests the functions that pass a request to the kernel module, and the time of day without one.
// SPDX-License-Identifier: Apache-2.0
#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <ctime>
#include <gtest/gtest.h>
#include <string>
#include <thread>
#include <vector>

#include "evlog.h"
#include "kram_syscall.h"
#include "support/kernel_module.hpp"
#include "support/log_capture.hpp"
#include "time/vorn_time_local.hpp"
#include "vorn_cpu.h"
#include "vorn_cpufreq.h"
#include "vorn_mem.h"
#include "vorn_reboot.h"
#include "vorn_spinlock.h"
#include "vorn_syscall.h"
#include "vorn_thread_dump.h"
#include "vorn_time.h"
#include "vorn_tty.h"

extern "C" decltype(vorn_private_syscall) __real_vorn_private_syscall;

namespace {

using namespace kernel_module;
using Lines = std::vector<std::string>;

constexpr long kMinusOneIn32Bits = 0xFFFFFFFF;
constexpr long kZeroIn32Bits = 1l << 32;

void answer_with(long result, int with_error) {
  answer = result;
  error = with_error;
}

TEST(KernelCalls, FailWithEnosysWithoutAKernelModule) {
  EXPECT_EQ(__real_vorn_private_syscall(VORN_SYSCALL_COMMAND(VORN_SYSCALL_REBOOT), 0, 0, 0, 0), -1);
  EXPECT_EQ(errno, ENOSYS);
}

TEST(KernelCalls, PassTwoWordsAndTheResult) {
  const struct {
    int (*function)(unsigned long, unsigned long);
    unsigned int operation;
  } rows[] = {{vorn_start_agettyquery, 0x200},
              {vorn_stop_agettyquery, 0x201},
              {vorn_tty_printon, 0x202},
              {vorn_tty_printoff, 0x203},
              {vorn_cpufreq_set_low_all, 0x300},
              {vorn_cpufreq_set_high_all, 0x301},
              {vorn_cpufreq_up_allcpu_freq_by_step, 0x302},
              {vorn_cpufreq_down_allcpu_freq_by_step, 0x303},
              {vorn_get_local_cpufreq, 0x304},
              {vorn_thread_dump_thread_stack, 0x500},
              {vorn_thrd_dump_cpu_stack_knl, 0x702},
              {vorn_thrd_dump_cpu_stack, 0x703},
              {vorn_thrd_dump_thread_stack_if_not_running, 0x704}};
  for (const auto &row : rows) {
    answer_with(kZeroIn32Bits + 7, 0);
    EXPECT_EQ(row.function(~1ul, 2), 7);
    EXPECT_EQ(asked, request(row.operation, ~1ul, 2));
    answer_with(-1, EPERM);
    EXPECT_EQ(row.function(0, 0), -1);
    EXPECT_EQ(errno, EPERM);
  }
  EXPECT_NO_MESSAGE();
}

TEST(KernelCalls, CompareResultsAs32Bits) {
  uint32_t value = 0;
  unsigned long free_memory = 0;
  answer_with(kMinusOneIn32Bits, EIO);
  EXPECT_EQ(vorn_ResetLocalBoard(), -1);
  EXPECT_EQ(asked, request(0));
  vorn_Reboot(7, -1, "\xFF");
  EXPECT_EQ(asked, request(1, 7, 0xFFFFFFFF, 0xFF)); // the first byte of the text
  EXPECT_EQ(vorn_get_reboot_count(5, ~1ul), ~0u);
  EXPECT_EQ(asked, request(2, 5, ~1ul, asked[3]));
  EXPECT_EQ(vorn_mem_stat_dump(), -1);
  EXPECT_EQ(vorn_get_idle_no_cstates(5, &value), -1);
  EXPECT_EQ(vorn_set_idle_no_cstates(6, 1), -1);
  EXPECT_EQ(errno, EIO);
  EXPECT_TRUE(vorn_get_idle_no_cstates(5, nullptr) == -1 &&
              vorn_get_cpu_task_info(5, nullptr) == -1);
  const std::string failed = "E Syscall for vorn_";
  EXPECT_EQ(capture::take_lines(),
            (Lines{failed + "ResetLocalBoard failed.", "Usrspace reboot: reason:7, mid:-1, \xFF.",
                   failed + "Reboot failed.", failed + "get_reboot_count failed.",
                   failed + "set_idle_no_cstates failed.", "E idle_no_cstates_value is null.",
                   "E pCpuTaskInfo is null."}));
  answer_with(kZeroIn32Bits, 0);
  EXPECT_EQ(vorn_get_free_mem(&free_memory), 0);
  EXPECT_EQ(vorn_get_cpu_task_info(~0u, &value), 0);
  EXPECT_EQ(asked, request(0x307, ~0u, word(&value)));
  EXPECT_EQ(vorn_ResetLocalBoard(), 0);
  EXPECT_EQ(vorn_get_reboot_count(1, 2), 0u); // which was not written
  vorn_Reboot(~0ul, 2, nullptr);
  EXPECT_EQ(asked, request(1, ~0ul, 2));
  EXPECT_EQ(capture::take_lines(), Lines{"Usrspace reboot: reason:18446744073709551615, mid:2."});
  answer = 5;
  EXPECT_EQ(vorn_get_free_mem(&free_memory), -1);
  EXPECT_ONE_MESSAGE(EVLOG_ERROR, "vorn_mem_manager.c", "vorn_get_free_mem", "Syscall failed 5.");
  EXPECT_EQ(vorn_get_cpu_task_info(0, &value), -1);
  EXPECT_EQ(vorn_get_idle_no_cstates(5, &value), 5);
  EXPECT_EQ(asked, request(0x305, 5, word(&value)));
  act = [](const Words &words) { return *pointer<uint32_t>(words[2]) == 0xFFFFFFFE ? 9 : -1; };
  EXPECT_EQ(vorn_set_idle_no_cstates(6, 0xFFFFFFFE), 9);
  EXPECT_EQ(asked, request(0x306, 6, asked[2]));
}

TEST(KernelCalls, PanicPrintsAndSendsTheFirst255Characters) {
  std::string sent;
  act = [&](const Words &words) {
    if (words[0] == request(VORN_SYSCALL_PANIC)[0]) sent.assign(pointer<char>(words[1]), 256);
    return answer;
  };
  answer_with(0, EIO);
  std::thread([] { // none is a cancellation point
    pthread_cancel(pthread_self());
    EXPECT_EQ(printk("%s=%d", "a", 1), 0);
    vorn_Reboot(1, 2, nullptr);
    debug_dump_stack(0);
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr); // a std::thread cannot be cancelled
  })
      .join();
  Lines lines = capture::take_lines();
  ASSERT_EQ(lines.size(), 3u);
  EXPECT_EQ(lines[0] + lines[1], "a=1Usrspace reboot: reason:1, mid:2.");
  const std::string longest(255, 'x');
  for (const std::string &text : {longest, longest + "x", std::string("a 5")}) {
    panic("%s", text.c_str());
    EXPECT_EQ(sent, text.substr(0, 255) + std::string(256 - std::min(text.size(), 255ul), '\0'));
  }
  answer = -1;
  panic("b");
  lines = capture::take_lines();
  ASSERT_EQ(lines.size(), 6u);
  EXPECT_EQ(lines[0], "Panic info = " + longest + "\n");
  EXPECT_TRUE(lines[1].starts_with("E Print panic info error, ret(-1) errno(")) << lines[1];
  EXPECT_EQ(lines[2], lines[0]);
  EXPECT_EQ(lines[5], "E Syscall for vorn_Reboot failed.errno 5");
}

TEST(KernelCalls, MemoryTableIsTakenOnlyAfterASuccess) {
  static uint64_t table[VORN_MODULE_ID_COUNT];
  std::fill_n(table, VORN_MODULE_ID_COUNT, ~0ul);
  uint64_t address = word(table);
  act = [&](const Words &words) { return *pointer<uint64_t>(words[1]) = address, answer; };
  answer_with(-1, EIO);
  errno = 7;
  void *block = vorn_malloc(3, 10);
  EXPECT_EQ(errno, 7);
  vorn_free(block);
  EXPECT_EQ(errno, 7);
  EXPECT_EQ(table[3], ~0ul);
  answer = 0;
  address = 0;
  vorn_mem_stat_add(3, 1);
  address = word(table);
  vorn_mem_stat_add(3, 7);
  EXPECT_EQ(table[3], 7u);
  EXPECT_EQ(std::count(table, table + VORN_MODULE_ID_COUNT, 0), VORN_MODULE_ID_COUNT - 1);
}

TEST(TimeOfDay, IsTheModules) {
  int64_t seconds = 1;
  uint32_t nanoseconds = 2;
  int32_t dst = 3;
  for (const int refusal : {0, EPERM}) { // which is not an absence
    const int result = refusal == 0 ? 7 : -1;
    answer_with(refusal == 0 ? kZeroIn32Bits + 7 : -1, refusal);
    EXPECT_EQ(vorn_time_getlocaltime(&seconds, &nanoseconds), result);
    EXPECT_EQ(asked, request(0x100, word(&seconds), word(&nanoseconds)));
    EXPECT_EQ(vorn_time_getlocal_fromutc(-9, &seconds), result);
    EXPECT_EQ(asked, request(0x101, -9ul, word(&seconds)));
    EXPECT_EQ(vorn_time_gettime(&seconds, &nanoseconds), result);
    EXPECT_EQ(asked, request(0x102, word(&seconds), word(&nanoseconds)));
    EXPECT_EQ(vorn_time_getdst_fromutc(9, &dst), result);
    EXPECT_EQ(asked, request(0x103, 9, word(&dst)));
    EXPECT_EQ(vorn_time_getdsttime(&dst, &dst), result);
    EXPECT_EQ(asked, request(0x104, word(&dst), word(&dst)));
  }
  answer_with(kMinusOneIn32Bits, 0);
  errno = ENOSYS; // of an earlier call
  EXPECT_EQ(vorn_time_gettime(&seconds, &nanoseconds), -1);
  EXPECT_TRUE(seconds == 1 && nanoseconds == 2 && dst == 3);
}

TEST(TimeOfDay, IsTheSystemsWithoutAModule) {
  setenv("TZ", "CET-1CEST,M3.5.0,M10.5.0/3", 1);
  int64_t local = 0;
  int32_t dst = 9;
  for (const auto &[utc, offset, summer] : {std::tuple{1711846799l, 3600, 0},
                                            {1711846800, 7200, 1},
                                            {1729990800, 3600, 0},
                                            {-1, 3600, 0}}) {
    EXPECT_EQ(vorn_time_getlocal_fromutc(utc, &local), 0);
    EXPECT_EQ(local - utc, offset);
    EXPECT_EQ(vorn_time_getdst_fromutc(utc, &dst), 0);
    EXPECT_EQ(dst, summer);
  }
  setenv("TZ", "IST-5:30", 1);
  int64_t seconds = 0;
  int32_t offset = 0;
  uint32_t parts[2] = {1000000000, 1000000000};
  EXPECT_EQ(vorn_time_gettime(&seconds, &parts[0]), 0);
  EXPECT_EQ(vorn_time_getlocaltime(&local, &parts[1]), 0);
  EXPECT_EQ(vorn_time_getdsttime(&dst, &offset), 0);
  EXPECT_LT(std::max(parts[0], parts[1]), 1000000000u);
  EXPECT_NEAR(seconds, time(nullptr), 100);
  EXPECT_NEAR(local, seconds + 19800, 100);
  EXPECT_TRUE(dst == 0 && offset == 19800);
  EXPECT_EQ(vorn_time_getlocal_fromutc(INT64_MAX, &local), -1);
  EXPECT_ONE_MESSAGE(EVLOG_ERROR, "vorn_time_local.c", "vorn_time_getlocal_fromutc",
                     "localtime_r failed, errno 75.");
  EXPECT_EQ(vorn_time_gettime(&seconds, nullptr), -1);
}

TEST(TimeOfDay, StoresTheNameOfTheZone) {
  char name[64];
  const std::string longest(63, 'z');
  EXPECT_EQ(vorn_time_zone_name_set(longest.c_str(), 63), 0);
  EXPECT_EQ(vorn_time_zone_name_set((longest + "z").c_str(), 64), -1);
  vorn::time::copy_zone_name(name);
  EXPECT_EQ(name, longest);
  EXPECT_EQ(vorn_time_zone_name_set("Europe/Rome\n", 11), 0);
  vorn::time::copy_zone_name(name);
  EXPECT_STREQ(name, "Europe/Rome");
}

TEST(RandomBytes, FillTheBufferWithoutAClock) {
  for (const int refusal : {ENOSYS, EPERM}) {
    answer_with(-1, refusal);
    unsigned char bytes[64] = {};
    unsigned char others[64] = {};
    get_random_bytes(bytes, 63);
    get_random_bytes(others, 63);
    EXPECT_EQ(bytes[63], 0);
    EXPECT_LT(std::count(bytes, bytes + 63, 0), 16);
    EXPECT_FALSE(std::equal(bytes, bytes + 63, others));
  }
  get_random_bytes(nullptr, 5);
  EXPECT_NO_MESSAGE();
}

} // namespace
