// Implements the plain reader-writer lock. Its word:
//
//    63  62                                    0
//   +---+---------------------------------------+
//   | W |                   n                   |
//   +---+---------------------------------------+
//
//   W 0: n readers hold the lock; it is free if n is 0
//   W 1: a writer holds it; n means nothing (all ones from vorn_rwlock_write_lock, 0 from its
//        _mayblock form)
//
// Writers. A reader enters by a compare-and-swap that adds 1 to a word with W clear; a writer
// enters by a compare-and-swap from 0. Both fail if the word has changed since it was read, so no
// thread enters beside a writer. A reader leaves by an atomic subtraction, so no subtraction of
// another reader is lost. A writer leaves by storing 0: no other thread writes while W is set.
//
// Order. Entering acquires and leaving releases. A writer that enters after readers reads the value
// that the last reader left. The subtractions, and the additions of readers between them, form one
// release sequence, so the writer sees what all of them did.
//
// The macros of the header take a free lock in the caller: a writer by the same compare-and-swap
// from 0; a reader by one from 0 and, if other readers are in, by one from the value that it found.
//
// No ABA. The word is the whole state: a word that has changed and changed back allows what it
// allowed before.
// SPDX-License-Identifier: Apache-2.0
#include "vorn_rwlock.h"

#include <cstdint>

#include "arch/pause.hpp"
#include "base/atomic_word.hpp"
#include "base/cancellation_guard.hpp"
#include "vorn_sched.h"

static_assert(offsetof(vorn_rwlock_s, word) == 0);
static_assert(sizeof(vorn_rwlock_s) == 8);

namespace vorn::lock {
namespace {

using Word = std::atomic_ref<std::int64_t>;

constexpr std::int64_t kFree = 0;
constexpr std::int64_t kWriter = -1;
constexpr std::int64_t kMayblockWriter = INT64_MIN;
constexpr int kAttempts = 10; // of a _mayblock operation before it sleeps
constexpr unsigned int kSleepMicroseconds = 1;

bool try_read_lock(Word word) {
  std::int64_t value = word.load(std::memory_order_relaxed);
  while (value >= 0) {
    if (word.compare_exchange_weak(value, value + 1, std::memory_order_acq_rel,
                                   std::memory_order_relaxed))
      return true;
  }
  return false;
}

bool try_write_lock(Word word, std::int64_t writer) {
  std::int64_t value = word.load(std::memory_order_relaxed);
  return value == kFree && word.compare_exchange_weak(value, writer, std::memory_order_acq_rel,
                                                      std::memory_order_relaxed);
}

template <class Attempt> void spin_until(Attempt attempt) {
  while (!attempt())
    arch::pause();
}

template <class Attempt> bool succeeds_in_a_round(Attempt attempt) {
  for (int i = 0; i < kAttempts; ++i) {
    if (attempt()) return true;
    arch::pause();
  }
  return false;
}

template <class Attempt> void sleep_until(Attempt attempt) {
  while (!succeeds_in_a_round(attempt)) {
    const CancellationGuard off; // the caller may hold other locks
    vorn_usleep(kSleepMicroseconds);
  }
}

} // namespace
} // namespace vorn::lock

using namespace vorn::lock;

void(vorn_rwlock_read_lock)(vorn_rwlock_s *lock) {
  const auto word = vorn::atomic_word(lock->word);
  spin_until([=] { return try_read_lock(word); });
}

int vorn_rwlock_try_read_lock(vorn_rwlock_s *lock) {
  return try_read_lock(vorn::atomic_word(lock->word)) ? 1 : 0;
}

void(vorn_rwlock_write_lock)(vorn_rwlock_s *lock) {
  const auto word = vorn::atomic_word(lock->word);
  spin_until([=] { return try_write_lock(word, kWriter); });
}

void vorn_rwlock_read_lock_mayblock(vorn_rwlock_s *lock) {
  sleep_until([=] { return vorn_rwlock_try_read_lock(lock) != 0; });
}

void vorn_rwlock_write_lock_mayblock(vorn_rwlock_s *lock) {
  const auto word = vorn::atomic_word(lock->word);
  sleep_until([=] { return try_write_lock(word, kMayblockWriter); });
}
