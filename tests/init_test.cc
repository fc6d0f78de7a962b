// test-runs: library_unloader
// Tests start-up and shutdown.
// SPDX-License-Identifier: Apache-2.0
#include "vorn_init.h"

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "support/log_capture.hpp"
#include "support/scratch.hpp"
#include "support/threads.hpp"
#include "vorn_affinity.h"
#include "vorn_cpufreq.h"
#include "vorn_log.h"
#include "vorn_process.h"
#include "vorn_symbol.h"
#include "vorn_time.h"

namespace {

using Texts = std::vector<std::string>;

int required_result = 0; // of a step that must succeed
int optional_result = 0; // of a later one that may fail

} // namespace

// Replace two steps of the start-up.
int vorn_cpufreq_init() { return required_result; }
int vorn_affinity_init() { return optional_result; }

namespace {

std::ptrdiff_t threads_named(const std::string &name) {
  const std::filesystem::directory_iterator tasks("/proc/self/task");
  return std::count_if(begin(tasks), end(tasks), [&](const auto &task) {
    return scratch::read_file(task.path() / "comm") == name + "\n";
  });
}

// A machine without the jiffies driver starts, and says what is missing.
TEST(Init, ConcurrentCallersStartAndStopTheLibraryOnce) {
  // another process that samples the CPUs would have this one's thread log that it may not
  if (!scratch::cover_directory("/dev/shm")) GTEST_SKIP() << scratch::kNoMounts;
  capture::set_level(6); // workers log when they come
  for (int round = 0; round < 20; ++round) {
    run_threads(4, [](int) { EXPECT_EQ(vorn_Init(), 0); });
    const Texts texts = capture::take_lines();
    ASSERT_EQ(texts.front(), "Vorn init start.");
    ASSERT_EQ(std::count(texts.begin(), texts.end(), "E Get jiffies usr addr failed."), 1);
    ASSERT_EQ(texts.back(), "Vorn init end ret 0.");
    ASSERT_EQ(std::count(texts.begin(), texts.end(), texts.back()), 1);
    EXPECT_NE(vorn_time_getnanosec(), 0u);
    run_threads(4, [](int) { vorn_destory(); });
    ASSERT_EQ(capture::take_lines(), (Texts{"Vorn destroy start.", "Vorn destroy end."}));
  }
  EXPECT_STREQ(vorn_pid_get_name(381), "OSAX"); // built again on demand
}

TEST(Init, OnlyARequiredStepThatFailsEndsTheStart) {
  if (!scratch::cover_directory("/dev/shm")) GTEST_SKIP() << scratch::kNoMounts;
  const auto function = reinterpret_cast<uintptr_t>(vorn_Init);
  char name[32];
  const auto logged = [] { // without the lines of workers and of the missing driver
    Texts texts = capture::take_lines();
    std::erase_if(texts, [](const std::string &text) {
      return text.find(" initialize failed.") == text.npos && text.find(" end") == text.npos;
    });
    return texts;
  };
  required_result = optional_result = 7;
  EXPECT_EQ(vorn_Init(), -1);
  EXPECT_EQ(logged(), (Texts{"E Vorn cpufreq initialize failed.", "Vorn init end ret 7."}));
  vorn_destory(); // has nothing to stop
  EXPECT_EQ(logged(), Texts{});
  required_result = 0;
  EXPECT_EQ(vorn_Init(), 0);
  EXPECT_EQ(logged(), (Texts{"E Vorn affinity initialize failed.", "Vorn init end ret 0."}));
  EXPECT_EQ(vorn_symbol_addr_to_string(function, name, sizeof name), 0);
  EXPECT_TRUE(soon([] { return threads_named("vorn_schedwork") != 0; }));
  vorn_destory();
  EXPECT_EQ(vorn_symbol_addr_to_string(function, name, sizeof name), -1);
  EXPECT_TRUE(soon([] { return threads_named("vorn_schedwork") == 0; }));
}

TEST(Init, LibraryStaysLoadedAfterDlclose) {
  EXPECT_EQ(std::system(VORN_TEST_EMULATOR " " VORN_TEST_PROGRAM " >/dev/null 2>&1"), 0);
}

} // namespace

// A logging library whose functions take more than the default one's.
static std::vector<unsigned long> seen;

// NOLINTBEGIN: the declarations of evlog.h do not bind another logging library
extern "C" int fake_level_set(unsigned long a, unsigned long b, unsigned long c, unsigned long d,
                              unsigned long e, unsigned long f) __asm__("evlog_loglevel_set");
// NOLINTEND
int fake_level_set(unsigned long a, unsigned long b, unsigned long c, unsigned long d,
                   unsigned long e, unsigned long f) {
  seen = {a, b, c, d, e, f};
  return 18;
}

TEST(Log, PassesFullWordsAndResultsUnchanged) {
  const unsigned long w = 0x123456789ABCDEF0;
  EXPECT_EQ(vorn_log_level_set(w, w + 1, w + 2, w + 3, w + 4, w + 5), 18);
  EXPECT_EQ(seen, (std::vector{w, w + 1, w + 2, w + 3, w + 4, w + 5}));
}
