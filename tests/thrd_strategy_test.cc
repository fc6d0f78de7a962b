// test-wraps: setpriority pthread_setaffinity_np sysconf
// Tests thread strategies and CPU binding.
// SPDX-License-Identifier: Apache-2.0
#include "vorn_thrd.h"

#include <cerrno>
#include <cstring>
#include <gtest/gtest.h>
#include <string>
#include <sys/resource.h>
#include <unistd.h>
#include <vector>

#include "evlog.h"
#include "support/log_capture.hpp"
#include "support/shown.hpp"
#include "vorn_cpu.h"
#include "vorn_jiffies.h"

// The requests to the system. They are not carried out, so the test needs no rights and no CPUs.
static std::vector<int> prios;
static std::vector<std::string> bindings; // the first four bytes of each
static int prio_error = 0;
static int bind_error = 0;
static long configured = 18;

extern "C" {
int __wrap_setpriority(int which, id_t who, int prio) {
  EXPECT_EQ(which, PRIO_PROCESS);
  EXPECT_EQ(who, 0u);
  prios.push_back(prio);
  errno = prio_error;
  return prio_error == 0 ? 0 : -1;
}

int __wrap_pthread_setaffinity_np(pthread_t, std::size_t size, const cpu_set_t *set) {
  EXPECT_EQ(size, 128u);
  const auto *bytes = reinterpret_cast<const unsigned char *>(set);
  char text[16];
  snprintf(text, sizeof text, "%02x%02x%02x%02x", bytes[0], bytes[1], bytes[2], bytes[3]);
  bindings.push_back(text);
  return bind_error;
}

long __real_sysconf(int name);
long __wrap_sysconf(int name) {
  return name == _SC_NPROCESSORS_CONF ? configured : __real_sysconf(name);
}
}

