// Counts the accounted bytes of each module, inline in the functions that allocate and free.
// SPDX-License-Identifier: Apache-2.0
#ifndef VORN_MEM_COUNTERS_HPP
#define VORN_MEM_COUNTERS_HPP

#include <cstdint>

#include "base/atomic_word.hpp"
#include "base/once.hpp"
#include "vorn_mem.h"

namespace vorn::mem {

// Only find_table sets the table, after it has cleared the counters. It returns 0 on success.
extern constinit Once table_found;
extern constinit std::uint64_t *found_table;
int find_table();

// NULL until the kernel module provides one.
inline std::uint64_t *stat_table() {
  return table_found.run(find_table) == 0 ? found_table : nullptr;
}

inline std::atomic_ref<std::uint64_t> counter(std::uint64_t *table, unsigned int pid) {
  return atomic_word(table[pid < VORN_MODULE_ID_COUNT ? pid : 0]);
}

inline void count_allocated(unsigned int pid, unsigned int size) {
  std::uint64_t *table = stat_table();
  if (table != nullptr) counter(table, pid).fetch_add(size);
}

inline void count_freed(unsigned int pid, unsigned int size) {
  std::uint64_t *table = stat_table();
  if (table != nullptr) counter(table, pid).fetch_sub(size);
}

} // namespace vorn::mem

#endif
