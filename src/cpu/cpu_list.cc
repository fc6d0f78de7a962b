// Parses the items of CPU lists.
// SPDX-License-Identifier: Apache-2.0
#include "cpu/cpu_list.hpp"

#include <algorithm>
#include <charconv>
#include <climits>
#include <system_error>

#include "vorn_bitops.h"

namespace vorn::cpu {
namespace {

void skip_blanks(std::string_view &text) {
  text.remove_prefix(std::min(text.find_first_not_of(" \t\n\v\f\r"), text.size()));
}

// Removes a number from the front of text. Returns false and leaves *number alone if there is none.
bool take_number(std::string_view &text, unsigned int *number) {
  if (text.starts_with('+')) text.remove_prefix(1);
  const auto [rest, error] = std::from_chars(text.data(), text.data() + text.size(), *number);
  if (error == std::errc::invalid_argument) return false;
  if (error == std::errc::result_out_of_range) *number = UINT_MAX;
  text.remove_prefix(static_cast<std::size_t>(rest - text.data()));
  return true;
}

} // namespace

CpuRange scan_cpu_range(std::string_view item) {
  CpuRange range;
  skip_blanks(item);
  if (!take_number(item, &range.start)) return {};
  range.end = range.start;
  range.numbers = 1;
  if (!item.starts_with('-')) return range;
  item.remove_prefix(1);
  skip_blanks(item);
  if (item.starts_with('-')) return {};
  if (take_number(item, &range.end)) range.numbers = 2;
  return range;
}

void add_cpus(const CpuRange &range, unsigned int capacity, void *set) {
  for (unsigned int cpu = range.start; cpu <= range.end && cpu < capacity; ++cpu)
    vorn_set_bit(cpu, set);
}

} // namespace vorn::cpu
