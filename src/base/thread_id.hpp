// Returns the kernel's id of the calling thread (gettid(2)) from a thread-local word, so that a
// lock can name its holder without a system call. A child of fork() reads it anew. Safe in a signal
// handler.
// SPDX-License-Identifier: Apache-2.0
#ifndef VORN_BASE_THREAD_ID_HPP
#define VORN_BASE_THREAD_ID_HPP

#include <cstdint>

namespace vorn {

// 0 until the first call of the thread.
extern thread_local constinit std::uint32_t t_thread_id __attribute__((tls_model("initial-exec")));

// Calls gettid(2).
std::uint32_t fetch_thread_id();

inline std::uint32_t thread_id() {
  const std::uint32_t id = t_thread_id;
  return __builtin_expect(id != 0, 1) ? id : fetch_thread_id();
}

} // namespace vorn

#endif
