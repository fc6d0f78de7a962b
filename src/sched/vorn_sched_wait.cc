// Puts a thread to sleep on a word, and wakes it by a signal. No wake-up is lost. The waker stores
// 0 in the word and then sends the signal, which finds the waiting thread in one of these places:
//
//   - Before its test of the word. The thread sees 0 and does not sleep: the waker wrote the word
//     before it sent the signal, so a thread that has handled the signal sees the new value.
//   - Between the test and the sleep. The handler runs and returns, and leaves no trace in the
//     thread. The kernel prevents the sleep: it compares the word with the tested value and returns
//     at once if they differ.
//   - In the kernel, after the comparison and before the sleep. A thread with a pending signal does
//     not sleep. If the waker sent the signal before it stored 0, the thread could have handled the
//     signal already.
//   - Asleep. The handler runs, and the sleep ends with EINTR.
//   - Gone: it has seen the 0 by itself. The signal is late and may interrupt another call of the
//     thread. If the thread has ended and its id is in use again, the signal does that thread no
//     harm.
//
// The waker does not also wake the futex. That would reach a thread that blocks the signal, but it
// costs a system call. It would also hide the fault of that thread until the thread runs with a
// kernel module, which uses only signals.
//
// The sleep always has a deadline, of at most 292 years: the kernel restarts a sleep without a
// deadline after a handler that was installed with SA_RESTART.
// SPDX-License-Identifier: Apache-2.0
#define VORN_FILE "vorn_sched.c"

#include "vorn_sched.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <ctime>
#include <unistd.h>

#include "base/atomic_word.hpp"
#include "base/cancellation_guard.hpp"
#include "base/fork_gate.hpp"
#include "base/futex.hpp"
#include "base/kernel_request.hpp"
#include "base/log.hpp"
#include "base/once.hpp"

namespace vorn::sched {
namespace {

constexpr std::int64_t kTicksPerSecond = 250;
constexpr std::int64_t kNanosecondsPerSecond = 1000000000;
constexpr std::int64_t kNanosecondsPerTick = kNanosecondsPerSecond / kTicksPerSecond;
constexpr std::int64_t kInterruptibleTicks = 250;

constinit std::atomic<bool> installed{false};
constinit std::atomic<bool> module_absent{false};
constinit thread_local bool t_admitted = false;

constinit Once sched_init_once{OncePolicy::kLatch};
constinit int s_sched_init = -1;

void on_wakeup(int) {}

// fork() copies the handlers before the memory: a child may inherit the flag of an installation
// without the handler.
const ForkChild install_anew{[] { installed.store(false, std::memory_order_relaxed); }};

// Two threads that install the handler at the same time do the same.
int wakeup_signal_init() {
  if (installed.load(std::memory_order_acquire)) return 0;
  struct sigaction action {};
  sigemptyset(&action.sa_mask);
  action.sa_handler = on_wakeup;
  action.sa_flags = SA_RESTART;
  if (sigaction(SIGWAKEUP, &action, nullptr) != 0)
    return VORN_FAIL(-1, "signal SIGWAKEUP(%d) fail errno(%d)", SIGWAKEUP, errno);
  installed.store(true, std::memory_order_release);
  return 0;
}

// A thread that starts with all signals blocked would never wake.
void admit_wakeup_signal() {
  if (t_admitted) return;
  sigset_t wakeup;
  sigemptyset(&wakeup);
  sigaddset(&wakeup, SIGWAKEUP);
  t_admitted = pthread_sigmask(SIG_UNBLOCK, &wakeup, nullptr) == 0;
}

timespec now() {
  timespec time;
  clock_gettime(CLOCK_MONOTONIC, &time);
  return time;
}

// For any number of ticks, the sum of their seconds and the clock's does not overflow.
timespec after(std::int64_t ticks) {
  timespec time = now();
  time.tv_sec += ticks / kTicksPerSecond;
  time.tv_nsec += ticks % kTicksPerSecond * kNanosecondsPerTick;
  if (time.tv_nsec >= kNanosecondsPerSecond) {
    time.tv_nsec -= kNanosecondsPerSecond;
    ++time.tv_sec;
  }
  return time;
}

// Rounded up to at least one: the wait ended before its deadline.
std::uint64_t ticks_until(const timespec &deadline) {
  const timespec time = now();
  std::int64_t seconds = deadline.tv_sec - time.tv_sec;
  std::int64_t nanoseconds = deadline.tv_nsec - time.tv_nsec;
  if (nanoseconds < 0) {
    nanoseconds += kNanosecondsPerSecond;
    --seconds;
  }
  const std::int64_t ticks =
      seconds * kTicksPerSecond + (nanoseconds + kNanosecondsPerTick - 1) / kNanosecondsPerTick;
  return ticks > 0 ? static_cast<std::uint64_t>(ticks) : 1;
}

std::uint32_t load(const std::uint32_t *word) {
  return atomic_word(*word).load(std::memory_order_acquire);
}

std::uint64_t wait_for_word(const std::uint32_t *word, std::int64_t timeout) {
  std::uint32_t value = load(word);
  if (value == 0) return static_cast<std::uint64_t>(timeout);
  const timespec deadline = after(timeout);
  for (;;) {
    const int error = futex_wait(word, value, &deadline);
    value = load(word);
    if (value == 0 || error == EINTR) return ticks_until(deadline);
    if (error != 0 && error != EAGAIN) return 0;
  }
}

// Returns whether a kernel module made the wait; *left is the result then.
bool wait_in_module(std::uint32_t *word, std::int64_t timeout, unsigned long *left) {
  if (module_absent.load(std::memory_order_relaxed)) return false;
  const CancellationGuard off; // the kernel module may be simulated
  const long result = kernel_call(VORN_SYSCALL_WAIT, word, &timeout, left);
  if (result == -1 && errno == ENOSYS) {
    module_absent.store(true, std::memory_order_relaxed);
    return false;
  }
  if (result == 0) *left = 0;
  return true;
}

} // namespace
} // namespace vorn::sched

using namespace vorn::sched;

uint64_t vorn_wait_comm(uint32_t *word, int64_t timeout) {
  const int refused = wakeup_signal_init();
  if (timeout <= 0) return 0;
  if (refused == 0) admit_wakeup_signal();
  unsigned long left = 0;
  if (wait_in_module(word, timeout, &left)) return left;
  return wait_for_word(word, timeout);
}

int vorn_wait_interruptible(uint32_t *word) {
  return vorn_wait_comm(word, kInterruptibleTicks) != 0 ? -1 : 0;
}

int vorn_wake_up_process(uint32_t tid) {
  if (wakeup_signal_init() != 0) return errno;
  return tgkill(getpid(), static_cast<pid_t>(tid), SIGWAKEUP) == 0 ? 0 : errno;
}

int vorn_sched_init() {
  sched_init_once.run([] {
    s_sched_init = wakeup_signal_init();
    return 0;
  });
  const int result = s_sched_init;
  return result == 0 ? 0 : VORN_FAIL(-1, "sched init fail s_sched_init(%d)", result);
}
