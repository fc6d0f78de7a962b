// Allocates and frees accounted memory.
// SPDX-License-Identifier: Apache-2.0
#include "vorn_mem.h"

#include <cstdlib>

#include "base/bounded.hpp"
#include "base/log.hpp"
#include "base/ratelimit.hpp"
#include "mem/counters.hpp"

namespace vorn::mem {
namespace {

// The address that the caller gets keeps the alignment of the system allocator.
constexpr unsigned int kHeadSize = 16;
static_assert(sizeof(vorn_mem_head_s) == kHeadSize);
static_assert(offsetof(vorn_mem_head_s, magic) == 0 && offsetof(vorn_mem_head_s, size) == 4 &&
              offsetof(vorn_mem_head_s, pid) == 8 && offsetof(vorn_mem_head_s, reserved) == 12);

// Returns NULL without a message on failure.
void *allocate_counted(unsigned int size, unsigned int pid) {
  unsigned int with_head = 0;
  if (__builtin_add_overflow(size, kHeadSize, &with_head)) return nullptr;
  auto *head = static_cast<vorn_mem_head_s *>(std::malloc(with_head));
  if (head == nullptr) return nullptr;
  *head = {VORN_MEM_MAGIC, size, pid, 0};
  count_allocated(pid, size);
  return head + 1;
}

vorn_mem_head_s *head_of(void *ptr) { return static_cast<vorn_mem_head_s *>(ptr) - 1; }

// The bytes before a block of another allocator, or before a freed block, belong to the system
// allocator. Sanitizers report their use.
[[gnu::no_sanitize_address, gnu::no_sanitize_thread]] bool is_ours(const vorn_mem_head_s *head) {
  return head->magic == VORN_MEM_MAGIC;
}

// Separate functions, so that the usual case needs no registers for the messages.
[[gnu::cold, gnu::noinline]] void *report_no_memory(unsigned int pid, unsigned int size) {
  void *none = nullptr;
  return VORN_FAIL_AS("vorn_mallocsubstandard", none,
                      "Malloc memory fails. PID: (%d), size: (%d), type: (%d).", pid, size,
                      VORN_MEM_TYPE_HEAP);
}

[[gnu::cold, gnu::noinline]] void report_null(const char *function, unsigned int line) {
  VORN_LOG_RATELIMITED_AS("vorn_freesub", kError, kError, "ptr  is null, function(%s) line(%u)",
                          function, line);
}

[[gnu::cold, gnu::noinline]] void free_foreign(void *ptr, const char *function, unsigned int line) {
  VORN_LOG_AS("vorn_freesub", kError, "mem magic is wrong, ptr(%p), function(%s) line(%u)", ptr,
              function, line);
  std::free(ptr);
}

} // namespace
} // namespace vorn::mem

using namespace vorn::mem;

void *vorn_mallocsubstandard(unsigned int pid, unsigned int size, unsigned long, const char *,
                             unsigned int) {
  if (size == 0) return nullptr;
  void *ptr = allocate_counted(size, pid);
  return ptr != nullptr ? ptr : report_no_memory(pid, size);
}

void *vorn_mallocsubproc(unsigned int size, unsigned int *type, unsigned long, unsigned int pid,
                         const char *, unsigned int) {
  void *ptr = allocate_counted(size, pid);
  if (ptr != nullptr) *type = VORN_MEM_TYPE_HEAP;
  return ptr;
}

void vorn_mem_init_head(vorn_mem_head_s *header, unsigned int size, unsigned int pid) {
  *header = {VORN_MEM_MAGIC, size, pid, 0};
}

void vorn_freesub(void *ptr, const char *function, unsigned int line) {
  if (ptr == nullptr) return report_null(function, line);
  vorn_mem_head_s *head = head_of(ptr);
  if (!is_ours(head)) return free_foreign(ptr, function, line);
  count_freed(head->pid, head->size);
  std::free(head);
}

void vorn_freesubproc(void *ptr, int) { std::free(ptr); }

void *vorn_memset(void *dest, int value, unsigned int size) {
  vorn::memset_s(dest, size, value, size);
  return dest;
}
