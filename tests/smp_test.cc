// test-wraps: sysconf
// Tests the counts of CPUs.
// SPDX-License-Identifier: Apache-2.0
#include "vorn_smp.h"

#include <cerrno>
#include <gtest/gtest.h>
#include <unistd.h>

#include "support/log_capture.hpp"

static long configured = 8;
static long online = 6;

extern "C" {
long __real_sysconf(int name);
long __wrap_sysconf(int name) {
  errno = EINVAL;
  if (name == _SC_NPROCESSORS_CONF) return configured;
  return name == _SC_NPROCESSORS_ONLN ? online : __real_sysconf(name);
}
}

namespace {

TEST(Smp, AsksAgainForAMissingCountAndKeepsAKnownOne) {
  configured = online = -1;
  EXPECT_EQ(capture::traced(globalCpuNum_init()),
            "0; E vorn_sysinfo_cpu_num: vorn_sysinfo getting online cpu num failed errno=22."
            "; E globalCpuNum_init: Vorn_smp getting cpu num failed errno=22.");

  configured = 4;
  EXPECT_EQ(num_config_cpus(), 4u);
  configured = 5;
  EXPECT_EQ(num_config_cpus(), 4u);
  globalCpuNum_init(); // accepts the new count
  EXPECT_EQ(capture::take().size(), 1u);
  online = 3;
  configured = -1;
  globalCpuNum_init(); // has both counts, from this and the earlier call
  EXPECT_EQ(capture::take().size(), 1u);
  online = configured = 6;
  globalCpuNum_init();
  EXPECT_EQ(num_config_cpus(), 5u);
  EXPECT_EQ(num_online_cpus(), 3u);
  EXPECT_EQ(g_onlineCpuNum, 3u);
  EXPECT_NO_MESSAGE();
}

TEST(Smp, OnlyTheStartTakesMoreCpusThanAMaskHolds) {
  for (const long count : {0l, 300l, 257l}) {
    configured = count;
    EXPECT_EQ(capture::traced(static_cast<int>(num_config_cpus())),
              "0; E num_config_cpus: Vorn_smp getting cpu num failed ret " + std::to_string(count) +
                  " errno=22.");
  }
  globalCpuNum_init();
  EXPECT_EQ(num_config_cpus(), 257u);
}

} // namespace
