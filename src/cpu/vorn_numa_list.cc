// Parses the CPU lists of NUMA nodes.
// SPDX-License-Identifier: Apache-2.0
#define VORN_FILE "vorn_numa.c"
#include <string_view>

#include "base/log.hpp"
#include "cpu/cpu_list.hpp"
#include "vorn_numa.h"

namespace vorn::numa {
namespace {

using cpu::add_cpus;
using cpu::CpuRange;

constexpr unsigned int kSetSize = VORN_NUMAM_CPUSET_WORDS * 64;
constexpr unsigned int kMaskSize = VORN_CPUMASK_CPU_COUNT;

bool scan(std::string_view item, CpuRange &range) {
  constexpr char kFunction[] = "vorn_numam_parse_cpustr";
  const int length = static_cast<int>(item.size());
  range = cpu::scan_cpu_range(item);
  if (range.numbers == 0)
    return VORN_FAIL_AS(kFunction, false, "Parse CpuSet fail, invalid format:%.*s", length,
                        item.data());
  if (range.reversed())
    return VORN_FAIL_AS(kFunction, false, "Parse cpu mask %.*s fail, end:%u is less than start:%u",
                        length, item.data(), range.end, range.start);
  return true;
}

bool add_item(std::string_view item, unsigned int capacity, void *set) {
  CpuRange range;
  if (!scan(item, range)) return false;
  add_cpus(range, capacity, set);
  return true;
}

bool add_list(const char *list, unsigned int capacity, void *set) {
  return cpu::each_item(list, [=](std::string_view item) { return add_item(item, capacity, set); });
}

} // namespace
} // namespace vorn::numa

using namespace vorn::numa;

int vorn_numam_parse_cpuset(const char *list, uint64_t *cpuset) {
  if (list == nullptr) return 0;
  if (cpuset == nullptr) return VORN_FAIL(-1, "Param error, cpuSet is NULL.");
  if (add_list(list, kSetSize, cpuset)) return 0;
  return VORN_FAIL(-1, "Parse CpuSet %s fail.", list);
}

int vorn_numam_parse_cpumask(const char *list, cpumask *mask) {
  if (list == nullptr) return 0;
  if (mask == nullptr) return VORN_FAIL(-1, "Param error, munaMask is NULL.");
  if (add_list(list, kMaskSize, mask)) return 0;
  return VORN_FAIL(-1, "Parse cpu mask %s fail.", list);
}

int vorn_numam_parse_cpuset_as_list(const char *item, uint64_t *cpuset) {
  if (item == nullptr || cpuset == nullptr) return VORN_FAIL(-1, "Param error, cpuSet is NULL.");
  return add_item(item, kSetSize, cpuset) ? 0 : -1;
}

int vorn_numam_parse_cpumask_as_list(const char *item, cpumask *mask) {
  if (item == nullptr || mask == nullptr) return VORN_FAIL(-1, "Param error, munaMask is NULL.");
  return add_item(item, kMaskSize, mask) ? 0 : -1;
}

int vorn_numam_parse_cpustr(const char *item, unsigned int *start, unsigned int *end) {
  if (item == nullptr || start == nullptr || end == nullptr)
    return VORN_FAIL(-1, "Param error, item or result is NULL.");
  CpuRange range;
  if (!scan(item, range)) return -1;
  *start = range.start;
  *end = range.end;
  return 0;
}
