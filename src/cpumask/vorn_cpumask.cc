// Loads and walks CPU masks.
// SPDX-License-Identifier: Apache-2.0
#include "vorn_cpumask.h"

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstring>
#include <fcntl.h>

#include "base/log.hpp"
#include "base/once.hpp"
#include "base/system.hpp"
#include "vorn_bitops.h"
#include "vorn_fileops.h"

namespace vorn::cpumask {
namespace {

using Mask = ::cpumask;
static_assert(sizeof(Mask) * 8 == VORN_CPUMASK_CPU_COUNT);

constexpr char kPossible[] = "/sys/devices/system/cpu/possible";
constexpr char kOnline[] = "/sys/devices/system/cpu/online";
constexpr char kPresent[] = "/sys/devices/system/cpu/present";

constexpr std::size_t kLineSize = 256;

constinit Mask possible{};
constinit Mask online{};
constinit Mask present{};

constinit Once loaded{OncePolicy::kRetry};

bool read_line(const char *path, char (&line)[kLineSize]) {
  const UniqueFd file = sys::open(path, O_RDONLY);
  return file && vorn_readline(file.get(), line, sizeof line) != nullptr;
}

int load_all() {
  for (Mask *mask : {cpu_possible_mask, cpu_online_mask, cpu_present_mask})
    init_cpumask_bit(mask, VORN_CPUMASK_WORDS);
  const int possible_cpu = load_cpumask(cpu_possible_mask, kPossible, sizeof kPossible - 1);
  const int online_cpu = load_cpumask(cpu_online_mask, kOnline, sizeof kOnline - 1);
  const int max_cpu = load_cpumask(cpu_present_mask, kPresent, sizeof kPresent - 1);
  if (possible_cpu >= 0 && online_cpu >= 0 && max_cpu >= 0) return 0;
  return VORN_FAIL_AS("cpumask_init", -1,
                      "Load_cpumask failed. possible_cpu = %d, online_cpu = %d, max_cpu=%d\n",
                      possible_cpu, online_cpu, max_cpu);
}

// The first and last CPU of an item. Longs, so that no large number wraps to a small one.
struct Range {
  long first = 0;
  long last = 0;
};

// Returns whether the item is a complete range.
bool scan(const char *item, Range &range) {
  const bool two = std::strchr(item, '-') != nullptr;
  const int count = std::sscanf(item, two ? "%ld-%ld" : "%ld", &range.first, &range.last);
  if (count < 0) {
    return VORN_FAIL_AS("vorn_set_cpumask_bit", false, "sscanf_s failed.ret is %d.", count);
  }
  if (!two) range.last = range.first;
  return count == (two ? 2 : 1);
}

unsigned int cpu_number(uint64_t bit) {
  return static_cast<unsigned int>(std::min<uint64_t>(bit, VORN_CPUMASK_CPU_COUNT));
}

} // namespace
} // namespace vorn::cpumask

using namespace vorn::cpumask;

cpumask *cpu_possible_mask = &possible;
cpumask *cpu_online_mask = &online;
cpumask *cpu_present_mask = &present;

int cpumask_init() { return loaded.run(load_all); }

int load_cpumask(cpumask *mask, const char *path, size_t) {
  char line[kLineSize] = {};
  if (!read_line(path, line)) return -1;
  if (line[0] == '\n') return 0;
  int highest = 0;
  char *rest = line;
  while (const char *item = strsep(&rest, ","))
    highest = std::max(highest, vorn_set_cpumask_bit(mask, item));
  return highest;
}

void init_cpumask_bit(cpumask *mask, unsigned int words) { std::fill_n(mask->words, words, 0); }

int vorn_set_cpumask_bit(cpumask *mask, const char *item) {
  Range range;
  if (!scan(item, range)) return 0;
  const long end = std::min(range.last, long{VORN_CPUMASK_CPU_COUNT} - 1);
  for (long cpu = std::max(range.first, 0l); cpu <= end; ++cpu)
    vorn_set_bit(static_cast<uint32_t>(cpu), mask);
  return static_cast<int>(std::clamp<long>(range.last, INT_MIN, INT_MAX));
}

unsigned int vorn_first_cpu(const cpumask *mask) {
  return cpu_number(find_first_bit(mask, VORN_CPUMASK_CPU_COUNT));
}

unsigned int vorn_next_cpu(unsigned int cpu, const cpumask *mask) {
  return cpu_number(find_next_bit(mask, VORN_CPUMASK_CPU_COUNT, cpu + 1));
}
