// Reads the shared figures, the counts of CPUs and the use of memory.
// SPDX-License-Identifier: Apache-2.0
#include "vorn_sysinfo.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <sys/sysinfo.h>
#include <unistd.h>

#include "base/atomic_word.hpp"
#include "base/log.hpp"
#include "sysinfo/usage.hpp"

namespace vorn::sysinfo {
namespace {

constexpr std::uint32_t kCacheLine = 128;
constexpr std::uint32_t kUnknown = 0xFFFFFFFF;

// Two threads that find a count unknown both read it.
constinit std::atomic<uint32_t> online_cpus{0};
constinit std::atomic<uint32_t> present_cpus{0};
constinit std::atomic<uint32_t> cache_line{kUnknown};

std::uint32_t slot(const std::uint32_t *slots, std::uint32_t index) {
  return slots == nullptr ? 0 : atomic_word(slots[index]).load(std::memory_order_relaxed);
}

} // namespace
} // namespace vorn::sysinfo

using namespace vorn::sysinfo;

uint32_t vorn_sysinfo_cpu_num() {
  const uint32_t known = online_cpus.load(std::memory_order_relaxed);
  if (known != 0) return known;
  const long count = sysconf(_SC_NPROCESSORS_ONLN);
  if (count < 0)
    return VORN_FAIL(0u, "vorn_sysinfo getting online cpu num failed errno=%d.", errno);
  online_cpus.store(static_cast<uint32_t>(count), std::memory_order_relaxed);
  return static_cast<uint32_t>(count);
}

uint32_t vorn_sysinfo_present_cpu_num() { return sysinfo_get_cpu_num(); }

uint32_t sysinfo_get_cpu_num() {
  const uint32_t known = present_cpus.load(std::memory_order_relaxed);
  if (known != 0) return known;
  const auto count = static_cast<uint32_t>(std::max(sysconf(_SC_NPROCESSORS_CONF), 0l));
  present_cpus.store(count, std::memory_order_relaxed);
  return count;
}

uint32_t vorn_sysinfo_cpu_usage() { return slot(usage_percent.load(std::memory_order_acquire), 0); }

uint32_t vorn_sysinfo_core_usage(const uint32_t *cpu) {
  const uint32_t *slots = usage_percent.load(std::memory_order_acquire);
  if (slots == nullptr) return 0;
  const bool present = cpu != nullptr && *cpu < sysinfo_get_cpu_num();
  return slot(slots, present ? *cpu + 1 : 0);
}

int vorn_get_cpu_usage_array(uint32_t *data, uint32_t count) {
  if (data == nullptr) return VORN_FAIL(-1, "vorn_get_cpu_usage_array: data is NULL");
  const uint32_t *slots = usage_percent.load(std::memory_order_acquire);
  if (slots == nullptr) return 0;
  const uint32_t copied = std::min(count, sysinfo_get_cpu_num());
  for (uint32_t cpu = 0; cpu < copied; ++cpu)
    data[cpu] = slot(slots, cpu + 1);
  return static_cast<int>(copied);
}

uint32_t vorn_sysinfo_mem_usage() {
  struct sysinfo memory = {};
  if (::sysinfo(&memory) != 0 || memory.totalram == 0) return 0;
  return static_cast<uint32_t>((memory.totalram - memory.freeram) * 100 / memory.totalram);
}

uint32_t vorn_get_cache_line_size() {
  if (cache_line.load(std::memory_order_relaxed) == kUnknown)
    cache_line.store(kCacheLine, std::memory_order_relaxed);
  return cache_line.load(std::memory_order_relaxed);
}
