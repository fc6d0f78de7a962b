// Declares the parser of CPU lists in settings: items between commas, each a number or a range.
// SPDX-License-Identifier: Apache-2.0
#ifndef VORN_CPU_CPU_LIST_HPP
#define VORN_CPU_CPU_LIST_HPP

#include <string_view>

namespace vorn::cpu {

// An item.
struct CpuRange {
  unsigned int start = 0;
  unsigned int end = 0; // equals start if there is one number
  int numbers = 0;      // 1 or 2; 0 if the item has another form

  bool reversed() const { return end < start; }
};

// Reads item as "%u-%u" does, with two differences: a negative number is a wrong form, and a number
// that is too large becomes the largest one.
CpuRange scan_cpu_range(std::string_view item);

// Adds the CPUs of range that are below capacity to set.
void add_cpus(const CpuRange &range, unsigned int capacity, void *set);

// Calls take with each item of list, until it returns false. Returns false then.
template <class Take> bool each_item(std::string_view list, Take take) {
  for (;;) {
    const std::size_t comma = list.find(',');
    if (!take(list.substr(0, comma))) return false;
    if (comma == std::string_view::npos) return true;
    list.remove_prefix(comma + 1);
  }
}

} // namespace vorn::cpu

#endif
