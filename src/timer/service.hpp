// Declares what the two timer services share: their thread, the call of a timer's function, and the
// count of forks that tells which timers are pending.
// SPDX-License-Identifier: Apache-2.0
#ifndef VORN_TIMER_SERVICE_HPP
#define VORN_TIMER_SERVICE_HPP

#include <atomic>
#include <cstdint>
#include <pthread.h>

#include "vorn_timer.h"

namespace vorn::timer {

// The thread of a service.
struct Service {
  const char *name;
  unsigned int priority; // of vorn_thrd_setprio
  unsigned int strategy;
  void (*run)();      // returns only in a child of fork(), called by a timer's function
  void (*end_call)(); // called if a function ends the thread
  std::atomic<int> *state;
  int stopped;        // the state if no other thread can be started
  const char *file;   // the file that log messages name
  const char *module; // the function that log messages name
};

// Starts the thread and binds it. Returns 0; on failure, logs an error and returns -1.
int start_thread(const Service &service);

// Returns the number of this process as an owner of timers, which is never 0. A timer with another
// owner was armed before the fork that created this process: it is not pending, whatever its links
// contain.
std::uint32_t fork_count();

// The size of a copy of a name: the timer's function may unload or free the original.
inline constexpr std::size_t kNameSize = 64;

// A copy of what the call needs: the function may free its timer.
class Call {
public:
  explicit Call(const vorn_timer_s &timer);

  // Calls the function and returns its duration in milliseconds.
  std::uint64_t run() const;

  const vorn_timer_s *timer() const { return timer_; }
  vorn_timer_f function() const { return function_; }
  const char *added_by() const { return added_by_; }

private:
  const vorn_timer_s *timer_;
  vorn_timer_f function_;
  std::uint64_t data_;
  char added_by_[kNameSize];
};

// The timer whose function is running, and the threads that wait for the end of that call. The
// service's lock guards it.
//
// The end of the call wakes the waiting threads and disarms the timer for them: a function that
// arms its timer again each time cannot keep them waiting.
class Running {
public:
  // On the stack of a waiting thread. Not valid after over is true.
  struct Waiter {
    Waiter *next = nullptr;
    std::atomic<bool> over{false};
  };

  bool is(const vorn_timer_s *timer) const { return timer_ == timer; }

  // Returns whether the calling thread is running a function, or this timer's function.
  bool in_function() const { return timer_ != nullptr && pthread_equal(thread_, pthread_self()); }
  bool in_function_of(const vorn_timer_s *timer) const { return is(timer) && in_function(); }

  void begin(vorn_timer_s *timer);
  void add(Waiter &waiter);

  // Calls disarm(timer) if a thread waits: the timer still exists then.
  template <class Disarm> void end(Disarm disarm) {
    if (waiters_ != nullptr) disarm(timer_);
    timer_ = nullptr;
    release_waiters();
  }

private:
  void release_waiters();

  vorn_timer_s *timer_ = nullptr;
  Waiter *waiters_ = nullptr;
  pthread_t thread_{};
};

// Waits without the lock, and yields the processor meanwhile.
void wait_for(const Running::Waiter &waiter);

} // namespace vorn::timer

#endif
