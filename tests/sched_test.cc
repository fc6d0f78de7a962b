// test-wraps: select nanosleep sched_yield sysconf sched_setaffinity vorn_time_getnanosec
// Tests sleeps and yields.
// SPDX-License-Identifier: Apache-2.0
#include "vorn_sched.h"

#include <cerrno>
#include <ctime>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/select.h>
#include <unistd.h>
#include <vector>

#include "evlog.h"
#include "support/log_capture.hpp"
#include "vorn_thrd.h"

static std::vector<uint64_t> slept; // nanoseconds
static int bound = -1;

extern "C" {

long __real_sysconf(int name);

int __wrap_select(int descriptors, fd_set *read, fd_set *write, fd_set *other, timeval *timeout) {
  EXPECT_TRUE(descriptors == 0 && read == nullptr && write == nullptr && other == nullptr);
  EXPECT_LT(timeout->tv_usec, 1000000);
  slept.push_back(timeout->tv_sec * 1000000000ul + timeout->tv_usec * 1000ul);
  return -1;
}

int __wrap_nanosleep(const timespec *time, timespec *) {
  slept.push_back(time->tv_sec * 1000000000ul + time->tv_nsec * 1ul);
  return -1;
}

int __wrap_sched_yield() { return 7; }

uint64_t __wrap_vorn_time_getnanosec() {
  static uint64_t clock = 0;
  return clock += 400000;
}

long __wrap_sysconf(int name) { return name == _SC_NPROCESSORS_CONF ? 300 : __real_sysconf(name); }

int __wrap_sched_setaffinity(pid_t, size_t size, const cpu_set_t *set) {
  EXPECT_EQ(size, 128u);
  EXPECT_EQ(CPU_COUNT(set), 1);
  for (bound = 0; !CPU_ISSET(bound, set);)
    ++bound;
  errno = EINVAL;
  return bound == 298 ? -1 : 0;
}
}

// An interrupted sleep is not tried again: each is one call.
TEST(Sched, SleepsAndYieldsAreOneCallOfTheSystem) {
  vorn_10msleep(250);
  vorn_msleep(1007);
  vorn_usleep(1500000);
  vorn_usleep(4294967295U);
  vorn_schedule();
  EXPECT_EQ(slept,
            (std::vector<uint64_t>{2500000000, 1007000000, 1500000000, 4294967295000, 1000000}));
  EXPECT_EQ(vorn_yield(), 7);
  EXPECT_EQ(vorn_mdelay(0), 400000u); // always longer than asked for
  EXPECT_EQ(vorn_mdelay(2), 2400000u);
}

TEST(Sched, NameIsNotAFormat) {
  ASSERT_EQ(vorn_thrd_setcurthreadinfo(), 0);
  EXPECT_EQ(vorn_set_process_name("100%s"), 0);
  EXPECT_STREQ(vorn_thrd_getname(), "100%s");
  EXPECT_EQ(vorn_thrd_clearcurthreadinfo(), 0);
}

TEST(Sched, BindsToOneConfiguredCpu) {
  EXPECT_EQ(vorn_sched_setaffinity(299), 0);
  EXPECT_EQ(bound, 299);
  EXPECT_EQ(smp_processor_id(), 299);
  EXPECT_EQ(vorn_sched_setaffinity(298), -1);
  EXPECT_ONE_MESSAGE(EVLOG_ERROR, "vorn_sched.c", "vorn_sched_setaffinity",
                     "set affinity fail, errno:22");
  EXPECT_EQ(vorn_sched_setaffinity(300), -1);
  EXPECT_ONE_MESSAGE(EVLOG_ERROR, "vorn_sched.c", "vorn_sched_setaffinity",
                     "cpu num overstep, current only has 300 cpu");
  EXPECT_EQ(smp_processor_id(), 299);
}
