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

TEST(Trwlock, CountsEveryoneAndWritersSeparatelyAcrossTheWrap) {
  Lock lock{kMax, 7, kMax, 7};
  vorn_trwlock_read_lock(&lock);
  EXPECT_EQ(vorn_trwlock_read_trylock(&lock), 1); // beside the first
  EXPECT_EQ(lock, (Lock{kMax, 7, 1, 7}));
  vorn_trwlock_read_unlock(&lock);
  vorn_trwlock_read_unlock(&lock);
  EXPECT_EQ(lock, (Lock{1, 7, 1, 7}));

  lock = {kMax, kMax, kMax, kMax};
  vorn_trwlock_write_lock(&lock);
  EXPECT_EQ(lock, (Lock{kMax, kMax, 0, 0}));
  vorn_trwlock_write_unlock(&lock);
  EXPECT_EQ(lock, (Lock{0, 0, 0, 0}));
  EXPECT_EQ(vorn_trwlock_write_trylock(&lock), 1);
  EXPECT_EQ(lock, (Lock{0, 0, 1, 1}));
}

TEST(Trwlock, TrylocksYieldToWhoIsInOrWaits) {
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

// Lets threads ask for the lock one after the other, and notes when they have it.
class Queue {
public:
  explicit Queue(Lock &lock) : lock_(lock) {}
  ~Queue() { join(); }

  void arrive(char who) {
    const uint32_t before = requests();
    threads_.emplace_back([this, who] { who == 'W' ? write() : read(); });
    while (requests() == before)
      usleep(100);
  }

  // The writers, and between them how many readers, in the order that they had the lock.
  std::string entered() {
    join();
    return entered_;
  }

private:
  uint32_t requests() { return __atomic_load_n(&lock_.requests, __ATOMIC_RELAXED); }

  void write() {
    vorn_trwlock_write_lock(&lock_);
    if (readers_ != 0) entered_ += std::to_string(readers_);
    __atomic_store_n(&readers_, 0, __ATOMIC_RELAXED);
    entered_ += 'W';
    vorn_trwlock_write_unlock(&lock_);
  }

  void read() {
    vorn_trwlock_read_lock(&lock_);
    __atomic_fetch_add(&readers_, 1, __ATOMIC_RELAXED);
    vorn_trwlock_read_unlock(&lock_);
  }

  void join() {
    for (std::thread &thread : threads_)
      thread.join();
    threads_.clear();
  }

  Lock &lock_;
  int readers_ = 0; // since the last writer
  std::string entered_;
  std::vector<std::thread> threads_;
};

TEST(Trwlock, ServesWritersAndTheReadersBetweenThemInTheOrderOfArrival) {
  Lock lock{kMax - 1, kMax, kMax - 1, kMax};
  vorn_trwlock_write_lock(&lock);
  Queue queue(lock);
  for (const char who : {'R', 'W', 'R', 'R', 'W'})
    queue.arrive(who);
  vorn_trwlock_write_unlock(&lock);
  EXPECT_EQ(queue.entered(), "1W2W");

  vorn_trwlock_read_lock(&lock); // a reader waits for the writer that waits for a reader
  const uint32_t completions = lock.completions;
  Queue behind_reader(lock);
  for (const char who : {'W', 'R', 'W'})
    behind_reader.arrive(who);
  usleep(2000);
  EXPECT_EQ(__atomic_load_n(&lock.completions, __ATOMIC_RELAXED), completions); // none has been in
  vorn_trwlock_read_unlock(&lock);
  EXPECT_EQ(behind_reader.entered(), "W1W");
}

// No more threads than wait well on two CPUs. The counters wrap on the way, each at its own time.
TEST(Trwlock, Stress) {
  Lock lock{kMax - 9000, kMax - 3000, kMax - 9000, kMax - 3000};
  const auto write_unlock = [&] { vorn_trwlock_write_unlock(&lock); };
  const auto read_unlock = [&] { vorn_trwlock_read_unlock(&lock); };
  const stress::Role write{[&] { return vorn_trwlock_write_lock(&lock), true; }, write_unlock};
  const stress::Role read{[&] { return vorn_trwlock_read_lock(&lock), true; }, read_unlock,
                          stress::kRead};
  const stress::Role try_write{[&] { return vorn_trwlock_write_trylock(&lock) != 0; },
                               write_unlock};
  const stress::Role try_read{[&] { return vorn_trwlock_read_trylock(&lock) != 0; }, read_unlock,
                              stress::kRead};
  EXPECT_NO_DAMAGE(stress::run({write, read}));
  EXPECT_NO_DAMAGE(stress::run({write, write}));
  EXPECT_NO_DAMAGE(stress::run({write, try_read}));
  EXPECT_NO_DAMAGE(stress::run({write, try_write, try_read}));
  EXPECT_EQ(lock.completions, lock.requests);
  EXPECT_EQ(lock.write_completions, lock.write_requests);
}

} // namespace
