// What the two timer services have in common: their thread, the call of a timer's function, and the
// count of forks that tells whose timers are pending.
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
  void (*run)();      // returns in a child of fork() alone, that a timer's function has made
  void (*end_call)(); // of a function that has ended the thread
  std::atomic<int> *state;
  int stopped;        // the state if no other thread could be started then
  const char *file;   // of the log messages about it
  const char *module; // the function that starts it
};

// Starts the thread and binds it. 0, or -1 after a log message.
int start_thread(const Service &service);

// A timer whose owner is another number was armed before the fork that made this process: it is not
// pending, whatever its links say. No timer has the number 0.
std::uint32_t fork_count();

// A log message names a function that the timer's function may have unloaded, or freed.
inline constexpr std::size_t kNameSize = 64;

// What is to be called, read before: the function may free its timer.
class Call {
public:
  explicit Call(const vorn_timer_s &timer);

  // Calls the function, and returns the milliseconds that it took.
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

// The timer whose function is being called, and the threads that wait for the end of that call. The
// service's lock guards it.
//
// A thread that waits is told by the end of the call itself, and the timer is disarmed then on its
// behalf: a function that arms its timer again each time cannot keep it waiting.
class Running {
public:
  // On the stack of a thread that waits. It is gone once over is true.
  struct Waiter {
    Waiter *next = nullptr;
    std::atomic<bool> over{false};
  };

  bool is(const vorn_timer_s *timer) const { return timer_ == timer; }

  // Whether the calling thread is the one that calls a function, or this timer's.
  bool in_function() const { return timer_ != nullptr && pthread_equal(thread_, pthread_self()); }
  bool in_function_of(const vorn_timer_s *timer) const { return is(timer) && in_function(); }

  void begin(vorn_timer_s *timer);
  void add(Waiter &waiter);

  // disarm(timer) is called where a thread waits: its timer exists still.
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

// Waits without the lock, and gives the processor away meanwhile.
void wait_for(const Running::Waiter &waiter);

} // namespace vorn::timer

#endif
