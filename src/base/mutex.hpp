// The process-private mutex of the library's own flags and tables. It is constant-initialised, so
// that it serves before and after static constructors have run. A child of fork() finds it free.
#ifndef VORN_BASE_MUTEX_HPP
#define VORN_BASE_MUTEX_HPP

#include <pthread.h>

#include "base/cancellation_off.hpp"
#include "base/fork_gate.hpp"

namespace vorn {

class Mutex {
public:
  constexpr Mutex() = default;
  Mutex(const Mutex &) = delete;
  Mutex &operator=(const Mutex &) = delete;

  void lock() {
    enter_fork_gate();
    pthread_mutex_lock(&mutex_);
  }
  void unlock() {
    pthread_mutex_unlock(&mutex_);
    leave_fork_gate();
  }

private:
  pthread_mutex_t mutex_ = PTHREAD_MUTEX_INITIALIZER;
};

// A mutex that its holder keeps while it waits for another process. It stays outside the fork gate,
// or fork() would wait for that process too. Its module names a ForkChild that renews it.
class UngatedMutex {
public:
  constexpr UngatedMutex() = default;
  UngatedMutex(const UngatedMutex &) = delete;
  UngatedMutex &operator=(const UngatedMutex &) = delete;

  void lock() { pthread_mutex_lock(&mutex_); }
  void unlock() { pthread_mutex_unlock(&mutex_); }

  // In a child, where the holder does not exist.
  void renew() { mutex_ = PTHREAD_MUTEX_INITIALIZER; }

private:
  pthread_mutex_t mutex_ = PTHREAD_MUTEX_INITIALIZER;
};

// Holds a mutex for the length of a block, in which the thread is not cancelled.
template <class AnyMutex = Mutex> class MutexGuard {
public:
  explicit MutexGuard(AnyMutex &mutex) : mutex_(mutex) { mutex_.lock(); }
  MutexGuard(const MutexGuard &) = delete;
  MutexGuard &operator=(const MutexGuard &) = delete;
  ~MutexGuard() { mutex_.unlock(); }

private:
  const CancellationOff off_; // before the lock is taken, until after it was released
  AnyMutex &mutex_;
};

} // namespace vorn

#endif
