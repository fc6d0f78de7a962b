// Implements the spin lock. Its word:
//
//    63                                    1   0
//   +---------------------------------------+---+
//   |                   0                   | H |   H: held
//   +---------------------------------------+---+
//
// Writers. A thread takes the lock by a compare-and-swap of 0 to 1. Of several threads that try at
// the same time, one gets the lock. The exported function frees it by a compare-and-swap of 1 to 0;
// the macro and the guards free it by a store of 0, which does the same to the words 0 and 1. No
// thread writes another value.
//
// Order. A compare-and-swap acquires and releases, and the store releases: a holder sees the writes
// of the previous one.
// The loads of waiting threads order nothing; they only tell when an attempt is worth the cache
// line.
//
// No ABA. A free lock is free, however often it was taken since the last look: no compare-and-swap
// relies on an earlier read.
// SPDX-License-Identifier: Apache-2.0
#include "vorn_spinlock.h"

#include <algorithm>
#include <cstdint>
#include <ctime>

#include "arch/pause.hpp"
#include "base/atomic_word.hpp"
#include "base/cancellation_guard.hpp"
#include "base/timespec.hpp"
#include "vorn_sched.h"
#include "vorn_time.h"

static_assert(offsetof(vorn_spinlock_s, lock) == 0);
static_assert(offsetof(vorn_spinlock_s, magic) == 8);
static_assert(offsetof(vorn_spinlock_s, owner_cpu) == 12);
static_assert(offsetof(vorn_spinlock_s, owner) == 16);
static_assert(sizeof(vorn_spinlock_s) == 24);

namespace vorn::lock {
namespace {

using Word = std::atomic_ref<std::uint64_t>;

constexpr std::uint64_t kFree = 0;
constexpr std::uint64_t kHeld = 1;
constexpr int kAttempts = 10;                                // between two looks at the clock
constexpr int kMostPauses = arch::kPausesPerMicrosecond / 2; // between two attempts
constexpr std::uint64_t kSpinNanoseconds = 99999;

// Each thread reads and writes them as a whole, without order.
constinit std::atomic<std::uint64_t> flags{0};

bool swap(Word word, std::uint64_t from, std::uint64_t to) {
  return word.compare_exchange_strong(from, to, std::memory_order_acq_rel,
                                      std::memory_order_relaxed);
}

bool try_take(Word word) { return swap(word, kFree, kHeld); }

// Makes no attempt on a held lock: it would fail.
bool attempt(Word word) { return word.load(std::memory_order_relaxed) == kFree && try_take(word); }

// The time base reads 0 until it is started. This does not start it: that takes a mutex, which the
// thread may hold when its signal handler wants the lock. clock_gettime(2) is safe in a handler. If
// the base starts between two looks, the difference is large and ends the spin.
std::uint64_t nanoseconds_now() {
  const std::uint64_t time = vorn_time_getnanosec();
  if (time != 0) return time;
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return nanoseconds(now);
}

// Backs off: every look at a held lock takes the cache line from the holder, which needs it to
// release the lock. The time between two looks doubles, so a thread that misses the release waits
// at most about twice as long as it had to.
bool spin(Word word) {
  const std::uint64_t start = nanoseconds_now();
  int pauses = 1;
  do {
    for (int i = 0; i < kAttempts; ++i) {
      for (int n = 0; n < pauses; ++n)
        arch::pause();
      if (attempt(word)) return true;
      pauses = std::min(2 * pauses, kMostPauses);
    }
  } while (nanoseconds_now() - start <= kSpinNanoseconds);
  return false;
}

// Called directly by the lock operation and not inlined: the dump omits two calls, this one and the
// lock operation, and so begins with the caller that wants the lock.
[[gnu::noinline]] bool spin_or_yield(Word word) {
  if (spin(word)) return true;
  const CancellationGuard off; // the caller may hold other locks, or have its stack in a list
  if ((flags.load(std::memory_order_relaxed) & VORN_SPINLOCK_DUMP_STACK) != 0) debug_dump_stack(2);
  vorn_schedule();
  return false;
}

} // namespace
} // namespace vorn::lock

using namespace vorn::lock;

void do_vorn_spinlock_lock(uint64_t *lock, const char *, unsigned int) {
  const auto word = vorn::atomic_word(*lock);
  if (try_take(word)) return;
  while (!spin_or_yield(word) && !try_take(word)) {
  }
}

int do_vorn_spinlock_trylock(uint64_t *lock, const char *, unsigned int) {
  return try_take(vorn::atomic_word(*lock)) ? 1 : 0;
}

void do_vorn_spinlock_unlock(uint64_t *lock, const char *, unsigned int) {
  swap(vorn::atomic_word(*lock), kHeld, kFree);
}

int vorn_spinlock_set_flags(unsigned long bits) {
  flags.store(flags.load(std::memory_order_relaxed) | bits, std::memory_order_relaxed);
  return 0;
}

int vorn_spinlock_clear_flags(unsigned long bits) {
  flags.store(flags.load(std::memory_order_relaxed) & ~bits, std::memory_order_relaxed);
  return 0;
}

int vorn_spinlock_get_flags(unsigned long *out) {
  *out = flags.load(std::memory_order_relaxed);
  return 0;
}
