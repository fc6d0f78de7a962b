// CPU lists, and what the kernel module knows of a CPU.
#include "vorn_cpu.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <climits>
#include <string_view>

#include "base/kernel_request.hpp"
#include "base/log.hpp"
#include "vorn_bitops.h"

namespace vorn::cpu {
namespace {

constexpr char kParser[] = "vorn_cpum_parse_cpumask_as_list";
constexpr unsigned int kLastCpu = VORN_CPUM_CPU_COUNT - 1;

// Takes a number off the front of text, with the blanks before it; one that is too large becomes
// the largest. False, with *number untouched, when there is none. sscanf(3) would take a sign and
// let a large number wrap to a small one.
bool take_number(std::string_view &text, unsigned int *number) {
  text.remove_prefix(std::min(text.find_first_not_of(" \t\n\v\f\r"), text.size()));
  const auto [rest, error] = std::from_chars(text.data(), text.data() + text.size(), *number);
  if (error == std::errc::invalid_argument) return false;
  if (error == std::errc::result_out_of_range) *number = UINT_MAX;
  text.remove_prefix(static_cast<std::size_t>(rest - text.data()));
  return true;
}

bool parse_item(std::string_view item, uint64_t *mask) {
  const int length = static_cast<int>(item.size());
  std::string_view rest = item;
  unsigned int start = 0;
  if (!take_number(rest, &start)) {
    return VORN_FAIL_AS(kParser, false, "Parse cpu mask fail, invalid format:%.*s", length,
                        item.data());
  }
  unsigned int end = start;
  if (rest.starts_with('-')) {
    rest.remove_prefix(1);
    take_number(rest, &end);
  }
  if (end < start) {
    return VORN_FAIL_AS(kParser, false, "Parse cpu mask %.*s fail, end:%u is less than start:%u",
                        length, item.data(), end, start);
  }
  for (unsigned int cpu = std::min(start, kLastCpu); cpu <= std::min(end, kLastCpu); ++cpu)
    vorn_set_bit(cpu, mask);
  return true;
}

int parse_list(std::string_view list, uint64_t *mask) {
  int result = -1;
  for (;;) {
    const std::size_t comma = list.find(',');
    if (parse_item(list.substr(0, comma), mask)) result = 0;
    if (comma == std::string_view::npos) return result;
    list.remove_prefix(comma + 1);
  }
}

} // namespace
} // namespace vorn::cpu

using namespace vorn::cpu;

int vorn_cpum_parse_cpumask(const char *text, uint64_t *mask) {
  if (text == nullptr || mask == nullptr) return -1;
  return parse_list(text, mask);
}

int vorn_get_idle_no_cstates(unsigned int cpu, uint32_t *value) {
  if (value == nullptr) return VORN_FAIL(-1, "idle_no_cstates_value is null.");
  return vorn::kernel_request(VORN_SYSCALL_GET_IDLE_NO_CSTATES, cpu, value);
}

int vorn_set_idle_no_cstates(unsigned int cpu, uint32_t value) {
  const int result = vorn::kernel_request(VORN_SYSCALL_SET_IDLE_NO_CSTATES, cpu, &value);
  if (result != -1) return result;
  return VORN_FAIL(-1, "Syscall for vorn_set_idle_no_cstates failed.");
}

int vorn_get_cpu_task_info(unsigned int cpu, void *record) {
  if (record == nullptr) return VORN_FAIL(-1, "pCpuTaskInfo is null.");
  return vorn::kernel_request(VORN_SYSCALL_CPU_TASK_INFO, cpu, record) == 0 ? 0 : -1;
}
