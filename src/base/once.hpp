// Defines the once-initialiser: a flag that is tested before and after taking a mutex.
// SPDX-License-Identifier: Apache-2.0
#ifndef VORN_BASE_ONCE_HPP
#define VORN_BASE_ONCE_HPP

#include <atomic>

#include "base/mutex.hpp"

namespace vorn {

enum class OncePolicy {
  kRetry, // a failed step leaves the flag clear; the next call runs it again
  kLatch, // the first run sets the flag, whatever its result
};

// A step runs under the mutex. The thread is not cancelled during a step, and fork() waits for the
// end of the step unless the mutex is ungated. The flag is written only under the mutex, with
// release; a reader that loads it set, with acquire, sees everything that the step wrote.
template <class AnyMutex> class OnceUnder {
public:
  explicit constexpr OnceUnder(OncePolicy policy) : policy_(policy) {}
  OnceUnder(const OnceUnder &) = delete;
  OnceUnder &operator=(const OnceUnder &) = delete;

  bool done() const { return done_.load(std::memory_order_acquire); }

  // Runs step, which returns 0 on success, unless the flag is set. Returns 0, or the result of this
  // call's step.
  template <class Step> int run(Step step) {
    if (done()) [[likely]]
      return 0;
    return run_under_mutex(step);
  }

  // Undoes a run: if the flag is set, calls step and clears the flag.
  template <class Step> void reset(Step step) {
    if (!done()) return;
    MutexGuard hold{mutex_};
    if (!done_.load(std::memory_order_relaxed)) return;
    step();
    done_.store(false, std::memory_order_release);
  }

  // Called in a child of fork(), where the thread that ran the step does not exist: see
  // UngatedMutex.
  void renew() { mutex_.renew(); }

private:
  // Not inlined, so that the usual case costs the caller only one test.
  template <class Step> [[gnu::noinline]] int run_under_mutex(Step &step) {
    const MutexGuard hold{mutex_};
    if (done_.load(std::memory_order_relaxed)) return 0;
    const int result = step();
    done_.store(result == 0 || policy_ == OncePolicy::kLatch, std::memory_order_release);
    return result;
  }

  std::atomic<bool> done_{false};
  AnyMutex mutex_;
  OncePolicy policy_;
};

using Once = OnceUnder<Mutex>;

// For a step that may wait for another process.
using UngatedOnce = OnceUnder<UngatedMutex>;

} // namespace vorn

#endif
