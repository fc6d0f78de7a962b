// Implements sleeps, yields, and the calls that name the calling thread and bind it to a CPU.
// SPDX-License-Identifier: Apache-2.0
#include "vorn_sched.h"

#include <ctime>
#include <sched.h>
#include <sys/select.h>
#include <unistd.h>

#include "arch/pause.hpp"
#include "base/log.hpp"
#include "vorn_thrd.h"
#include "vorn_time.h"

namespace vorn::sched {
namespace {

static_assert(sizeof(cpu_set_t) == VORN_THRD_CPUSET_SIZE);

// Sleeps for count units; a second has per_second units.
void sleep_for(unsigned int count, unsigned int per_second) {
  timeval timeout{count / per_second, count % per_second * (1000000 / per_second)};
  select(0, nullptr, nullptr, nullptr, &timeout);
}

} // namespace
} // namespace vorn::sched

using namespace vorn::sched;

void vorn_10msleep(unsigned int count) { sleep_for(count, 100); }

void vorn_msleep(unsigned int milliseconds) { sleep_for(milliseconds, 1000); }

void vorn_usleep(unsigned int microseconds) { sleep_for(microseconds, 1000000); }

void vorn_schedule() {
  const timespec millisecond{0, 1000000};
  nanosleep(&millisecond, nullptr);
}

int vorn_yield() { return sched_yield(); }

uint64_t vorn_mdelay(unsigned int milliseconds) {
  vorn_gettime_init(); // with a stopped clock, the caller would loop forever
  const auto wanted = static_cast<uint64_t>(milliseconds * 1e6);
  const uint64_t start = vorn_time_getnanosec();
  uint64_t elapsed = 0;
  while (elapsed <= wanted) {
    vorn::arch::pause();
    elapsed = vorn_time_getnanosec() - start;
  }
  return elapsed;
}

int vorn_set_process_name(const char *name) {
  vorn_thrd_setname(name == nullptr ? nullptr : "%s", name);
  return 0;
}

int vorn_sched_setaffinity(unsigned long cpu) {
  const long configured = sysconf(_SC_NPROCESSORS_CONF);
  if (cpu >= static_cast<unsigned long>(configured))
    return VORN_FAIL(-1, "cpu num overstep, current only has %ld cpu", configured);
  cpu_set_t set;
  CPU_ZERO(&set);
  CPU_SET(cpu, &set);
  if (sched_setaffinity(0, sizeof set, &set) != 0)
    return VORN_FAIL(-1, "set affinity fail, errno:%d", errno);
  vorn_thrd_core_set(static_cast<int>(cpu));
  return 0;
}