namespace {

using Prios = std::vector<int>;
using Bindings = std::vector<std::string>;

struct Strategy : testing::Test {
  void SetUp() override {
    ASSERT_EQ(vorn_thrd_setcurthreadinfo(), 0);
    vorn_get_jiffies();  // the first use of the rate limiter's clock logs a message
    vorn_cpum_init("/"); // no partitions
    capture::take();
  }
  void TearDown() override { vorn_thrd_clearcurthreadinfo(); }
  static int recorded() { return vorn_thrd_currentthreadinfo()->strategy; }
};

TEST_F(Strategy, IsItsOwnElseTheDefaultElseNone) {
  EXPECT_EQ(vorn_setCurThreadStrategy(3), 0);
  EXPECT_EQ(recorded(), VORN_THRD_STRATEGY_NONE);
  EXPECT_TRUE(prios.empty() && bindings.empty());
  EXPECT_EQ(vorn_setCurThreadStrategy(9), 0);
  EXPECT_ONE_MESSAGE(EVLOG_INFO, "vorn_thrd.c", "vorn_getValidThreadAttr",
                     "Invalid thread strategy 9.");

  const vorn_thrd_strategy_s usual = {static_cast<uint32_t>(-5), "0-3,9"};
  const vorn_thrd_strategy_s busy = {10, "17"};
  EXPECT_EQ(vorn_initThreadStrategy(0, &usual), 0);
  EXPECT_EQ(vorn_setCurThreadStrategy(2), 0);
  EXPECT_EQ(recorded(), 2);
  EXPECT_EQ(vorn_initThreadStrategy(2, &busy), 0);
  EXPECT_EQ(vorn_setCurThreadStrategy(2), 0);
  EXPECT_EQ(prios, (Prios{-5, 10}));
  EXPECT_EQ(bindings, (Bindings{"0f020000", "00000200"}));
}

TEST_F(Strategy, BadSettingsMakeItInvalid) {
  const vorn_thrd_strategy_s good = {1, "1"};
  const vorn_thrd_strategy_s bad = {1, "x"};
  EXPECT_EQ(vorn_initThreadStrategy(6, &good), -1);
  EXPECT_EQ(capture::take_lines(), (std::vector<std::string>{"Invalid thread strategy 6."}));
  EXPECT_EQ(vorn_initThreadStrategy(4, &good), 0);
  EXPECT_EQ(vorn_initThreadStrategy(4, &bad), -1);
  EXPECT_EQ(capture::take_lines().back(), "Invalid cpu mask info:x.");
  EXPECT_EQ(vorn_setCurThreadStrategy(4), 0);
  EXPECT_TRUE(prios.empty() && bindings.empty());
  EXPECT_EQ(vorn_initThreadStrategy(4, nullptr), -1);
}

TEST_F(Strategy, ErrorOfTheSystemIsReported) {
  const vorn_thrd_strategy_s usual = {0, "0"};
  vorn_initThreadStrategy(0, &usual);
  prio_error = EACCES;
  EXPECT_EQ(vorn_setCurThreadStrategy(1), -1);
  EXPECT_EQ(capture::take_lines(), (std::vector<std::string>{"W Set thread prio fail -1, errno 13.",
                                                             "Set thread strategy 1 fail."}));
  EXPECT_EQ(bindings, Bindings{"01000000"}) << "without its nice value, but bound";
  prio_error = 0;
  bind_error = EINVAL;
  EXPECT_EQ(vorn_setCurThreadStrategy(1), -1);
  EXPECT_EQ(recorded(), VORN_THRD_STRATEGY_NONE);
  char text[64];
  snprintf(text, sizeof text, "E Set thread(0x%lx) affinity bind cpu failed(22).", pthread_self());
  EXPECT_EQ(capture::take_lines(), (std::vector<std::string>{text, "Set thread strategy 1 fail."}));
}

TEST_F(Strategy, PriorityScale) {
  for (unsigned int level = 0; level <= 5; ++level)
    vorn_thrd_setprio(level);
  EXPECT_EQ(prios, (Prios{-20, -15, 0, 10, 15}));
}

TEST_F(Strategy, BindingReadsNoMoreThanTheConfiguredCpusTake) {
  const unsigned char none[3] = {};
  const unsigned char some[4] = {0, 0, 2, 0xFF}; // 18 CPUs: three bytes
  EXPECT_EQ(vorn_thrd_setbindcpu(pthread_self(), none), 0);
  EXPECT_EQ(vorn_thrd_setbindcpu(pthread_self(), some), 0);
  EXPECT_EQ(vorn_thrd_bindAllCfgCpu(), 0);
  EXPECT_EQ(vorn_setCurThreadBind("2"), 0);
  EXPECT_EQ(vorn_thrd_setbindcpu(pthread_self() + 1, some), 0) << "of another thread";
  EXPECT_EQ(bindings, (Bindings{"00000200", "ffff0300", "04000000", "00000200"}));
  EXPECT_EQ(vorn_thrd_currentthreadinfo()->cpuset[0], 4u);
  capture::take();
  EXPECT_EQ(vorn_setCurThreadBind(nullptr), -1);
  EXPECT_EQ(vorn_thrd_setbindcpu(pthread_self(), nullptr), -1);
  EXPECT_EQ(vorn_thrd_getbindcpu(pthread_self(), nullptr), -1);
  cpu_set_t own;
  cpu_set_t of_pid;
  EXPECT_EQ(vorn_thrd_getbindcpu(pthread_self(), &own), 0);
  EXPECT_EQ(vorn_thrd_getbindcpu_bypid(0, &of_pid), 0);
  EXPECT_TRUE(CPU_EQUAL(&own, &of_pid));
}

TEST_F(Strategy, WithoutACountAllCpusAreAWholeSet) {
  configured = -1;
  EXPECT_EQ(vorn_thrd_bindAllCfgCpu(), 0);
  EXPECT_EQ(vorn_thrd_currentthreadinfo()->cpuset[15], ~0ul);
  EXPECT_EQ(capture::take().size(), 1u) << "the system is asked once";
}

TEST_F(Strategy, TableIsShown) {
  const vorn_thrd_strategy_s background = {19, "5,64"};
  vorn_initThreadStrategy(5, &background);
  const std::string shown = shown::by(vorn_showThreadStrategyDbg);
  EXPECT_EQ(shown.substr(0, shown.find('\n')), "Strategy   Flags      Prio CpuMask");
  EXPECT_NE(shown.find("BackGroud  0x00000001 19   0x0000000000000020 0000000000000001 "),
            std::string::npos);
}

} // namespace
