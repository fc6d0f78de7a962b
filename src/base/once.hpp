// The one lazy start of the library: a flag tested before and after taking a mutex.
#ifndef VORN_BASE_ONCE_HPP
#define VORN_BASE_ONCE_HPP

#include <atomic>

#include "base/mutex.hpp"

namespace vorn {

enum class OncePolicy {
  kRetry, // a failed step leaves the flag clear: the next call runs it again
  kLatch, // the first run counts, whatever its result
};

// A step runs under the mutex: the thread is not cancelled in it, and a fork waits for its end
// unless the mutex is ungated. The flag is written under the mutex only, with release; a reader
// that sees it set with acquire sees everything the step wrote.
template <class AnyMutex> class OnceUnder {
public:
  explicit constexpr OnceUnder(OncePolicy policy) : policy_(policy) {}
  OnceUnder(const OnceUnder &) = delete;
  OnceUnder &operator=(const OnceUnder &) = delete;

  bool done() const { return done_.load(std::memory_order_acquire); }

  // Runs step, which returns 0 on success, unless an earlier run counts. The result is 0, or what
  // the step of this call returned.
  template <class Step> int run(Step step) {
    if (done()) [[likely]]
      return 0;
    return run_under_mutex(step);
  }

  // Undoes a run: calls step and clears the flag, unless there is nothing to undo.
  template <class Step> void reset(Step step) {
    if (!done()) return;
    MutexGuard hold{mutex_};
    if (!done_.load(std::memory_order_relaxed)) return;
    step();
    done_.store(false, std::memory_order_release);
  }

  // In a child of fork(), where the thread that ran the step does not exist: see UngatedMutex.
  void renew() { mutex_.renew(); }

private:
  // Apart, so that the usual case costs its caller one test and no more.
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

// For a step that waits for another process.
using UngatedOnce = OnceUnder<UngatedMutex>;

} // namespace vorn

#endif
