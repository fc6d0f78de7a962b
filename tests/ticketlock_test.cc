// Tests the ticket lock.
// SPDX-License-Identifier: Apache-2.0
#include "vorn_ticketlock.h"

#include <cstring>
#include <functional>
#include <gtest/gtest.h>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

#include "support/lock_stress.hpp"
#include "support/log_capture.hpp"

namespace {

constexpr uint64_t kNoOwner = UINT64_MAX;

// A log message names the caller, and the operation continues.
TEST(Ticketlock, ReportsMisuseAndContinues) {
  const auto self = static_cast<uint64_t>(gettid());
  const auto lock = [](uint32_t serving, uint32_t next, uint64_t owner) {
    return vorn_tspinlock_s{serving, next, VORN_TSPINLOCK_MAGIC, 9, owner};
  };
  using Operation = std::function<void(vorn_tspinlock_s *)>;
  const Operation init = [](auto *l) { do_vorn_tspinlock_init(l, "caller", 7); };
  const Operation destroy = [](auto *l) { do_vorn_tspinlock_destroy(l, "caller", 7); };
  const Operation acquire = [](auto *l) { do_vorn_tspinlock_lock(l, "caller", 7); };
  const Operation tries = [](auto *l) { do_vorn_tspinlock_trylock(l, "caller", 7); };
  const Operation release = [](auto *l) { do_vorn_tspinlock_unlock(l, "caller", 7); };
  const vorn_tspinlock_s zero{}, start = VORN_TSPINLOCK_INIT;
  const std::string was_zero = "UnInited lock in caller:7 lock:0x0 magic:0x0 owner:0 other:0";
  const auto report = [](const std::string &what, const std::string &numbers, uint64_t owner) {
    return what + ":7 lock:" + numbers + " magic:0xdead5ead owner:" + std::to_string(owner) +
           " other:9";
  };
  const struct {
    Operation operation;
    vorn_tspinlock_s before, after;
    std::string texts;
  } rows[] = {
      {init, zero, start, ""},
      {init, lock(2, 5, 77), start, report("ReInited lock in caller", "0x500000002", 77)},
      {destroy, start, {0, 0, VORN_TSPINLOCK_DESTROYED, UINT32_MAX, kNoOwner}, ""},
      {destroy, zero, {0, 0, VORN_TSPINLOCK_DESTROYED, 0, 0}, was_zero},
      {acquire, zero, {0, 1, 0, 0, self}, was_zero},
      // Only the owner tells.
      {acquire, lock(4, 4, self), lock(4, 5, self),
       report("AA lock in caller", "0x400000004", self)},
      {tries, lock(4, 5, self), lock(4, 5, self), report("AA lock in caller", "0x500000004", self)},
      {tries, lock(5, 4, self + 1), lock(5, 4, self + 1), ""},
      {release, lock(4, 5, self + (1ul << 32)), lock(5, 5, kNoOwner), // the same in 32 bits
       report("AB lock in caller", "0x500000004", self + (1ul << 32))},
      {release, lock(5, 5, kNoOwner), lock(6, 5, kNoOwner),
       report("AB lock in caller", "0x500000005", kNoOwner) +
           report("ReUnlock in ticket_unlock", "0x500000005", kNoOwner)},
  };
  for (const auto &row : rows) {
    SCOPED_TRACE(&row - rows);
    vorn_tspinlock_s used = row.before;
    row.operation(&used);
    EXPECT_EQ(std::memcmp(&used, &row.after, sizeof used), 0);
    std::string texts;
    for (const std::string &text : capture::take_lines())
      texts += text;
    EXPECT_EQ(texts, row.texts);
  }
}

// The holder has the last number before the wrap; the waiting threads have wrapped numbers.
TEST(Ticketlock, ServesInTheOrderOfArrival) {
  constexpr uint32_t kThreads = 4;
  vorn_tspinlock_s lock = VORN_TSPINLOCK_INIT;
  lock.serving = lock.next = UINT32_MAX - 1;
  vorn_tspinlock_lock(&lock);
  std::vector<uint32_t> served;
  std::vector<std::thread> threads;
  for (uint32_t i = 0; i < kThreads; ++i) {
    threads.emplace_back([&, i] {
      vorn_tspinlock_lock(&lock);
      EXPECT_EQ(lock.owner, static_cast<uint64_t>(gettid()));
      served.push_back(i);
      vorn_tspinlock_unlock(&lock);
    });
    while (__atomic_load_n(&lock.next, __ATOMIC_RELAXED) != i) // the holder had UINT32_MAX
      usleep(100);
  }
  EXPECT_TRUE(served.empty());
  vorn_tspinlock_unlock(&lock);
  for (std::thread &thread : threads)
    thread.join();
  EXPECT_EQ(served, (std::vector<uint32_t>{0, 1, 2, 3}));
  EXPECT_NO_MESSAGE();
}

// Few threads, since two CPUs run them. The numbers wrap during the test.
TEST(Ticketlock, Stress) {
  vorn_tspinlock_s lock = VORN_TSPINLOCK_INIT;
  lock.serving = lock.next = UINT32_MAX - 5000;
  const auto unlock = [&] { vorn_tspinlock_unlock(&lock); };
  const stress::Role waits{[&] { return vorn_tspinlock_lock(&lock), true; }, unlock};
  const stress::Role tries{[&] { return vorn_tspinlock_trylock(&lock) != 0; }, unlock};
  EXPECT_NO_DAMAGE(stress::run({waits, waits}));
  EXPECT_NO_DAMAGE(stress::run({waits, tries}));
  EXPECT_NO_DAMAGE(stress::run({waits, tries, tries}));
  EXPECT_EQ(lock.serving, lock.next);
  EXPECT_NO_MESSAGE();
}

} // namespace
