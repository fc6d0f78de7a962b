// Tests the ticket reader-writer lock.
// SPDX-License-Identifier: Apache-2.0
#include "vorn_trwlock.h"

#include <cstring>
#include <gtest/gtest.h>
#include <ostream>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

#include "support/lock_stress.hpp"

bool operator==(const vorn_trwlock_s &a, const vorn_trwlock_s &b) {
  return std::memcmp(&a, &b, sizeof a) == 0;
}

std::ostream &operator<<(std::ostream &out, const vorn_trwlock_s &lock) {
  return out << lock.completions << ' ' << lock.write_completions << ' ' << lock.requests << ' '
             << lock.write_requests;
}

namespace {

using Lock = vorn_trwlock_s;

constexpr uint32_t kMax = UINT32_MAX;

TEST(Trwlock, TrylocksFailIfAnotherHoldsOrWaits) {
  const struct {
    const char *state;
    Lock lock;
    int read, write;
  } rows[] = {
      {"free", {5, 2, 5, 2}, 1, 1},
      {"a reader is in", {5, 2, 6, 2}, 1, 0},
      {"a writer is in", {5, 2, 6, 3}, 0, 0},
      {"a writer waits for a reader", {5, 2, 7, 3}, 0, 0},
      {"a reader waits for a writer", {kMax, kMax, 1, 0}, 0, 0},
  };
  for (const auto &row : rows) {
    Lock lock = row.lock;
    EXPECT_EQ(vorn_trwlock_read_trylock(&lock), row.read) << row.state;
    EXPECT_EQ(lock == row.lock, row.read == 0) << row.state;
    lock = row.lock;
    EXPECT_EQ(vorn_trwlock_write_trylock(&lock), row.write) << row.state;
    EXPECT_EQ(lock == row.lock, row.write == 0) << row.state;
  }
}

// Lets threads request the held lock one after the other, releases it, and returns in which order
// they had it: the writers, and the number of readers between them.
template <class Release>
std::string served(Lock &lock, const std::string &arrivals, Release release) {
  std::string entered;
  int readers = 0; // since the last writer
  std::vector<std::thread> threads;
  for (const char arrival : arrivals) {
    const uint32_t before = __atomic_load_n(&lock.requests, __ATOMIC_RELAXED);
    if (arrival == 'W') {
      threads.emplace_back([&] {
        vorn_trwlock_write_lock(&lock);
        if (readers != 0) entered += std::to_string(readers);
        __atomic_store_n(&readers, 0, __ATOMIC_RELAXED);
        entered += 'W';
        vorn_trwlock_write_unlock(&lock);
      });
    } else {
      threads.emplace_back([&] {
        vorn_trwlock_read_lock(&lock);
        __atomic_fetch_add(&readers, 1, __ATOMIC_RELAXED);
        vorn_trwlock_read_unlock(&lock);
      });
    }
    while (__atomic_load_n(&lock.requests, __ATOMIC_RELAXED) == before)
      usleep(100);
  }
  release();
  for (std::thread &thread : threads)
    thread.join();
  return entered;
}

TEST(Trwlock, CountersWrapSeparately) {
  Lock lock{kMax, 2, kMax, 2};
  vorn_trwlock_read_lock(&lock);
  EXPECT_EQ(lock, (Lock{kMax, 2, 0, 2}));
  vorn_trwlock_read_unlock(&lock);
  EXPECT_EQ(lock, (Lock{0, 2, 0, 2}));
  lock = {kMax, 2, kMax, 2};
  vorn_trwlock_write_lock(&lock);
  EXPECT_EQ(lock, (Lock{kMax, 2, 0, 3}));
  vorn_trwlock_write_unlock(&lock);
  EXPECT_EQ(lock, (Lock{0, 3, 0, 3}));
}

TEST(Trwlock, ServesWritersAndTheReadersBetweenThemInTheOrderOfArrival) {
  Lock lock{kMax - 1, kMax, kMax - 1, kMax};
  vorn_trwlock_write_lock(&lock);
  EXPECT_EQ(served(lock, "RWRRW", [&] { vorn_trwlock_write_unlock(&lock); }), "1W2W");
  vorn_trwlock_read_lock(&lock); // a reader waits for the writer that waits for a reader
  EXPECT_EQ(served(lock, "WRW", [&] { vorn_trwlock_read_unlock(&lock); }), "W1W");
}

// Few threads, since two CPUs run them. Each counter wraps during the test, at another time.
TEST(Trwlock, Stress) {
  Lock lock{kMax - 9000, kMax - 3000, kMax - 9000, kMax - 3000};
  const auto write_unlock = [&] { vorn_trwlock_write_unlock(&lock); };
  const auto read_unlock = [&] { vorn_trwlock_read_unlock(&lock); };
  const auto call_write_unlock = [&] { do_vorn_trwlock_write_unlock(&lock, "", 0); };
  const auto call_read_unlock = [&] { do_vorn_trwlock_read_unlock(&lock, "", 0); };
  const stress::Role call_write{[&] { return do_vorn_trwlock_write_lock(&lock, "", 0), true; },
                                call_write_unlock};
  const stress::Role write{[&] { return vorn_trwlock_write_lock(&lock), true; }, write_unlock};
  const stress::Role read{[&] { return vorn_trwlock_read_lock(&lock), true; }, read_unlock,
                          stress::kRead};
  const stress::Role try_write{[&] { return vorn_trwlock_write_trylock(&lock) != 0; },
                               call_write_unlock};
  const stress::Role try_read{[&] { return vorn_trwlock_read_trylock(&lock) != 0; },
                              call_read_unlock, stress::kRead};
  EXPECT_NO_DAMAGE(stress::run({write, read}));
  EXPECT_NO_DAMAGE(stress::run({write, call_write}));
  EXPECT_NO_DAMAGE(stress::run({write, try_read}));
  EXPECT_NO_DAMAGE(stress::run({write, try_write, try_read}));
  EXPECT_EQ(lock.completions, lock.requests);
  EXPECT_EQ(lock.write_completions, lock.write_requests);
}

} // namespace
