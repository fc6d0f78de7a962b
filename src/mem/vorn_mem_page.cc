// Reads the size of a memory page, and sets the protection of pages.
// SPDX-License-Identifier: Apache-2.0
#define VORN_FILE "vorn_mem_manager.c"
#include <cerrno>
#include <cstring>
#include <sys/mman.h>
#include <unistd.h>

#include "base/atomic_word.hpp"
#include "base/log.hpp"
#include "base/once.hpp"
#include "vorn_mem.h"

namespace vorn::mem {
namespace {

constexpr unsigned long kUnitSize = 4096; // of vorn_setmemory_*, for any page size

constinit Once page_size_read{OncePolicy::kRetry};

// The exported figure may be read again at any time, by vorn_get_current_page_size_inner.
uint64_t page_size() { return atomic_word(g_CurSysPageSize).load(std::memory_order_relaxed); }

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
