// test-wraps: select nanosleep sched_yield
#include "vorn_sched.h"

#include <ctime>
#include <gtest/gtest.h>
#include <sys/select.h>

namespace {

timeval g_timeout;
timespec g_sleep;
int g_calls = 0;

} // namespace

extern "C" {

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
}

// An interrupted sleep is not tried again: each is one call.
TEST(Sched, SleepsAndYieldsAreOneCallOfTheSystem) {
  vorn_usleep(1500000);
  EXPECT_EQ(g_timeout.tv_sec, 1);
  EXPECT_EQ(g_timeout.tv_usec, 500000);
  vorn_usleep(4294967295U);
  EXPECT_EQ(g_timeout.tv_sec, 4294);
  EXPECT_EQ(g_timeout.tv_usec, 967295);
  vorn_schedule();
  EXPECT_EQ(g_sleep.tv_sec, 0);
  EXPECT_EQ(g_sleep.tv_nsec, 1000000);
  EXPECT_EQ(g_calls, 3);
  EXPECT_EQ(vorn_yield(), 7);
}
