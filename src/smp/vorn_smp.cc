// Counts the CPUs of the machine.
// SPDX-License-Identifier: Apache-2.0
#include "vorn_smp.h"

#include <cerrno>
#include <unistd.h>

#include "base/atomic_word.hpp"
#include "base/log.hpp"
#include "base/once.hpp"
#include "vorn_sysinfo.h"

namespace vorn::smp {
namespace {

constexpr long kMostCpus = 256;

constinit Once counted{OncePolicy::kRetry};

// Another thread may call num_config_cpus at the same time.
void set(uint32_t &count, uint32_t value) {
  atomic_word(count).store(value, std::memory_order_relaxed);
}
uint32_t get(const uint32_t &count) { return atomic_word(count).load(std::memory_order_relaxed); }

// Accepts a count above kMostCpus, unlike num_config_cpus.
int count_cpus() {
  set(g_onlineCpuNum, vorn_sysinfo_cpu_num());
  const long configured = sysconf(_SC_NPROCESSORS_CONF);
  if (configured >= 0) {
    set(g_configCpuNum, static_cast<uint32_t>(configured));
  } else {
    VORN_LOG_AS("globalCpuNum_init", kError, "Vorn_smp getting cpu num failed errno=%d.", errno);
  }
  return get(g_onlineCpuNum) != 0 && get(g_configCpuNum) != 0 ? 0 : -1;
}

} // namespace
} // namespace vorn::smp

using namespace vorn::smp;

uint32_t g_configCpuNum;
uint32_t g_onlineCpuNum;

int globalCpuNum_init() {
  counted.run(count_cpus);
  return 0;
}

uint32_t num_online_cpus() { return vorn_sysinfo_cpu_num(); }

uint32_t num_config_cpus() {
  const uint32_t known = get(g_configCpuNum);
  if (known != 0) return known;
  const long count = sysconf(_SC_NPROCESSORS_CONF);
  if (count < 1 || count > kMostCpus)
    return VORN_FAIL(0u, "Vorn_smp getting cpu num failed ret %ld errno=%d.", count, errno);
  set(g_configCpuNum, static_cast<uint32_t>(count));
  return static_cast<uint32_t>(count);
}
