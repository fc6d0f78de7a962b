// The spin lock's word:
//
//    63                                    1   0
//   +---------------------------------------+---+
//   |                   0                   | H |   H: held
//   +---------------------------------------+---+
//
// Writers. Who takes the lock makes 0 into 1, who frees it 1 into 0, both by a compare-and-swap: of
// all who try at one moment one gets the lock, and freeing a lock that is free, or memory that is
// no lock, changes nothing. Nobody writes anything else.
//
// Order. Both compare-and-swaps acquire and release: what a holder wrote is seen by the next. The
// loads of those who wait order nothing, they only tell when an attempt is worth the cache line.
//
// No ABA. A free lock is a free lock, however often it was taken since somebody looked: nothing is
// read before a compare-and-swap that it relies on.
#include "vorn_spinlock.h"

#include <cstdint>
#include <ctime>

#include "arch/pause.hpp"
#include "base/atomic_word.hpp"
#include "base/cancellation_off.hpp"
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
constexpr int kAttempts = 10; // between two looks at the clock
constexpr std::uint64_t kSpinNanoseconds = 99999;

// Read and written as a whole, and no more than that.
constinit std::atomic<std::uint64_t> flags{0};

bool swap(Word word, std::uint64_t from, std::uint64_t to) {
  return word.compare_exchange_strong(from, to, std::memory_order_acq_rel,
                                      std::memory_order_relaxed);
}

bool try_take(Word word) { return swap(word, kFree, kHeld); }

// An attempt on a word that is known to be held would fail: it need not be made to fail.
bool attempt(Word word) { return word.load(std::memory_order_relaxed) == kFree && try_take(word); }

// The time base reads 0 until it has been started. It is not started here, which takes a mutex that
// the thread may hold when a signal handler wants the lock; clock_gettime(2) is safe in a handler.
// A base that is started between two looks makes the difference a large number, which ends the
// spin.
std::uint64_t nanoseconds_now() {
  const std::uint64_t time = vorn_time_getnanosec();
  if (time != 0) return time;
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return nanoseconds(now);
}

bool spin(Word word) {
  const std::uint64_t start = nanoseconds_now();
  do {
    for (int i = 0; i < kAttempts; ++i) {
      arch::pause();
      if (attempt(word)) return true;
    }
  } while (nanoseconds_now() - start <= kSpinNanoseconds);
  return false;
}

// A function of its own, called by the lock itself: the two calls that the dump leaves out are this
// one and the lock, so that it begins with the one who wants the lock.
[[gnu::noinline]] bool spin_or_yield(Word word) {
  if (spin(word)) return true;
  const CancellationOff off; // the caller may hold other locks, or have its stack in a list
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
