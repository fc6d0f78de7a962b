// Tests the enhanced semaphore.
// SPDX-License-Identifier: Apache-2.0
#include "vorn_sem_enhance.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <dlfcn.h>
#include <functional>
#include <gtest/gtest.h>
#include <string>
#include <thread>
#include <unistd.h>
#include <utility>
#include <vector>

#include "support/log_capture.hpp"
#include "vorn_sched.h"
#include "vorn_time.h"

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

std::vector<int> g_wake_ups; // results of the next, the first last: they send nothing
std::function<uint64_t(int64_t timeout)> g_sleep; // replaces the wait
uint32_t *g_word = nullptr;                       // the word that the wait is on
std::function<void()> g_yield;                    // replaces the yield of a lock that is taken

std::string shown(const void *address) { return testing::PrintToString(address); }

template <class Function> Function *library(const char *name) {
  return reinterpret_cast<Function *>(dlsym(RTLD_NEXT, name));
}

} // namespace

uint64_t vorn_wait_comm(uint32_t *word, int64_t timeout) {
  static const auto real = library<uint64_t(uint32_t *, int64_t)>("vorn_wait_comm");
  if (!g_sleep) return real(word, timeout);
  g_word = word;
  return g_sleep(timeout);
}

void vorn_schedule() {
  static const auto real = library<void()>("vorn_schedule");
  g_yield ? g_yield() : real();
}

int vorn_wake_up_process(uint32_t tid) {
  static const auto real = library<int(uint32_t)>("vorn_wake_up_process");
  EXPECT_TRUE(g_word == nullptr || *g_word == 0) << "woken before its word is 0";
  if (g_wake_ups.empty()) return real(tid);
  const int result = g_wake_ups.back();
  g_wake_ups.pop_back();
  return result;
}

namespace {

class Semaphore : public testing::Test {
protected:
  void SetUp() override { EXPECT_EQ(vorn_sem_enhance_init(&sem, 0), 0); }

  int waiting() {
    capture::take();
    vorn_sem_enhance_show(&sem);
    return static_cast<int>(capture::take().size()) - 1;
  }

  // Returns when the thread is in the list.
  std::jthread start(std::function<void(uint32_t tid)> down) {
    const int before = waiting();
    std::jthread thread{[=] { down(static_cast<uint32_t>(gettid())); }};
    while (waiting() == before)
      std::this_thread::sleep_for(milliseconds{1});
    return thread;
  }

  vorn_sem_enhance_s sem;
};

TEST_F(Semaphore, CountsUnits) {
  vorn_sem_enhance_init(&sem, -1);
  for (int i = 0; i < 4; ++i)
    EXPECT_EQ(vorn_sem_enhance_up(&sem), 0);
  vorn_sem_enhance_down(&sem);
  EXPECT_EQ(vorn_sem_enhance_down_interruptible(&sem), 0);
  EXPECT_EQ(vorn_sem_enhance_down_timeout(&sem, -5), 0);
  EXPECT_EQ(sem.cnt, 0);
  EXPECT_EQ(sem.lock.magic, 0xDEAD4EADu);
  EXPECT_EQ(vorn_sem_enhance_destroy(&sem), 0);
}

// A unit that was granted counts, even if a time-out or a signal ended the wait. Only a unit ends
// a plain down.
TEST_F(Semaphore, GrantCountsBeforeTimeOutAndSignal) {
  const auto plain = [](auto *of) { return vorn_sem_enhance_down(of), 0; };
  const auto timed = [](auto *of) { return vorn_sem_enhance_down_timeout(of, 11); };
  const auto late = [](auto *of) { return vorn_sem_enhance_down_timeout(of, -7); };
  struct Row {
    std::function<int(vorn_sem_enhance_s *)> down;
    uint64_t left;
    int granted_in; // this wait, 0 in none
    int result;
    int64_t ticks;
    int pauses; // after a wait that must have failed
  };
  const Row rows[] = {
      {timed, 0, 1, 0, 2, 0},
      {timed, 0, 0, -61, 2, 0},
      {timed, 7, 0, -4, 2, 0},
      {late, 0, 0, -61, -1, 0},
      {vorn_sem_enhance_down_interruptible, 7, 1, 0, INT64_MAX, 0},
      {vorn_sem_enhance_down_interruptible, 7, 0, -4, INT64_MAX, 0},
      {plain, 7, 2, 0, INT64_MAX, 0},
      {plain, 0, 2, 0, INT64_MAX, 2},
  };
  for (const Row &row : rows) {
    int waits = 0;
    int pauses = 0;
    g_yield = [&] { ++pauses; };
    g_sleep = [&](int64_t timeout) {
      EXPECT_EQ(timeout, row.ticks);
      int state = -1; // its waiter is in the list
      pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &state);
      EXPECT_EQ(state, PTHREAD_CANCEL_DISABLE);
      if (++waits == row.granted_in) vorn_sem_enhance_up(&sem);
      return row.left;
    };
    EXPECT_EQ(row.down(&sem), row.result);
    g_word = nullptr;
    EXPECT_EQ(waits, std::max(row.granted_in, 1));
    EXPECT_EQ(pauses, row.pauses);
    EXPECT_EQ(vorn_sem_enhance_up(&sem), 0); // no waiter is left for it
    EXPECT_EQ(sem.cnt, 1);
    vorn_sem_enhance_down(&sem);
  }
  g_yield = nullptr;
  g_sleep = nullptr;
}

