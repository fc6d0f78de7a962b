// Makes fork() wait for the threads that are inside the gate.
//
//   a thread that enters:  adds itself to `inside` of its counter, then reads `closed`
//   a thread that forks:   adds itself to `closed`, then reads `inside` of each counter
//
// All four accesses are sequentially consistent, so at least one thread sees the other: the
// entering thread steps back, or the forking thread waits for it. There are several counters, in
// separate cache lines, because threads on different CPUs enter all the time. Once the forking
// thread has read 0 in a counter, no thread of that counter stays inside.
//
// A nested entry does not count and does not read `closed`: a thread inside may need another lock
// to get out. A thread that forks from inside subtracts itself and waits for the others only. Until
// the gate is open again, signal handlers and functions of pthread_atfork(3) in the forking thread
// also enter without reading `closed`: otherwise they would wait for their own thread.
//
// The wait has a deadline, because a thread inside may be stopped, or wait for the forking thread.
// The child then inherits that thread's locks as they are.
// SPDX-License-Identifier: Apache-2.0
#include "base/fork_gate.hpp"

#include <atomic>
#include <cstdint>
#include <ctime>
#include <pthread.h>

#include "base/errno_guard.hpp"
#include "base/futex.hpp"
#include "base/timespec.hpp"

namespace vorn {
namespace {

constexpr int kPatienceMilliseconds = 5000;

struct alignas(64) Counter {
  std::atomic<std::uint32_t> inside{0};
};
constexpr unsigned int kCounters = 16;
constinit Counter counters[kCounters];
constinit std::atomic<unsigned int> next_counter{0};
// NULL until the thread enters for the first time.
thread_local constinit Counter *t_counter __attribute__((tls_model("initial-exec"))) = nullptr;

constinit std::atomic<std::uint32_t> closed{0};
thread_local constinit unsigned int t_depth __attribute__((tls_model("initial-exec"))) = 0;
// Forks that the thread has begun: more than one if a signal handler forks during a fork.
thread_local constinit unsigned int t_forking __attribute__((tls_model("initial-exec"))) = 0;

constinit ForkChild *children = nullptr; // linked while the library is loaded

// Waits at most a millisecond, so that a lost wake-up does no harm.
void wait_for_change(const std::atomic<std::uint32_t> &word, std::uint32_t value) {
  const timespec deadline = monotonic_after(1000000);
  futex_wait(&word, value, &deadline);
}

Counter &choose_counter() {
  t_counter = &counters[next_counter.fetch_add(1, std::memory_order_relaxed) % kCounters];
  return *t_counter;
}

void step_out(Counter &own) {
  own.inside.fetch_sub(1, std::memory_order_release);
  if (closed.load(std::memory_order_relaxed) != 0) futex_wake_all(&own.inside);
}

// Returns how often the calling thread is in that counter.
std::uint32_t own_count(const Counter &counter) {
  return t_depth != 0 && &counter == t_counter ? 1 : 0;
}

std::int64_t milliseconds_now() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<std::int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

void close_gate() {
  const ErrnoGuard errno_stays;
  ++t_forking; // from before the gate closes until after it opens
  closed.fetch_add(1, std::memory_order_seq_cst);
  const std::int64_t end = milliseconds_now() + kPatienceMilliseconds;
  for (const Counter &counter : counters) {
    for (;;) {
      const std::uint32_t inside = counter.inside.load(std::memory_order_seq_cst);
      if (inside <= own_count(counter) || milliseconds_now() >= end) break;
      wait_for_change(counter.inside, inside);
    }
  }
}

void open_in_parent() {
  const ErrnoGuard errno_stays;
  if (closed.fetch_sub(1, std::memory_order_release) == 1) futex_wake_all(&closed);
  --t_forking;
}

void open_in_child() {
  const ErrnoGuard errno_stays;
  for (Counter &counter : counters)
    counter.inside.store(own_count(counter), std::memory_order_relaxed);
  closed.store(t_forking - 1, std::memory_order_relaxed);
  --t_forking;
  ForkChild::run_all();
}

[[gnu::constructor]] void watch_forks() {
  pthread_atfork(close_gate, open_in_parent, open_in_child);
}

} // namespace

void enter_fork_gate() {
  if (t_depth++ != 0) return;
  Counter &own = t_counter != nullptr ? *t_counter : choose_counter();
  own.inside.fetch_add(1, std::memory_order_seq_cst);
  while (closed.load(std::memory_order_seq_cst) != 0 && t_forking == 0) {
    const ErrnoGuard errno_stays;
    step_out(own);
    for (std::uint32_t seen = 0; (seen = closed.load(std::memory_order_acquire)) != 0;)
      wait_for_change(closed, seen);
    own.inside.fetch_add(1, std::memory_order_seq_cst);
  }
}

void leave_fork_gate() {
  if (--t_depth != 0) return;
  const ErrnoGuard errno_stays;
  step_out(*t_counter);
}

ForkChild::ForkChild(void (*run)()) : run_(run), next_(children) { children = this; }

void ForkChild::run_all() {
  for (const ForkChild *child = children; child != nullptr; child = child->next_)
    child->run_();
}

} // namespace vorn
