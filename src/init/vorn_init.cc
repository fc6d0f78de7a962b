// Starts and stops the library: runs the start-up steps in the order of their dependencies.
// SPDX-License-Identifier: Apache-2.0
#include "vorn_init.h"

#include <execinfo.h>
#include <unistd.h>

#include "base/log.hpp"
#include "base/once.hpp"
#include "vorn_affinity.h"
#include "vorn_cpufreq.h"
#include "vorn_cpuinfo.h"
#include "vorn_cpumask.h"
#include "vorn_crc.h"
#include "vorn_jiffies.h"
#include "vorn_process.h"
#include "vorn_sched.h"
#include "vorn_sched_work.h"
#include "vorn_smp.h"
#include "vorn_symbol.h"
#include "vorn_sysinfo.h"
#include "vorn_thrd.h"
#include "vorn_time.h"
#include "vorn_timer.h"

namespace vorn::init {
namespace {

constexpr int kUnwinderDepth = 3;

constinit Once started{OncePolicy::kRetry};

int start_time() { return static_cast<int>(vorn_gettime_init()); }

enum class Need { kRequired, kOptional };

struct Step {
  int (*run)();
  const char *failure; // nullptr if the step logs its own message
  Need need;
};

// In the order of their dependencies. The first required step that fails ends the start-up.
constexpr Step kSteps[] = {
    {sysinfo_init, "Vorn sysinfo initialize failed.", Need::kRequired},
    {cpuinfo_init, "Vorn cpuinfo initialize failed.", Need::kRequired},
    {sched_work_init, "Vorn schedWork initialize failed.", Need::kRequired},
    {cpumask_init, nullptr, Need::kOptional},
    {globalCpuNum_init, nullptr, Need::kOptional},
    {vorn_cpufreq_init, "Vorn cpufreq initialize failed.", Need::kRequired},
    {start_time, "Vorn time initialize failed.", Need::kRequired},
    {vorn_thrd_module_init, nullptr, Need::kOptional},
    {vorn_affinity_init, "Vorn affinity initialize failed.", Need::kOptional},
    {vorn_timer_module_init, "Vorn timer initialize failed.", Need::kRequired},
};

int vorn_init_inner() {
  vorn_glibc_init();
  // A machine without the jiffies driver starts too, with ticks from the time base.
  if (jiffies_usr_main() != 0) VORN_LOG(kError, "Get jiffies usr addr failed.");
  jiffies_Init();
  pid_init_names();
  vorn_pid_set_name(kModuleId, VORN_MODULE_NAME);
  vorn_thrd_setpid_accl(getpid());
  vorn_sched_init();
  for (const Step &step : kSteps) {
    const int result = step.run();
    if (result == 0) continue;
    if (step.failure != nullptr) VORN_LOG(kError, "%s", step.failure);
    if (step.need == Need::kRequired) return result;
  }
  vorn_symbol_init();
  vorn_crc32_init();
  return 0;
}

int start() {
  VORN_LOG_AS("vorn_Init", kInfo, "Vorn init start.");
  const int result = vorn_init_inner();
  VORN_LOG_AS("vorn_Init", kInfo, "Vorn init end ret %d.", result);
  return result;
}

void stop() {
  VORN_LOG_AS("vorn_destory", kInfo, "Vorn destroy start.");
  pid_destroy_names();
  sysinfo_exit();
  sched_work_destroy();
  vorn_symbol_fini();
  VORN_LOG_AS("vorn_destory", kInfo, "Vorn destroy end.");
}

} // namespace
} // namespace vorn::init

using namespace vorn::init;

int vorn_Init() { return started.run(start) == 0 ? 0 : -1; }

void vorn_destory() { started.reset(stop); }

int vorn_glibc_init() {
  void *frames[kUnwinderDepth];
  return backtrace(frames, kUnwinderDepth);
}