TEST_F(Semaphore, EveryOperationTakesTheLock) {
  vorn_gettime_init(); // by which the lock tells when to yield
  g_sleep = [&](int64_t) {
    vorn_spinlock_lock(&sem.lock); // free during the wait, and taken after it
    return uint64_t{7};
  };
  int yields = 0;
  g_yield = [&] {
    ++yields;
    vorn_spinlock_unlock(&sem.lock);
  };
  const std::pair<std::function<void()>, int> rows[] = {
      {[&] { vorn_sem_enhance_up(&sem); }, 1},
      {[&] { vorn_sem_enhance_down(&sem); }, 1},
      {[&] { vorn_sem_enhance_down_timeout(&sem, 1); }, 2},
      {[&] { vorn_sem_enhance_down_interruptible(&sem); }, 2},
      {[&] { vorn_sem_enhance_show(&sem); }, 1},
  };
  for (const auto &[operation, wanted] : rows) {
    yields = 0;
    vorn_spinlock_lock(&sem.lock);
    operation();
    EXPECT_EQ(yields, wanted);
    EXPECT_EQ(sem.lock.lock, 0u);
  }
}

// The first thread gets the first unit. A signal does not end a plain down.
TEST_F(Semaphore, ShowsItsWaitersAndGrantsInTheirOrder) {
  std::atomic<uint32_t> tids[2];
  std::atomic<int> granted{0};
  std::atomic<bool> over{false}; // one that ended could be gone when its signal is sent
  std::jthread waiters[2];
  for (const int i : {0, 1}) {
    waiters[i] = start([&, i](uint32_t tid) {
      tids[i] = tid;
      vorn_sem_enhance_down(&sem);
      EXPECT_EQ(granted++, i);
      while (!over)
        std::this_thread::sleep_for(milliseconds{1});
    });
  }
  const std::string head = "TBOSAX:sem " + shown(&sem) + " cnt 0";
  vorn_sem_enhance_show(&sem);
  const auto texts = capture::take_lines();
  ASSERT_EQ(texts.size(), 3u);
  EXPECT_EQ(texts[0], head);
  EXPECT_EQ(texts[1], head + " waiterTid " + std::to_string(tids[0]) + " status 1 cur " +
                          shown(sem.wait_list.next) + " next " + shown(sem.wait_list.prev) +
                          " pre " + shown(&sem.wait_list));
  for (const int i : {0, 1}) {
    vorn_wake_up_process(tids[1]);
    EXPECT_EQ(vorn_sem_enhance_up(&sem), 0);
    while (granted <= i)
      std::this_thread::sleep_for(milliseconds{1});
  }
  over = true;
  EXPECT_EQ(sem.cnt, 0);
}

// The waiter has the unit even if the signal fails.
TEST_F(Semaphore, ReportsAndRepeatsFailedWakeUps) {
  const struct {
    std::vector<int> wake_ups;
    int result;
    std::vector<std::string> endings;
  } rows[] = {
      {{0, EAGAIN, EAGAIN}, 0, {"fail ret(11).", "sucess."}},
      {{ESRCH, EAGAIN}, ESRCH, {"fail ret(11).", "fail ret(3)."}},
      {{ESRCH}, ESRCH, {"fail ret(3).", "fail ret(3)."}},
  };
  for (const auto &row : rows) {
    std::atomic<int> result{1};
    uint32_t waiter = 0;
    std::jthread thread = start([&](uint32_t tid) {
      waiter = tid;
      result = vorn_sem_enhance_down_timeout(&sem, INT64_MAX);
    });
    g_wake_ups = row.wake_ups;
    EXPECT_EQ(vorn_sem_enhance_up(&sem), row.result);
    vorn_wake_up_process(waiter);
    thread.join();
    EXPECT_EQ(result, 0);
    EXPECT_EQ(sem.cnt, 0);
    const auto messages = capture::take();
    ASSERT_EQ(messages.size(), 4u);
    for (std::size_t i = 0; i < 4; ++i) {
      EXPECT_EQ(messages[i].text, (i % 2 == 0 ? "[Infra]" : "") +
                                      std::string(i < 2 ? "Wake up sem(" : "Retry wake up sem(") +
                                      shown(&sem) + ") waiter tid(" + std::to_string(waiter) +
                                      ") " + row.endings[i / 2]);
      EXPECT_EQ(messages[i].module, i % 2 == 0 ? 0u : 381u);
      EXPECT_EQ(messages[i].function, "vorn_sem_enhance_up");
    }
  }
}

// Two threads hand each other the turn to change plain data, a million times if the machine is
// fast. After a hand-off that is lost, both sleep forever.
TEST_F(Semaphore, MillionHandOffs) {
  constexpr unsigned long kHandOffs = 1000000, kWindow = 256;
  const auto end = Clock::now() + milliseconds{1000};
  vorn_sem_enhance_s room;
  vorn_sem_enhance_init(&room, kWindow);
  unsigned long cells[kWindow] = {};
  const auto give = [&](unsigned long number, unsigned long what) {
    vorn_sem_enhance_down(&room);
    cells[number % kWindow] = what;
    vorn_sem_enhance_up(&sem);
  };
  std::jthread giver{[&] {
    unsigned long i = 0;
    do
      give(i, i), ++i;
    while (i < kHandOffs && (i % 64 != 0 || Clock::now() < end));
    give(i, kHandOffs); // that was all
  }};
  for (unsigned long i = 0;; ++i) {
    vorn_sem_enhance_down(&sem);
    const unsigned long cell = cells[i % kWindow];
    vorn_sem_enhance_up(&room);
    if (cell == kHandOffs) break;
    ASSERT_EQ(cell, i);
  }
  giver.join();
  EXPECT_EQ(sem.cnt, 0);
  EXPECT_EQ(room.cnt, static_cast<int>(kWindow));
}

} // namespace
