// Reads the frequencies that the system offers, and passes requests to the kernel module.
// SPDX-License-Identifier: Apache-2.0
#include "vorn_cpufreq.h"

#include <cstdio>
#include <cstring>

#include "base/bounded.hpp"
#include "base/kernel_request.hpp"
#include "base/log.hpp"
#include "base/system.hpp"

namespace vorn::cpufreq {
namespace {

constexpr char kPolicyRoot[] = "/sys/devices/system/cpu/cpufreq";

// Reads the frequency in kHz of an attribute of a policy. Returns false if it cannot.
bool read_khz(const char *policy, const char *attribute, unsigned long *khz) {
  char path[512];
  if (snprintf_s(path, sizeof path, sizeof path - 1, "%s/%s/%s", kPolicyRoot, policy, attribute) <
      0) {
    return false;
  }
  const Stream file = sys::open_stream(path);
  char line[64];
  return file != nullptr && sys::read_line(line, sizeof line, file) != nullptr &&
         std::sscanf(line, "%lu", khz) == 1;
}

bool log_policy(const char *policy) {
  unsigned long min_khz = 0;
  unsigned long max_khz = 0;
  if (!read_khz(policy, "cpuinfo_min_freq", &min_khz) ||
      !read_khz(policy, "cpuinfo_max_freq", &max_khz)) {
    return false;
  }
  VORN_LOG_AS("vorn_cpufreq_init", kDebug, "cpufreq %s: %lu to %lu kHz.", policy, min_khz, max_khz);
  return true;
}

} // namespace
} // namespace vorn::cpufreq

using namespace vorn::cpufreq;

int vorn_cpufreq_init() {
  const vorn::Directory root = vorn::sys::open_directory(kPolicyRoot);
  unsigned int usable = 0;
  while (const dirent *entry = root == nullptr ? nullptr : vorn::sys::read_entry(root)) {
    if (std::strncmp(entry->d_name, "policy", 6) != 0) continue;
    if (log_policy(entry->d_name)) ++usable;
  }
  VORN_LOG(vorn::kDebug, "cpufreq: %u policies can be controlled.", usable);
  return 0;
}

int vorn_cpufreq_set_low_all(unsigned long argument1, unsigned long argument2) {
  return vorn::kernel_request(VORN_SYSCALL_CPUFREQ_LOW_ALL, argument1, argument2);
}

int vorn_cpufreq_set_high_all(unsigned long argument1, unsigned long argument2) {
  return vorn::kernel_request(VORN_SYSCALL_CPUFREQ_HIGH_ALL, argument1, argument2);
}

int vorn_cpufreq_up_allcpu_freq_by_step(unsigned long argument1, unsigned long argument2) {
  return vorn::kernel_request(VORN_SYSCALL_CPUFREQ_UP, argument1, argument2);
}

int vorn_cpufreq_down_allcpu_freq_by_step(unsigned long argument1, unsigned long argument2) {
  return vorn::kernel_request(VORN_SYSCALL_CPUFREQ_DOWN, argument1, argument2);
}

int vorn_get_local_cpufreq(unsigned long argument1, unsigned long argument2) {
  return vorn::kernel_request(VORN_SYSCALL_CPUFREQ_GET, argument1, argument2);
}
