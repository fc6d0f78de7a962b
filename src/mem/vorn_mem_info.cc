// Reads figures of the system's memory, and drops its caches by a guarded command.
// SPDX-License-Identifier: Apache-2.0
#define VORN_FILE "vorn_mem_manager.c"
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "base/kernel_request.hpp"
#include "base/log.hpp"
#include "base/system.hpp"
#include "vorn_cmd.h"
#include "vorn_mem.h"

namespace vorn::mem {
namespace {

constexpr char kMeminfo[] = "/proc/meminfo";
constexpr std::size_t kNameSize = 128;

// Two threads that find it 0 both read the same figure.
constinit std::atomic<unsigned long> total_kb{0};

// Reads the value in kB of the line that begins with key, which includes the colon. If there is no
// such line, stores 0 and returns -1.
int vorn_get_meminfo(const char *key, unsigned long *value) {
  const Stream file = sys::open_stream(kMeminfo);
  if (file == nullptr) {
    VORN_LOG(kInfo, "Fopen /proc/meminfo fail errno %d.", errno);
    return -1;
  }
  char line[256];
  while (sys::read_line(line, sizeof line, file) != nullptr) {
    char name[kNameSize] = "";
    unsigned long figure = 0;
    if (std::sscanf(line, "%127s %lu", name, &figure) < 2) continue;
    if (std::strncmp(name, key, kNameSize) != 0) continue;
    *value = figure;
    return 0;
  }
  *value = 0;
  return -1;
}

} // namespace
} // namespace vorn::mem

using namespace vorn::mem;

int vorn_get_free_mem(unsigned long *out) {
  if (out == nullptr) return VORN_FAIL(-1, "Parameter is null.");
  const int result = vorn::kernel_request(VORN_SYSCALL_FREE_MEM, out);
  if (result != 0) return VORN_FAIL(-1, "Syscall failed %d.", result);
  return 0;
}

int vorn_get_total_mem(unsigned long *out) {
  unsigned long total = total_kb.load(std::memory_order_relaxed);
  if (total == 0) {
    if (vorn_get_meminfo("MemTotal:", &total) != 0) return -1;
    total_kb.store(total, std::memory_order_relaxed);
  }
  if (out == nullptr) return VORN_FAIL(-1, "Parameter is null.");
  *out = total;
  return 0;
}

unsigned long vorn_get_available_usage() {
  unsigned long total = 0;
  unsigned long available = 0;
  if (vorn_get_meminfo("MemTotal:", &total) != 0) return 0;
  if (vorn_get_meminfo("MemAvailable:", &available) != 0) return 0;
  if (total == 0) return VORN_FAIL(0ul, "get total memory from system is 0.");
  return (total - available) * 100 / total;
}

// vorn_system_s always refuses this text, because a ";" joins two commands in it.
int vorn_release_mem() {
  return vorn_system_s("sync;echo 3 > /proc/sys/vm/drop_caches;", ";>") == 0 ? 0 : -1;
}
