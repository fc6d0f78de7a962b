// Every step of the start-up, replaced by a note of its call: a process may put its own in front.
// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>
#include <string>
#include <unistd.h>
#include <vector>

#include "support/log_capture.hpp"
#include "vorn.h"

static std::vector<std::string> steps;
static int sysinfo_result = 0;
static int cpuinfo_result = 0;
static int work_result = 0;
static int cpufreq_result = 0;
static int time_result = 0;
static int timer_result = 0;
static int optional_result = 0;
static int jiffies_result = 0;

static int note(const std::string &step, int result = 0) {
  steps.push_back(step);
  return result;
}

int vorn_glibc_init() { return note("unwinder"); }
int jiffies_usr_main() { return note("jiffies source", jiffies_result); }
void jiffies_Init() { note("jiffies"); }
void pid_init_names() { note("names"); }
void vorn_pid_set_name(unsigned int id, const char *name) { note(std::to_string(id) + " " + name); }
void vorn_thrd_setpid_accl(pid_t pid) { note(pid == getpid() ? "process id" : "wrong id"); }
int vorn_sched_init() { return note("sched", optional_result); }
int sysinfo_init() { return note("usage", sysinfo_result); }
int cpuinfo_init() { return note("cpus", cpuinfo_result); }
int sched_work_init() { return note("work", work_result); }
int cpumask_init() { return note("masks", optional_result); }
int globalCpuNum_init() { return note("counts", optional_result); }
int vorn_cpufreq_init() { return note("cpufreq", cpufreq_result); }
uint64_t vorn_gettime_init() { return static_cast<uint64_t>(note("time", time_result)); }
int vorn_thrd_module_init() { return note("threads", optional_result); }
int vorn_affinity_init() { return note("affinity", optional_result); }
int vorn_timer_module_init() { return note("timer", timer_result); }
int vorn_symbol_init() { return note("symbols", optional_result); }
void vorn_crc32_init() { note("crc"); }
void pid_destroy_names() { note("clear names"); }
void sysinfo_exit() { note("end usage"); }
int sched_work_destroy() { return note("end work"); }
void vorn_symbol_fini() { note("release symbols"); }

namespace {

using Steps = std::vector<std::string>;

// What was logged: "level function: text".
Steps records() {
  Steps all;
  for (const auto &record : capture::take())
    all.push_back(std::to_string(record.level) + " " + record.function + ": " + record.text);
  return all;
}

TEST(InitOrder, StepsRunInOrderAndAreUndoneInOrder) {
  ASSERT_EQ(vorn_Init(), 0);
  EXPECT_EQ(records(),
            (Steps{"6 vorn_Init: Vorn init start.", "6 vorn_Init: Vorn init end ret 0."}));
  ASSERT_EQ(vorn_Init(), 0); // does nothing
  EXPECT_EQ(steps, (Steps{"unwinder", "jiffies source", "jiffies", "names", "381 OSAX",
                          "process id", "sched", "usage", "cpus", "work", "masks", "counts",
                          "cpufreq", "time", "threads", "affinity", "timer", "symbols", "crc"}));
  steps.clear();
  vorn_destory();
  vorn_destory();
  EXPECT_EQ(steps, (Steps{"clear names", "end usage", "end work", "release symbols"}));
  EXPECT_EQ(records(),
            (Steps{"6 vorn_destory: Vorn destroy start.", "6 vorn_destory: Vorn destroy end."}));
}

TEST(InitOrder, AFailedStepEndsTheStartUnlessItMayFail) {
  const struct {
    int *step;
    int result;
    std::string last_step;
    std::string failure;
    std::string end;
  } rows[] = {{&sysinfo_result, -1, "usage", "Vorn sysinfo initialize failed.", "7"},
              {&cpuinfo_result, -1, "cpus", "Vorn cpuinfo initialize failed.", "7"},
              {&work_result, -1, "work", "Vorn schedWork initialize failed.", "7"},
              {&cpufreq_result, -1, "cpufreq", "Vorn cpufreq initialize failed.", "7"},
              {&time_result, -1, "time", "Vorn time initialize failed.", "7"},
              {&timer_result, -1, "timer", "Vorn timer initialize failed.", "7"},
              {&jiffies_result, 0, "crc", "Get jiffies usr addr failed.", "0"},
              {&optional_result, 0, "crc", "Vorn affinity initialize failed.", "0"}};
  for (const auto &row : rows) {
    steps.clear();
    *row.step = 7;
    EXPECT_EQ(vorn_Init(), row.result);
    *row.step = 0;
    EXPECT_EQ(steps.front(), "unwinder"); // all of them again
    EXPECT_EQ(steps.back(), row.last_step);
    EXPECT_EQ(records(),
              (Steps{"6 vorn_Init: Vorn init start.", "3 vorn_init_inner: " + row.failure,
                     "6 vorn_Init: Vorn init end ret " + row.end + "."}));
    if (row.result != 0) vorn_destory(); // not started: nothing to undo, nothing to say
    EXPECT_NO_RECORD();
    if (row.result != 0) continue;
    vorn_destory();
    capture::take();
  }
}

} // namespace
