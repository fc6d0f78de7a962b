// Implements the ticket lock. Its two words, which diagnostic fields follow:
//
//    31            0  31            0
//   +---------------+---------------+
//   |    serving    |     next      |    serving == next: free
//   +---------------+---------------+    next - serving: the holder and the waiting threads
//
// 1. An arriving thread adds 1 to next atomically; the old value is its number.
// 2. It enters when serving equals its number.
// 3. It adds 1 to serving when it leaves.
//
// Writers. trylock changes next by a compare-and-swap. The addition to serving has 32 bits, so it
// does not carry into next. It is atomic because several threads may release a misused lock, and
// each release must advance it. magic, other and owner report misuse and decide nothing; threads
// read and write them as a whole, without order.
//
// Order. The addition to serving releases, and the load that finds the thread's own number
// acquires: a holder sees the writes of the previous one.
//
// No ABA. The numbers wrap after 2^32. A waiting thread keeps its number, so another thread can
// have the same number only if 2^32 threads wait. trylock reads serving equal to next before its
// compare-and-swap. It would take a held lock if, between these two instructions, other threads
// drew all numbers, which takes minutes, and one of the last still held the lock.
// SPDX-License-Identifier: Apache-2.0
#include "vorn_ticketlock.h"

#include <cstdint>
#include <cstring>

#include "arch/barrier.hpp"
#include "base/atomic_word.hpp"
#include "base/log.hpp"
#include "base/thread_id.hpp"

static_assert(offsetof(vorn_tspinlock_s, serving) == 0);
static_assert(offsetof(vorn_tspinlock_s, next) == 4);
static_assert(offsetof(vorn_tspinlock_s, magic) == 8);
static_assert(offsetof(vorn_tspinlock_s, other) == 12);
static_assert(offsetof(vorn_tspinlock_s, owner) == 16);
static_assert(sizeof(vorn_tspinlock_s) == 24);

namespace vorn::lock {
namespace {

constexpr std::uint32_t kNoOther = UINT32_MAX;
constexpr std::uint64_t kNobody = UINT64_MAX;

constexpr auto kRelaxed = std::memory_order_relaxed;

// operation is the exported function that found the misuse; function and line are its caller's.
[[gnu::cold, gnu::noinline]] void report(vorn_tspinlock_s *lock, const char *text,
                                         const char *operation, const char *function,
                                         std::uint32_t line) {
  const std::uint32_t tickets[] = {atomic_word(lock->serving).load(kRelaxed),
                                   atomic_word(lock->next).load(kRelaxed)};
  std::uint64_t both;
  static_assert(sizeof both == sizeof tickets);
  std::memcpy(&both, tickets, sizeof both);
  VORN_LOG_AS(operation, kInfo, "%s in %s:%u lock:0x%lx magic:0x%x owner:%lu other:%u", text,
              function, line, both, atomic_word(lock->magic).load(kRelaxed),
              atomic_word(lock->owner).load(kRelaxed), atomic_word(lock->other).load(kRelaxed));
}

bool is_initialised(vorn_tspinlock_s *lock) {
  return atomic_word(lock->magic).load(kRelaxed) == VORN_TSPINLOCK_MAGIC;
}

bool is_served(vorn_tspinlock_s *lock, std::uint32_t ticket) {
  return atomic_word(lock->serving).load(std::memory_order_acquire) == ticket;
}

} // namespace
} // namespace vorn::lock

using namespace vorn::lock;

void do_vorn_tspinlock_init(vorn_tspinlock_s *lock, const char *function, uint32_t line) {
  if (is_initialised(lock)) report(lock, "ReInited lock", __func__, function, line);
  vorn::atomic_word(lock->serving).store(0, kRelaxed);
  vorn::atomic_word(lock->next).store(0, kRelaxed);
  vorn::atomic_word(lock->magic).store(VORN_TSPINLOCK_MAGIC, kRelaxed);
  vorn::atomic_word(lock->other).store(kNoOther, kRelaxed);
  vorn::atomic_word(lock->owner).store(kNobody, kRelaxed);
}

void do_vorn_tspinlock_destroy(vorn_tspinlock_s *lock, const char *function, uint32_t line) {
  if (!is_initialised(lock)) report(lock, "UnInited lock", __func__, function, line);
  vorn::atomic_word(lock->magic).store(VORN_TSPINLOCK_DESTROYED, kRelaxed);
}

void do_vorn_tspinlock_lock(vorn_tspinlock_s *lock, const char *function, uint32_t line) {
  const std::uint32_t self = vorn::thread_id();
  if (!is_initialised(lock)) report(lock, "UnInited lock", __func__, function, line);
  if (vorn::atomic_word(lock->owner).load(kRelaxed) == self)
    report(lock, "AA lock", __func__, function, line);
  const std::uint32_t ticket =
      vorn::atomic_word(lock->next).fetch_add(1, std::memory_order_seq_cst);
  while (!is_served(lock, ticket)) {
  }
  vorn::arch::full_barrier_after_atomic();
  vorn::atomic_word(lock->owner).store(self, kRelaxed);
}

int do_vorn_tspinlock_trylock(vorn_tspinlock_s *lock, const char *function, uint32_t line) {
  const std::uint32_t self = vorn::thread_id();
  if (!is_initialised(lock)) report(lock, "UnInited lock", __func__, function, line);
  if (vorn::atomic_word(lock->owner).load(kRelaxed) == self)
    report(lock, "AA lock", __func__, function, line);
  const auto next = vorn::atomic_word(lock->next);
  std::uint32_t ticket = next.load(std::memory_order_relaxed);
  do {
    if (!is_served(lock, ticket)) return 0;
  } while (!next.compare_exchange_weak(ticket, ticket + 1, std::memory_order_acq_rel,
                                       std::memory_order_relaxed));
  vorn::atomic_word(lock->owner).store(self, kRelaxed);
  return 1;
}

void do_vorn_tspinlock_unlock(vorn_tspinlock_s *lock, const char *function, uint32_t line) {
  if (!is_initialised(lock)) report(lock, "UnInited lock", __func__, function, line);
  if (vorn::atomic_word(lock->owner).load(kRelaxed) != vorn::thread_id())
    report(lock, "AB lock", __func__, function, line);
  vorn::atomic_word(lock->owner).store(kNobody, kRelaxed);
  if (vorn::atomic_word(lock->next).load(kRelaxed) ==
      vorn::atomic_word(lock->serving).load(kRelaxed))
    report(lock, "ReUnlock", __func__, "ticket_unlock", line);
  vorn::atomic_word(lock->serving).fetch_add(1, std::memory_order_acq_rel);
}
