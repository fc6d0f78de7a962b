// Defines guards that hold a spin lock, or release it, for a scope. Each acts in the name of the
// enclosing function, or of the given site.
// SPDX-License-Identifier: Apache-2.0
#ifndef VORN_LOCK_SPIN_GUARD_HPP
#define VORN_LOCK_SPIN_GUARD_HPP

#include <mutex>

#include "base/cancellation_guard.hpp"
#include "base/fork_gate.hpp"
#include "vorn_spinlock.h"

namespace vorn::lock {

class SpinGuard {
public:
  explicit SpinGuard(vorn_spinlock_s &lock, const char *site = __builtin_FUNCTION(),
                     unsigned int line = __builtin_LINE())
      : word_(&lock.lock), held_(true) {
    vorn_spinlock_take(word_, site, line);
  }

  // Takes the lock only if it is free.
  SpinGuard(vorn_spinlock_s &lock, std::try_to_lock_t, const char *site = __builtin_FUNCTION(),
            unsigned int line = __builtin_LINE())
      : word_(&lock.lock), held_(do_vorn_spinlock_trylock(word_, site, line) != 0) {}

  SpinGuard(const SpinGuard &) = delete;
  SpinGuard &operator=(const SpinGuard &) = delete;

  ~SpinGuard() {
    if (held_) vorn_spinlock_release(word_);
  }

  explicit operator bool() const { return held_; }

private:
  uint64_t *word_;
  bool held_;
};

// The same inside the fork gate, so that no child inherits the lock as held, and without
// cancellation. Not safe in a signal handler.
class GatedSpinGuard {
public:
  explicit GatedSpinGuard(vorn_spinlock_s &lock, const char *site = __builtin_FUNCTION(),
                          unsigned int line = __builtin_LINE())
      : lock_(lock, site, line) {}

private:
  struct Gate {
    Gate() { enter_fork_gate(); }
    Gate(const Gate &) = delete;
    Gate &operator=(const Gate &) = delete;
    ~Gate() { leave_fork_gate(); }
  };

  const CancellationGuard off_;
  const Gate gate_;
  const SpinGuard lock_;
};

// Releases a held lock; takes it again at the end of the scope.
class SpinRelease {
public:
  explicit SpinRelease(vorn_spinlock_s &lock, const char *site = __builtin_FUNCTION(),
                       unsigned int line = __builtin_LINE())
      : word_(&lock.lock), site_(site), line_(line) {
    vorn_spinlock_release(word_);
  }

  SpinRelease(const SpinRelease &) = delete;
  SpinRelease &operator=(const SpinRelease &) = delete;

  ~SpinRelease() { vorn_spinlock_take(word_, site_, line_); }

private:
  uint64_t *word_;
  const char *site_;
  unsigned int line_;
};

} // namespace vorn::lock

#endif
