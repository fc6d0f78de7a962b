// Implements the table of children by descriptor.
// SPDX-License-Identifier: Apache-2.0
#define VORN_FILE "vorn_str.c"
#include "str/pid_table.hpp"

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <unistd.h>

#include "base/atomic_word.hpp"
#include "base/bounded.hpp"
#include "mem/owned.hpp"

namespace vorn::str {
namespace {

constexpr char kTag[] = "vorn_popen_init";

// With the limit of some containers, a thousand million, the table would take gigabytes.
constexpr int kMaxEntries = 1 << 20;

static_assert(sizeof(pid_t) == sizeof(std::int32_t));

// Two threads that create the table at the same time may have read different limits. Both use the
// number that one of them stored first as the size, so the installed table has this size.
constinit std::atomic<int> entries{0};
constinit std::atomic<std::int32_t *> table{nullptr};

int settle_entries() {
  const int limit = std::min(getdtablesize(), kMaxEntries);
  if (limit < 1) return 0;
  int settled = 0;
  return entries.compare_exchange_strong(settled, limit) ? limit : settled;
}

// Relaxed: an entry belongs to the owner of the descriptor and publishes nothing else.
std::atomic_ref<std::int32_t> entry(std::int32_t *of_table, int fd) {
  return atomic_word(of_table[fd]);
}

bool in_range(int fd) { return fd >= 0 && fd < entries.load(std::memory_order_relaxed); }

} // namespace

bool pid_table_ready() {
  if (table.load(std::memory_order_acquire) != nullptr) return true;
  const int count = settle_entries();
  if (count == 0) return false;
  const std::size_t bytes = static_cast<std::size_t>(count) * sizeof(std::int32_t);
  auto *made = static_cast<std::int32_t *>(mem::allocate(bytes, kTag, __LINE__));
  if (made == nullptr) return false;
  memset_s(made, bytes, 0, bytes);
  std::int32_t *installed = nullptr;
  if (!table.compare_exchange_strong(installed, made, std::memory_order_acq_rel))
    vorn_freesub(made, kTag, __LINE__);
  return true;
}

bool pid_table_covers(int fd) { return in_range(fd); }

void pid_table_put(int fd, pid_t child) {
  entry(table.load(std::memory_order_acquire), fd).store(child, std::memory_order_relaxed);
}

pid_t pid_table_take(int fd) {
  std::int32_t *of_process = table.load(std::memory_order_acquire);
  if (of_process == nullptr || !in_range(fd)) return 0;
  return entry(of_process, fd).exchange(0, std::memory_order_relaxed);
}

} // namespace vorn::str
