// The process-private mutex behind the library's own flags and tables; std::lock_guard holds it.
// It is constant-initialised, so it serves before and after static constructors have run.
#ifndef VORN_BASE_MUTEX_HPP
#define VORN_BASE_MUTEX_HPP

#include <mutex>
#include <pthread.h>

namespace vorn {

class Mutex {
public:
  constexpr Mutex() = default;
  Mutex(const Mutex &) = delete;
  Mutex &operator=(const Mutex &) = delete;

  void lock() { pthread_mutex_lock(&mutex_); }
  void unlock() { pthread_mutex_unlock(&mutex_); }

private:
  pthread_mutex_t mutex_ = PTHREAD_MUTEX_INITIALIZER;
};

using MutexGuard = std::lock_guard<Mutex>;

} // namespace vorn

#endif
