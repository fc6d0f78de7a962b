// Implements the ticket reader-writer lock. Its two words are pairs of counters that wrap
// separately:
//
//    31            0  31            0  31            0  31            0
//   +---------------+---------------+---------------+---------------+
//   |  completions  |    write      |   requests    |     write     |
//   |               |  completions  |               |   requests    |
//   +---------------+---------------+---------------+---------------+
//     one 64-bit word: departures     one 64-bit word: arrivals
//
// Rule. Each arriving thread notes the requests before its own. A writer enters when completions
// has reached that number: all earlier threads have left. A reader enters when write completions
// has reached the number of earlier writers: all of these have left. Later threads wait for this
// one in turn, so no counter can pass the number that it waits for.
//
// Writers. A compare-and-swap of the pair changes both counters at once: no thread sees a writer in
// one counter and not in the other, and no carry passes from one to the other. A reader that leaves
// adds to its one counter alone. A writer that leaves stores the pair: no other thread leaves while
// a writer holds the lock.
//
// The inline functions of the header load and add to a counter of 32 bits alone, too. Both
// processors load and store an aligned pair as one, and a load of a half sees a release store of
// the pair whole. The writer's load of the pair when it leaves sees the last departure before it:
// the load that let the writer in has seen that.
//
// Order. Leaving releases. The load that ends a wait, or lets an attempt go on, acquires. Between
// two stores of writers, the changes of completions form one release sequence, and a writer that
// leaves has seen what all threads before it did; so an entering thread sees what all departed
// threads did. A full barrier would add nothing: no access of a holder passes its acquiring load or
// its release, and a thread sees another order of other accesses only if it uses no lock for them.
//
// No ABA. A trylock takes its number only if the requests still equal the completions that it
// compared them with: no thread has arrived in between. They would be equal again after 2^32
// acquisitions between two instructions. A waiting thread would take another's number for its own
// if 2^32 threads waited.
// SPDX-License-Identifier: Apache-2.0
#include "vorn_trwlock.h"

#include <bit>
#include <cstdint>

#include "arch/pause.hpp"
#include "base/atomic_word.hpp"

static_assert(offsetof(vorn_trwlock_s, completions) == 0);
static_assert(offsetof(vorn_trwlock_s, write_completions) == 4);
static_assert(offsetof(vorn_trwlock_s, requests) == 8);
static_assert(offsetof(vorn_trwlock_s, write_requests) == 12);
static_assert(sizeof(vorn_trwlock_s) == 16);
static_assert(alignof(vorn_trwlock_s) == 8);

namespace vorn::lock {
namespace {

// A pair as one word: readers and writers in the lower half, writers alone in the upper half.
using Counters = std::atomic_ref<std::uint64_t>;
static_assert(std::endian::native == std::endian::little);

constexpr std::uint64_t kUpper = std::uint64_t{UINT32_MAX} << 32;
constexpr std::uint64_t kReader = 1;
constexpr std::uint64_t kWriter = (std::uint64_t{1} << 32) + 1;

Counters pair_at(std::uint32_t &first) {
  return atomic_word(reinterpret_cast<std::uint64_t &>(first));
}

Counters completions(vorn_trwlock_s *lock) { return pair_at(lock->completions); }

Counters requests(vorn_trwlock_s *lock) { return pair_at(lock->requests); }

std::uint32_t all(std::uint64_t counters) { return static_cast<std::uint32_t>(counters); }

std::uint32_t writers(std::uint64_t counters) { return static_cast<std::uint32_t>(counters >> 32); }

// Adds each half separately.
std::uint64_t sum(std::uint64_t a, std::uint64_t b) {
  return ((a & kUpper) + (b & kUpper)) | all(a + b);
}

std::uint64_t peek(Counters pair) { return pair.load(std::memory_order_relaxed); }

// On failure, *seen is the present value of the pair.
bool try_add(Counters pair, std::uint64_t *seen, std::uint64_t addend) {
  return pair.compare_exchange_weak(*seen, sum(*seen, addend), std::memory_order_acq_rel,
                                    std::memory_order_relaxed);
}

// Returns the counters as they were before.
std::uint64_t add(Counters pair, std::uint64_t addend) {
  std::uint64_t seen = peek(pair);
  while (!try_add(pair, &seen, addend)) {
  }
  return seen;
}

std::uint64_t done(vorn_trwlock_s *lock) {
  return completions(lock).load(std::memory_order_acquire);
}

} // namespace
} // namespace vorn::lock

using namespace vorn::lock;

void do_vorn_trwlock_init(vorn_trwlock_s *lock, const char *, unsigned int) {
  completions(lock).store(0, std::memory_order_relaxed);
  requests(lock).store(0, std::memory_order_relaxed);
}

void do_vorn_trwlock_destroy(vorn_trwlock_s *, const char *, unsigned int) {}

void do_vorn_trwlock_read_lock(vorn_trwlock_s *lock, const char *, unsigned int) {
  const std::uint32_t before = writers(add(requests(lock), kReader));
  while (writers(done(lock)) != before)
    vorn::arch::pause();
}

void do_vorn_trwlock_read_unlock(vorn_trwlock_s *lock, const char *, unsigned int) {
  vorn_trwlock_read_release(lock);
}

int do_vorn_trwlock_read_trylock(vorn_trwlock_s *lock, const char *, unsigned int) {
  std::uint64_t seen = peek(requests(lock));
  do {
    if (writers(done(lock)) != writers(seen)) return 0;
  } while (!try_add(requests(lock), &seen, kReader));
  return 1;
}

void do_vorn_trwlock_write_lock(vorn_trwlock_s *lock, const char *, unsigned int) {
  const std::uint32_t before = all(add(requests(lock), kWriter));
  while (all(done(lock)) != before)
    vorn::arch::pause();
}

void do_vorn_trwlock_write_unlock(vorn_trwlock_s *lock, const char *, unsigned int) {
  vorn_trwlock_write_release(lock);
}

int do_vorn_trwlock_write_trylock(vorn_trwlock_s *lock, const char *, unsigned int) {
  std::uint64_t seen = peek(requests(lock));
  do {
    if (all(done(lock)) != all(seen)) return 0;
  } while (!try_add(requests(lock), &seen, kWriter));
  return 1;
}
