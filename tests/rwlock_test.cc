// Tests the reader-writer lock.
// SPDX-License-Identifier: Apache-2.0
#include "vorn_rwlock.h"

#include <functional>
#include <gtest/gtest.h>
#include <thread>
#include <unistd.h>

#include "support/lock_stress.hpp"
#include "vorn_sched.h"

namespace {

// The sleep that the library sees.
std::function<void(unsigned int)> g_sleep = [](unsigned int microseconds) { usleep(microseconds); };

} // namespace

extern "C" void vorn_usleep(unsigned int microseconds) { g_sleep(microseconds); }

namespace {

constexpr int64_t kWriter = -1;
constexpr int64_t kMayblockWriter = INT64_MIN;

// The macros, which take a free lock inline.
void read_lock(vorn_rwlock_s *lock) { vorn_rwlock_read_lock(lock); }
void write_lock(vorn_rwlock_s *lock) { vorn_rwlock_write_lock(lock); }

// The word of a held lock, the call that waits for it, and the word after that call.
struct Wait {
  int64_t held;
  void (*acquire)(vorn_rwlock_s *);
  int64_t taken;
};

// Calls that may block sleep for a microsecond at a time until the lock is free.
TEST(Rwlock, WaitsUntilTheLockIsFree) {
  const Wait sleeping[] = {
      {kWriter, vorn_rwlock_read_lock_mayblock, 1},
      {kMayblockWriter, vorn_rwlock_write_lock_mayblock, kMayblockWriter},
      {2, vorn_rwlock_write_lock_mayblock, kMayblockWriter},
  };
  for (const Wait &wait : sleeping) {
    vorn_rwlock_s lock{wait.held};
    int sleeps = 0;
    g_sleep = [&](unsigned int microseconds) {
      EXPECT_EQ(microseconds, 1u);
      EXPECT_EQ(lock.word, wait.held);
      if (++sleeps == 3) lock.word = 0;
    };
    wait.acquire(&lock);
    EXPECT_EQ(sleeps, 3);
    EXPECT_EQ(lock.word, wait.taken);
  }

  g_sleep = [](unsigned int) { ADD_FAILURE() << "slept"; };
  vorn_rwlock_s free_lock = VORN_RWLOCK_INIT;
  write_lock(&free_lock);
  EXPECT_EQ(free_lock.word, kWriter);
  const Wait spinning[] = {
      {kMayblockWriter, read_lock, 1}, {kWriter, write_lock, kWriter}, {2, write_lock, kWriter}};
  for (const Wait &wait : spinning) {
    vorn_rwlock_s lock{wait.held};
    EXPECT_EQ(vorn_rwlock_try_read_lock(&lock), wait.held == 2 ? 1 : 0);
    lock.word = wait.held;
    std::thread waiting([&] { wait.acquire(&lock); });
    usleep(2000);
    EXPECT_EQ(__atomic_load_n(&lock.word, __ATOMIC_RELAXED), wait.held);
    __atomic_store_n(&lock.word, 0, __ATOMIC_RELEASE);
    waiting.join();
    EXPECT_EQ(lock.word, wait.taken);
  }
}

stress::Role role(vorn_rwlock_s &lock, void (*acquire)(vorn_rwlock_s *), stress::Use use) {
  const auto release = use == stress::kChange ? vorn_rwlock_write_unlock : vorn_rwlock_read_unlock;
  return {[=, &lock] { return acquire(&lock), true; }, [=, &lock] { release(&lock); }, use};
}

TEST(Rwlock, Stress) {
  vorn_rwlock_s lock = VORN_RWLOCK_INIT;
  const stress::Role tries{[&] { return vorn_rwlock_try_read_lock(&lock) != 0; },
                           [&] { vorn_rwlock_read_unlock(&lock); }, stress::kRead};
  EXPECT_NO_DAMAGE(
      stress::run({role(lock, write_lock, stress::kChange), role(lock, read_lock, stress::kRead),
                   role(lock, vorn_rwlock_write_lock, stress::kChange),
                   role(lock, vorn_rwlock_write_lock_mayblock, stress::kChange),
                   role(lock, vorn_rwlock_read_lock, stress::kRead),
                   role(lock, vorn_rwlock_read_lock_mayblock, stress::kRead), tries}));
  EXPECT_EQ(lock.word, 0);
}

} // namespace
