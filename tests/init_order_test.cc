// Every step of the start-up, replaced by a note of its call: a process may put its own in front.
#include <gtest/gtest.h>
#include <string>
#include <unistd.h>
#include <vector>

#include "evlog.h"
#include "support/log_capture.hpp"
#include "vorn_affinity.h"
#include "vorn_cpufreq.h"
#include "vorn_cpumask.h"
#include "vorn_crc.h"
#include "vorn_init.h"
#include "vorn_jiffies.h"
#include "vorn_process.h"
#include "vorn_sched.h"
#include "vorn_smp.h"
#include "vorn_symbol.h"
#include "vorn_thrd.h"
#include "vorn_time.h"

static std::vector<std::string> steps;
static uint64_t time_result = 0;
static int optional_result = 0;

static int note(const char *step) {
  steps.push_back(step);
  return 0;
}

int vorn_glibc_init() { return note("unwinder"); }
int jiffies_usr_main() { return note("jiffies source"); }
void jiffies_Init() { note("jiffies"); }
void pid_init_names() { note("names"); }
void vorn_pid_set_name(unsigned int id, const char *name) {
  note((std::to_string(id) + " " + name).c_str());
}
void vorn_thrd_setpid_accl(pid_t pid) { note(pid == getpid() ? "process id" : "wrong id"); }
int vorn_sched_init() { return note("sched") + optional_result; }
int cpumask_init() { return note("masks") + optional_result; }
int globalCpuNum_init() { return note("counts") + optional_result; }
int vorn_cpufreq_init() { return note("cpufreq"); }
uint64_t vorn_gettime_init() {
  note("time");
  return time_result;
}
int vorn_thrd_module_init() { return note("threads"); }
int vorn_affinity_init() { return note("affinity") + optional_result; }
int vorn_symbol_init() { return note("symbols"); }
void vorn_crc32_init() { note("crc"); }
void pid_destroy_names() { note("clear names"); }
void vorn_symbol_fini() { note("release symbols"); }

namespace {

using Steps = std::vector<std::string>;

TEST(InitOrder, StepsRunInOrderAndAreUndoneInOrder) {
  ASSERT_EQ(vorn_Init(), 0);
  EXPECT_EQ(steps, (Steps{"unwinder", "jiffies source", "jiffies", "names", "381 OSAX",
                          "process id", "sched", "masks", "counts", "cpufreq", "time", "threads",
                          "affinity", "symbols", "crc"}));
  EXPECT_EQ(capture::take_texts(), (Steps{"Vorn init start.", "Vorn init end ret 0."}));
  steps.clear();
  vorn_destory();
  EXPECT_EQ(steps, (Steps{"clear names", "release symbols"}));
  EXPECT_EQ(capture::take_texts(), (Steps{"Vorn destroy start.", "Vorn destroy end."}));
}

TEST(InitOrder, SomeStepsMayFail) {
  optional_result = -1;
  ASSERT_EQ(vorn_Init(), 0);
  EXPECT_EQ(steps.back(), "crc");
  const auto records = capture::take();
  ASSERT_EQ(records.size(), 3u);
  EXPECT_EQ(records[1].level, EVLOG_ERROR);
  EXPECT_EQ(records[1].function, "vorn_init_inner");
  EXPECT_EQ(records[1].text, "Vorn affinity initialize failed.");
}

TEST(InitOrder, NothingFollowsAFailedStep) {
  time_result = 5;
  EXPECT_EQ(vorn_Init(), -1);
  EXPECT_EQ(steps.back(), "time");
  EXPECT_EQ(capture::take_texts(),
            (Steps{"Vorn init start.", "Vorn time initialize failed.", "Vorn init end ret 5."}));
}

} // namespace
