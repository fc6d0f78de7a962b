// Defines the process-private mutex of the library's flags and tables. It is constant-initialised
// and so usable before static constructors run and after destructors have run. It is free in a
// child of fork().
// SPDX-License-Identifier: Apache-2.0
#ifndef VORN_BASE_MUTEX_HPP
#define VORN_BASE_MUTEX_HPP

#include <pthread.h>

#include "base/cancellation_guard.hpp"
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

// A mutex whose holder may wait for another process. It stays outside the fork gate, or fork()
// would wait for that process too. A ForkChild of its module renews it.
class UngatedMutex {
public:
  constexpr UngatedMutex() = default;
  UngatedMutex(const UngatedMutex &) = delete;
  UngatedMutex &operator=(const UngatedMutex &) = delete;

  void lock() { pthread_mutex_lock(&mutex_); }
  void unlock() { pthread_mutex_unlock(&mutex_); }

  // Called in a child of fork(), where the holder does not exist.
  void renew() { mutex_ = PTHREAD_MUTEX_INITIALIZER; }

private:
  pthread_mutex_t mutex_ = PTHREAD_MUTEX_INITIALIZER;
};

// Holds a mutex for a scope, in which the thread is not cancelled.
template <class AnyMutex = Mutex> class MutexGuard {
public:
  explicit MutexGuard(AnyMutex &mutex) : mutex_(mutex) { mutex_.lock(); }
  MutexGuard(const MutexGuard &) = delete;
  MutexGuard &operator=(const MutexGuard &) = delete;
  ~MutexGuard() { mutex_.unlock(); }

private:
  const CancellationGuard off_; // from before the lock until after the unlock
  AnyMutex &mutex_;
};

} // namespace vorn

#endif
