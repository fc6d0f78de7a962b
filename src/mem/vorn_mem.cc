// Allocates and frees accounted memory.
// SPDX-License-Identifier: Apache-2.0
#include "vorn_mem.h"

#include <cstdlib>

#include "base/bounded.hpp"
#include "base/log.hpp"
#include "base/ratelimit.hpp"

namespace vorn::mem {
namespace {

// The address that the caller gets keeps the alignment of the system allocator.
constexpr unsigned int kHeadSize = 16;
static_assert(sizeof(vorn_mem_head_s) == kHeadSize);
static_assert(offsetof(vorn_mem_head_s, magic) == 0 && offsetof(vorn_mem_head_s, size) == 4 &&
              offsetof(vorn_mem_head_s, pid) == 8 && offsetof(vorn_mem_head_s, reserved) == 12);

vorn_mem_head_s *head_of(void *ptr) { return static_cast<vorn_mem_head_s *>(ptr) - 1; }

// The bytes before a block of another allocator, or before a freed block, belong to the system
// allocator. Sanitizers report their use.
[[gnu::no_sanitize_address, gnu::no_sanitize_thread]] bool is_ours(const vorn_mem_head_s *head) {
  return head->magic == VORN_MEM_MAGIC;
}

} // namespace
} // namespace vorn::mem

using namespace vorn::mem;

void *vorn_mallocsubstandard(unsigned int pid, unsigned int size, unsigned long flags,
                             const char *function, unsigned int line) {
  if (size == 0) return nullptr;
  unsigned int type = VORN_MEM_TYPE_HEAP;
  void *ptr = vorn_mallocsubproc(size, &type, flags, pid, function, line);
  if (ptr != nullptr) return ptr;
  void *none = nullptr;
  return VORN_FAIL(none, "Malloc memory fails. PID: (%d), size: (%d), type: (%d).", pid, size,
                   type);
}

void *vorn_mallocsubproc(unsigned int size, unsigned int *type, unsigned long, unsigned int pid,
                         const char *, unsigned int) {
  unsigned int with_head = 0;
  if (__builtin_add_overflow(size, kHeadSize, &with_head)) return nullptr;
  auto *head = static_cast<vorn_mem_head_s *>(std::malloc(with_head));
  if (head == nullptr) return nullptr;
  *type = VORN_MEM_TYPE_HEAP;
  vorn_mem_init_head(head, size, pid);
  vorn_mem_stat_add(pid, size);
  return head + 1;
}

void vorn_mem_init_head(vorn_mem_head_s *header, unsigned int size, unsigned int pid) {
  *header = {VORN_MEM_MAGIC, size, pid, 0};
}

void vorn_freesub(void *ptr, const char *function, unsigned int line) {
  if (ptr == nullptr) {
    VORN_LOG_RATELIMITED_AS(__func__, vorn::kError, vorn::kError,
                            "ptr  is null, function(%s) line(%u)", function, line);
    return;
  }
  vorn_mem_head_s *head = head_of(ptr);
  if (!is_ours(head)) {
    VORN_LOG(vorn::kError, "mem magic is wrong, ptr(%p), function(%s) line(%u)", ptr, function,
             line);
    vorn_freesubproc(ptr, static_cast<int>(VORN_MEM_TYPE_HEAP));
    return;
  }
  vorn_mem_stat_sub(head->pid, head->size);
  vorn_freesubproc(head, static_cast<int>(VORN_MEM_TYPE_HEAP));
}

void vorn_freesubproc(void *ptr, int) { std::free(ptr); }

void *vorn_memset(void *dest, int value, unsigned int size) {
  vorn::memset_s(dest, size, value, size);
  return dest;
}
