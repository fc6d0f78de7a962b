// test-wraps: select nanosleep sched_yield sysconf sched_setaffinity vorn_time_getnanosec
#include "vorn_sched.h"

#include <cerrno>
#include <ctime>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/select.h>
#include <unistd.h>

#include "evlog.h"
#include "support/log_capture.hpp"
#include "vorn_thrd.h"

namespace {

timeval g_timeout;
timespec g_sleep;
int g_calls = 0;
uint64_t g_clock = 0;
int g_bound = -1;

} // namespace

extern "C" {

long __real_sysconf(int name);

int __wrap_select(int descriptors, fd_set *read, fd_set *write, fd_set *other, timeval *timeout) {
  EXPECT_TRUE(descriptors == 0 && read == nullptr && write == nullptr && other == nullptr);
  g_timeout = *timeout;
  ++g_calls;
  return -1;
}

int __wrap_nanosleep(const timespec *time, timespec *) {
  g_sleep = *time;
  ++g_calls;
  return -1;
}

int __wrap_sched_yield() { return 7; }

uint64_t __wrap_vorn_time_getnanosec() { return g_clock += 400000; }

long __wrap_sysconf(int name) { return name == _SC_NPROCESSORS_CONF ? 300 : __real_sysconf(name); }

int __wrap_sched_setaffinity(pid_t, size_t size, const cpu_set_t *set) {
  EXPECT_EQ(size, 128u);
  EXPECT_EQ(CPU_COUNT(set), 1);
  for (g_bound = 0; !CPU_ISSET(g_bound, set);)
    ++g_bound;
  errno = EINVAL;
  return g_bound == 298 ? -1 : 0;
}
}

// An interrupted sleep is not tried again: each is one call.
TEST(Sched, SleepsAndYieldsAreOneCallOfTheSystem) {
  struct Row {
    void (*sleep)(unsigned int);
    unsigned int count;
    long seconds;
    long microseconds;
  };
  for (const Row &row :
       {Row{vorn_10msleep, 250, 2, 500000}, Row{vorn_msleep, 1007, 1, 7000},
        Row{vorn_usleep, 1500000, 1, 500000}, Row{vorn_usleep, 4294967295U, 4294, 967295}}) {
    row.sleep(row.count);
    EXPECT_EQ(g_timeout.tv_sec, row.seconds);
    EXPECT_EQ(g_timeout.tv_usec, row.microseconds);
  }
  vorn_schedule();
  EXPECT_EQ(g_sleep.tv_sec, 0);
  EXPECT_EQ(g_sleep.tv_nsec, 1000000);
  EXPECT_EQ(g_calls, 5);
  EXPECT_EQ(vorn_yield(), 7);
}

TEST(Sched, DelayIsLongerThanAskedFor) {
  EXPECT_EQ(vorn_mdelay(0), 400000u);
  EXPECT_EQ(vorn_mdelay(2), 2400000u);
}

TEST(Sched, NameIsNoFormat) {
  ASSERT_EQ(vorn_thrd_setcurthreadinfo(), 0);
  EXPECT_EQ(vorn_set_process_name("100%s"), 0);
  EXPECT_STREQ(vorn_thrd_getname(), "100%s");
  EXPECT_EQ(vorn_thrd_clearcurthreadinfo(), 0);
}

TEST(Sched, BindsToOneConfiguredCpu) {
  EXPECT_EQ(vorn_sched_setaffinity(299), 0);
  EXPECT_EQ(g_bound, 299);
  EXPECT_EQ(smp_processor_id(), 299);
  EXPECT_EQ(vorn_sched_setaffinity(298), -1);
  EXPECT_ONE_RECORD(EVLOG_ERROR, "vorn_sched.c", "vorn_sched_setaffinity",
                    "set affinity fail, errno:22");
  EXPECT_EQ(vorn_sched_setaffinity(300), -1);
  EXPECT_ONE_RECORD(EVLOG_ERROR, "vorn_sched.c", "vorn_sched_setaffinity",
                    "cpu num overstep, current only has 300 cpu");
  EXPECT_EQ(smp_processor_id(), 299);
}
