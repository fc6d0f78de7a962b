// Reads memory figures of the system and runs the guarded memory commands.
// SPDX-License-Identifier: Apache-2.0
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <sys/mman.h>
#include <unistd.h>

#include "base/atomic_word.hpp"
#include "base/kernel_request.hpp"
#include "base/log.hpp"
#include "base/once.hpp"
#include "base/system.hpp"
#include "vorn_cmd.h"
#include "vorn_mem.h"

namespace vorn::mem {
namespace {

constexpr char kMeminfo[] = "/proc/meminfo";
constexpr unsigned long kUnitSize = 4096; // of vorn_setmemory_*, for any page size
constexpr std::size_t kNameSize = 128;

constinit Once page_size_read{OncePolicy::kRetry};

// The exported figure may be read again at any time, by vorn_get_current_page_size_inner.
uint64_t page_size() { return atomic_word(g_CurSysPageSize).load(std::memory_order_relaxed); }

// Two threads that find it 0 both read the same figure.
constinit std::atomic<unsigned long> total_kb{0};

// Reads the value in kB of the line that key, with its colon, names. Returns -1 with 0 if there is
// none.
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

bool is_page_multiple(unsigned long value) { return value % page_size() == 0; }

// function is the exported one that the log messages name.
int set_protection(const char *function, void *addr, unsigned int numpages, int protection) {
  if (addr == nullptr || numpages == 0) {
    return VORN_FAIL_AS(function, -1, "Param is invalied,addr is NULL(%p), numpages is 0.", addr);
  }
  const int page_size_result = vorn_get_current_page_size();
  if (page_size_result != 0) {
    return VORN_FAIL_AS(function, -1, "Get current system page size failed, ret(%d), errno(%d):%s.",
                        page_size_result, errno, std::strerror(errno));
  }
  const auto address = reinterpret_cast<unsigned long>(addr);
  if (page_size() != kUnitSize) {
    const auto length = static_cast<int>(numpages * static_cast<unsigned int>(kUnitSize));
    if (!is_page_multiple(static_cast<unsigned long>(static_cast<long>(length))) ||
        !is_page_multiple(address)) {
      return VORN_FAIL_AS(
          function, 0, "Param is invalied, page_addr(0x%lx), numpages(%d), g_CurSysPageSize(%d).",
          address, numpages, static_cast<int>(page_size()));
    }
  }
  if (mprotect(addr, numpages * kUnitSize, protection) == 0) return 0;
  return VORN_FAIL_AS(function, errno,
                      "set page protect read failed, page_addr(0x%lx), errno(%d):%s.", address,
                      errno, std::strerror(errno));
}

} // namespace
} // namespace vorn::mem

using namespace vorn::mem;

uint64_t g_CurSysPageSize;

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

// Always refused: two commands are not run as one, even if each is permitted.
int vorn_release_mem() {
  return vorn_system_s("sync;echo 3 > /proc/sys/vm/drop_caches;", ";>") == 0 ? 0 : -1;
}

int vorn_get_current_page_size_inner() {
  const long size = sysconf(_SC_PAGESIZE);
  if (size < 0) {
    VORN_LOG(vorn::kInfo, "Get current system page size failed, ret=(%d), errno(%d):%s.",
             static_cast<int>(size), errno, std::strerror(errno));
    return -1;
  }
  vorn::atomic_word(g_CurSysPageSize).store(static_cast<uint64_t>(size), std::memory_order_relaxed);
  return 0;
}

int vorn_get_current_page_size() { return page_size_read.run(vorn_get_current_page_size_inner); }

int vorn_get_sys_page_size(unsigned long *out) {
  if (out == nullptr) return VORN_FAIL(-1, "Get sys page size failed, param err.");
  *out = 0;
  if (vorn_get_current_page_size() != 0) return -1;
  *out = page_size();
  return 0;
}

int vorn_setmemory_ro(void *addr, unsigned int numpages) {
  return set_protection(__func__, addr, numpages, PROT_READ);
}

int vorn_setmemory_rw(void *addr, unsigned int numpages) {
  return set_protection(__func__, addr, numpages, PROT_WRITE);
}
