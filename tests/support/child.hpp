// Runs a part of a test in a child of fork().
// SPDX-License-Identifier: Apache-2.0
#ifndef VORN_TESTS_CHILD_HPP
#define VORN_TESTS_CHILD_HPP

#include <csignal>
#include <filesystem>
#include <iterator>
#include <sys/wait.h>
#include <unistd.h>

#include "support/threads.hpp"

// The allocators of the sanitizers do not survive a fork while another thread allocates: the
// child finds their locks held.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
inline constexpr bool kMayForkBesideAllocation = false;
#else
inline constexpr bool kMayForkBesideAllocation = true;
#endif

// The user-mode emulator does not survive a fork while another thread closes a descriptor: the
// child waits forever for the lock of the emulator's own descriptor table.
#ifdef VORN_TEST_EMULATED
inline constexpr bool kMayForkBesideClosing = false;
#else
inline constexpr bool kMayForkBesideClosing = true;
#endif

// The thread sanitizer ends a child that starts a thread.
#ifdef __SANITIZE_THREAD__
inline constexpr bool kMayStartThreadsInChild = false;
#else
inline constexpr bool kMayStartThreadsInChild = true;
#endif

inline int exit_code(int status) { return WIFEXITED(status) ? WEXITSTATUS(status) : -1; }

// Waits under the emulator until no thread has started or ended for a while. A thread that does so
// holds a lock of the emulator. The child of a fork at that moment inherits the lock, and waits
// forever when it starts a thread itself.
inline void await_steady_threads() {
#ifdef VORN_TEST_EMULATED
  const auto threads = [] {
    return std::distance(std::filesystem::directory_iterator{"/proc/self/task"}, {});
  };
  auto before = threads();
  int equal = 0;
  soon([&] {
    const auto now = threads();
    equal = now == before ? equal + 1 : 0;
    before = now;
    return equal == 50;
  });
#endif
}

// Runs work in a child that exits with its result. Returns the exit code, or -1 if the child was
// killed; it is killed after a minute.
template <class Work> int run_in_child(Work work) {
  await_steady_threads();
  const pid_t child = fork();
  if (child == 0) {
    signal(SIGALRM, SIG_DFL); // the library's handler would only dump the stack
    alarm(60);
    _exit(work());
  }
  int status = -1;
  return waitpid(child, &status, 0) == child ? exit_code(status) : -1;
}

#endif
