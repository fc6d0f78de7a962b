// A child of fork() that does some of a test's work.
#ifndef VORN_TESTS_CHILD_HPP
#define VORN_TESTS_CHILD_HPP

#include <csignal>
#include <sys/wait.h>
#include <unistd.h>

// The address sanitizer's own allocator does not survive a fork beside a thread that allocates.
#ifdef __SANITIZE_ADDRESS__
inline constexpr bool kMayForkBesideAllocation = false;
#else
inline constexpr bool kMayForkBesideAllocation = true;
#endif

// The user-mode emulator does not survive a fork beside a thread that closes a descriptor: the
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

// The exit code of a child that ends with what work returns; -1 where it was killed, as after a
// minute.
template <class Work> int run_in_child(Work work) {
  const pid_t child = fork();
  if (child == 0) {
    signal(SIGALRM, SIG_DFL); // the library's handler would but dump the stack
    alarm(60);
    _exit(work());
  }
  int status = -1;
  return waitpid(child, &status, 0) == child ? exit_code(status) : -1;
}

#endif
