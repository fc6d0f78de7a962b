// Takes and frees a spin lock inline, for a module whose own work is as short as the calls. The
// values of the word are those of the spin lock. Only the holder calls free_held, so a release
// store frees the lock, without a compare-and-swap.
// SPDX-License-Identifier: Apache-2.0
#ifndef VORN_LOCK_SPIN_INLINE_HPP
#define VORN_LOCK_SPIN_INLINE_HPP

#include <cstdint>

#include "base/atomic_word.hpp"
#include "vorn_spinlock.h"

namespace vorn::lock {

inline void take(vorn_spinlock_s &lock, const char *site, unsigned int line) {
  std::uint64_t free = 0;
  if (!atomic_word(lock.lock).compare_exchange_strong(free, 1, std::memory_order_acq_rel,
                                                      std::memory_order_relaxed))
    do_vorn_spinlock_lock(&lock.lock, site, line);
}

// Release: the next holder sees the writes of this one.
inline void free_held(vorn_spinlock_s &lock) {
  atomic_word(lock.lock).store(0, std::memory_order_release);
}

} // namespace vorn::lock

#endif
