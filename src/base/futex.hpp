// Puts threads to sleep on a word of this process, and wakes them: futex(2) without its other uses.
// No function is a cancellation point, and each changes errno. All are safe in a signal handler.
// SPDX-License-Identifier: Apache-2.0
#ifndef VORN_BASE_FUTEX_HPP
#define VORN_BASE_FUTEX_HPP

#include <cerrno>
#include <climits>
#include <cstdint>
#include <ctime>
#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace vorn {

// Sleeps while the word has that value, until the deadline on CLOCK_MONOTONIC, or forever if it is
// NULL. Returns 0 if a thread woke the word, or an errno: EAGAIN if the word has another value,
// EINTR after a signal, ETIMEDOUT. The caller tests the word again in each case.
inline int futex_wait(const void *word, std::uint32_t value, const timespec *deadline) {
  const long result = syscall(SYS_futex, word, FUTEX_WAIT_BITSET_PRIVATE, value, deadline, nullptr,
                              FUTEX_BITSET_MATCH_ANY);
  return result == 0 ? 0 : errno;
}

inline void futex_wake_all(const void *word) {
  syscall(SYS_futex, word, FUTEX_WAKE_PRIVATE, INT_MAX);
}

} // namespace vorn

#endif
