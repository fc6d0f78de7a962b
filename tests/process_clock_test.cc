// test-wraps: clock_gettime
#include "vorn_process.h"

#include <cerrno>
#include <ctime>
#include <gtest/gtest.h>

#include "evlog.h"
#include "support/log_capture.hpp"

static bool clock_works = false;

extern "C" int __real_clock_gettime(clockid_t clock, timespec *out);
extern "C" int __wrap_clock_gettime(clockid_t clock, timespec *out) {
  if (clock_works) return __real_clock_gettime(clock, out);
  errno = EPERM;
  return -1;
}

TEST(ProcessVersion, StaysZeroWhenTheClockFailsOnce) {
  EXPECT_EQ(ps_get_version(), 0u);
  EXPECT_ONE_RECORD(EVLOG_INFO, "vorn_process.c", "ps_get_version",
                    "Clock_gettime fail ret:-1 errno:1");
  clock_works = true;
  EXPECT_EQ(ps_get_version(), 0u);
  EXPECT_NO_RECORD();
}
