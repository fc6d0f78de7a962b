// Counts accounted memory by module.
// SPDX-License-Identifier: Apache-2.0
#include "vorn_mem.h"

#include <atomic>
#include <cstring>

#include "base/atomic_word.hpp"
#include "base/errno_guard.hpp"
#include "base/kernel_request.hpp"
#include "base/log.hpp"
#include "base/once.hpp"
#include "mem/counters.hpp"

namespace vorn::mem {
namespace {

constexpr unsigned int kColumns = 5;

// A successful allocation and a free keep errno, even if no kernel module answers.
std::uint64_t *ask_for_table() {
  const ErrnoGuard errno_stays;
  std::uint64_t address = 0;
  if (kernel_request(VORN_SYSCALL_MEM_STAT, &address) != 0) return nullptr;
  return reinterpret_cast<std::uint64_t *>(address);
}

// Negative if more was freed than counted.
std::int64_t used_bytes(std::uint64_t *table, unsigned int pid) {
  return static_cast<std::int64_t>(counter(table, pid).load(std::memory_order_relaxed));
}

} // namespace

constinit Once table_found{OncePolicy::kRetry};
constinit std::uint64_t *found_table = nullptr;

int find_table() {
  std::uint64_t *table = ask_for_table();
  if (table == nullptr) return -1;
  std::memset(table, 0, VORN_MODULE_ID_COUNT * sizeof *table);
  found_table = table;
  return 0;
}

} // namespace vorn::mem

using namespace vorn::mem;

void vorn_mem_stat_add(unsigned int pid, unsigned int size) { count_allocated(pid, size); }

void vorn_mem_stat_sub(unsigned int pid, unsigned int size) { count_freed(pid, size); }

void vorn_mem_show(vorn_print_f print) {
  if (print == nullptr) return;
  print("Begin to show used memory (Bytes) of all PID.\n");
  for (unsigned int column = 0; column < kColumns; ++column) {
    print("| %-6s  %11s ", "PID", "UsedMem");
  }
  print("\n");

  uint64_t *table = stat_table();
  uint64_t total = 0;
  unsigned int shown = 0;
  for (unsigned int pid = 0; table != nullptr && pid < VORN_MODULE_ID_COUNT; ++pid) {
    const int64_t used = used_bytes(table, pid);
    if (used == 0) continue;
    total += static_cast<uint64_t>(used);
    print("| %-6u  %11lld ", pid, static_cast<long long>(used));
    if (++shown % kColumns == 0) print("\n");
  }
  print("\nTotal used memory: %lld\n", static_cast<long long>(total));
}

int vorn_mem_stat_get(unsigned int pid, int64_t *bytes) {
  if (bytes == nullptr || pid >= VORN_MODULE_ID_COUNT)
    return VORN_FAIL(-1, "Param is invalid, pid(%u), bytes(%p).", pid, static_cast<void *>(bytes));
  uint64_t *table = stat_table();
  if (table == nullptr) return 1;
  *bytes = used_bytes(table, pid);
  return 0;
}

int vorn_mem_stat_dump() { return vorn::kernel_request(VORN_SYSCALL_MEM_STAT_DUMP); }
