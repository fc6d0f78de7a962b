// Binds threads to CPUs.
// SPDX-License-Identifier: Apache-2.0
#define VORN_FILE "vorn_thrd.c"
#include <algorithm>
#include <cerrno>
#include <cstring>

#include "base/log.hpp"
#include "base/once.hpp"
#include "thread/vorn_thrd.hpp"
#include "vorn_smp.h"

namespace vorn::thread {
namespace {

static_assert(sizeof(cpu_set_t) == VORN_THRD_CPUSET_SIZE);

constexpr std::size_t kCpus = VORN_THRD_CPU_COUNT;

std::size_t usable_cpus() {
  const std::size_t configured = num_config_cpus();
  return configured == 0 ? kCpus : std::min(configured, kCpus);
}

// Returns the bytes of a caller's set, which must be long enough for the configured CPUs.
cpu_set_t usable_part(const unsigned char *cpuset) {
  cpu_set_t set;
  CPU_ZERO(&set);
  std::memcpy(&set, cpuset, (usable_cpus() + 7) / 8);
  return set;
}

constinit Once all_cpus_known{OncePolicy::kLatch};
cpu_set_t all_cpus; // written once, under the flag

int fill_all_cpus() {
  const std::size_t count = usable_cpus();
  for (std::size_t cpu = 0; cpu < count; ++cpu)
    CPU_SET(cpu, &all_cpus);
  return 0;
}

// The kernel answers this in less than half of the time that it takes to set the CPUs.
bool has_all_cpus() {
  cpu_set_t set;
  return pthread_getaffinity_np(pthread_self(), sizeof set, &set) == 0 &&
         CPU_EQUAL(&set, &all_cpus);
}

void remember(pthread_t thread, const cpu_set_t &set) {
  if (t_record != nullptr && pthread_equal(thread, pthread_self()) != 0)
    std::memcpy(t_record->cpuset, &set, sizeof set);
}

} // namespace
} // namespace vorn::thread

using namespace vorn::thread;

int vorn_thrd_setbindcpu(pthread_t thread, const unsigned char *cpuset) {
  if (cpuset == nullptr) return VORN_FAIL(-1, "Cpu set is null.");
  const cpu_set_t set = usable_part(cpuset);
  if (CPU_COUNT(&set) == 0) return 0;
  const int result = pthread_setaffinity_np(thread, sizeof set, &set);
  if (result != 0)
    return VORN_FAIL(-1, "Set thread(0x%lx) affinity bind cpu failed(%d).", thread, result);
  remember(thread, set);
  return 0;
}

int vorn_thrd_bindAllCfgCpu() {
  all_cpus_known.run(fill_all_cpus);
  const int result =
      has_all_cpus() ? 0 : pthread_setaffinity_np(pthread_self(), sizeof all_cpus, &all_cpus);
  if (result != 0) return VORN_FAIL(-1, "Create thread failed, error %d.", result);
  remember(pthread_self(), all_cpus);
  return 0;
}

int vorn_thrd_getbindcpu(pthread_t thread, cpu_set_t *set) {
  if (set == nullptr) return VORN_FAIL(-1, "Cpu set is null.");
  CPU_ZERO(set);
  const int result = pthread_getaffinity_np(thread, sizeof *set, set);
  if (result != 0)
    return VORN_FAIL(-1, "Get thread(%llu) affinity bind cpu failed(%d).",
                     static_cast<unsigned long long>(thread), result);
  return 0;
}

int vorn_thrd_getbindcpu_bypid(pid_t pid, cpu_set_t *set) {
  if (set == nullptr) return VORN_FAIL(-1, "Cpu set is null.");
  CPU_ZERO(set);
  const int result = sched_getaffinity(pid, sizeof *set, set);
  if (result == 0) return 0;
  return VORN_FAIL(-1, "Get thread(%llu) affinity bind cpu by pid failed(%d), errno(%d:%s).",
                   static_cast<unsigned long long>(pid), result, errno, std::strerror(errno));
}
