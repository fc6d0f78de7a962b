// test-wraps: vorn_private_syscall
// Tests the functions that pass a request to the kernel module, and the time of day without one.
// SPDX-License-Identifier: Apache-2.0
#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <ctime>
#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "evlog.h"
#include "kram_syscall.h"
#include "support/log_capture.hpp"
#include "time/vorn_time_local.hpp"
#include "vorn_cpufreq.h"
#include "vorn_syscall.h"
#include "vorn_thread_dump.h"
#include "vorn_time.h"
#include "vorn_tty.h"

static std::vector<unsigned long> asked; // the last request
static int answered_errno = ENOSYS;
static long answer = 0x100000007; // where there is no errno

extern "C" long __wrap_vorn_private_syscall(unsigned long command, unsigned long a1,
                                            unsigned long a2, unsigned long a3, unsigned long a4) {
  asked = {command, a1, a2, a3, a4};
  if (answered_errno == 0) return answer;
  errno = answered_errno;
  return -1;
}

namespace {

constexpr unsigned long kUnused = ~0ul;

std::vector<unsigned long> request(unsigned int operation, unsigned long a1, unsigned long a2) {
  return {381ul << 32 | operation, a1, a2, kUnused, kUnused};
}

template <class T> unsigned long word(T *address) {
  return reinterpret_cast<unsigned long>(address);
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
    answered_errno = 0;
    EXPECT_EQ(row.function(~1ul, 2), 7);
    EXPECT_EQ(asked, request(row.operation, ~1ul, 2));
    answered_errno = EPERM;
    EXPECT_EQ(row.function(0, 0), -1);
    EXPECT_EQ(errno, EPERM);
  }
  EXPECT_NO_RECORD();
}

TEST(TimeOfDay, IsTheModules) {
  int64_t seconds = 1;
  uint32_t nanoseconds = 2;
  int32_t dst = 3;
  for (const int error : {0, EPERM}) { // a refusal, not an absence
    answered_errno = error;
    const int result = error == 0 ? 7 : -1;
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
  answered_errno = 0;
  answer = 0xFFFFFFFF;
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
  EXPECT_ONE_RECORD(EVLOG_ERROR, "vorn_time_local.c", "vorn_time_getlocal_fromutc",
                    "localtime_r failed, errno 75.");
  EXPECT_EQ(vorn_time_gettime(&seconds, nullptr), -1);
}

TEST(TimeOfDay, KeepsTheZonesName) {
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

TEST(RandomBytes, FillTheBufferWhateverTheClockDoes) {
  for (const int error : {ENOSYS, EPERM}) {
    answered_errno = error;
    unsigned char bytes[64] = {};
    unsigned char others[64] = {};
    get_random_bytes(bytes, 63);
    get_random_bytes(others, 63);
    EXPECT_EQ(bytes[63], 0);
    EXPECT_LT(std::count(bytes, bytes + 63, 0), 16);
    EXPECT_FALSE(std::equal(bytes, bytes + 63, others));
  }
  get_random_bytes(nullptr, 5);
  EXPECT_NO_RECORD();
}

} // namespace
