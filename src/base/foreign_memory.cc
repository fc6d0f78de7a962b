// Reads memory through the kernel, which returns an error where a plain load would fault in the
// middle of the report of another fault.
//
// 1. process_vm_readv(2) on the calling process checks and copies in one step. It needs no
//    descriptor and no ptrace permission.
// 2. If a system call filter or an emulator refuses that call, a futex(2) call, which reads one
//    word, tests each page before the copy. The copy faults if another thread unmaps the page in
//    between.
//
// Writing to a pipe would test a page too, but the process may have closed the pipe's descriptors
// and reused them for a file.
// SPDX-License-Identifier: Apache-2.0
#include "base/foreign_memory.hpp"

#include <cerrno>
#include <ctime>
#include <linux/futex.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <unistd.h>

#include "base/errno_guard.hpp"

namespace vorn {
namespace {

constexpr std::uintptr_t kPage = 4096; // no page is smaller

// The wait ends at once, whether the word has this value or not.
bool can_read_word(std::uintptr_t at) {
  constexpr timespec kAtOnce{};
  const std::uintptr_t word = at & ~std::uintptr_t{3};
  return syscall(SYS_futex, word, FUTEX_WAIT_PRIVATE, 0, &kAtOnce) == 0 || errno != EFAULT;
}

bool can_read(std::uintptr_t from, std::size_t size) {
  const std::uintptr_t last = from + size - 1;
  for (std::uintptr_t at = from; at <= last; at = (at | (kPage - 1)) + 1)
    if (!can_read_word(at)) return false;
  return true;
}

[[gnu::no_sanitize_address, gnu::no_sanitize_thread]] void copy_bytes(std::uintptr_t from, void *to,
                                                                      std::size_t size) {
  const auto *source = reinterpret_cast<const volatile unsigned char *>(from);
  auto *target = static_cast<unsigned char *>(to);
  for (std::size_t i = 0; i < size; ++i)
    target[i] = source[i];
}

} // namespace

bool copy_foreign(std::uintptr_t from, void *to, std::size_t size) {
  const ErrnoGuard errno_stays;
  if (size == 0) return true;
  if (from > UINTPTR_MAX - kPage - size)
    return false; // memory of the kernel; also, no sum below overflows
  const iovec local{to, size};
  const iovec foreign{reinterpret_cast<void *>(from), size};
  const long copied = syscall(SYS_process_vm_readv, getpid(), &local, 1ul, &foreign, 1ul, 0ul);
  if (copied >= 0) return static_cast<std::size_t>(copied) == size;
  if (errno == EFAULT || !can_read(from, size)) return false;
  copy_bytes(from, to, size);
  return true;
}

} // namespace vorn
