// test-wraps: sigaction clock_gettime tgkill nanosleep vorn_private_syscall
// Tests waits, wake-ups and wait queues, with a kernel module of the test or without one.
// SPDX-License-Identifier: Apache-2.0
#include "vorn_wait.h"

#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <ctime>
#include <functional>
#include <gtest/gtest.h>
#include <pthread.h>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

#include "evlog.h"
#include "support/log_capture.hpp"
#include "vorn_sched.h"
#include "vorn_syscall.h"

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

std::atomic<int> g_requests{0};
std::function<long(unsigned long *left)> g_module; // empty if there is no kernel module
bool g_refuse_handlers = false;
std::function<void(timespec *now)> g_clock; // empty for the system's
std::function<void()> g_signal;             // called before a signal is sent
std::function<void()> g_back_off;           // empty for the system's nanosleep

uint32_t tid() { return static_cast<uint32_t>(gettid()); }

template <class T> T *pointer(unsigned long word) { return reinterpret_cast<T *>(word); }

} // namespace

extern "C" {
int __real_sigaction(int signal, const struct sigaction *action, struct sigaction *old);
int __wrap_sigaction(int signal, const struct sigaction *action, struct sigaction *old) {
  EXPECT_TRUE(signal != SIGWAKEUP || action->sa_flags == SA_RESTART);
  if (!g_refuse_handlers) return __real_sigaction(signal, action, old);
  return errno = EPERM, -1;
}

int __real_clock_gettime(clockid_t clock, timespec *time);
int __wrap_clock_gettime(clockid_t clock, timespec *time) {
  return g_clock ? (g_clock(time), 0) : __real_clock_gettime(clock, time);
}

int __real_tgkill(pid_t process, pid_t thread, int signal);
int __wrap_tgkill(pid_t process, pid_t thread, int signal) {
  if (g_signal) g_signal();
  return __real_tgkill(process, thread, signal);
}

int __real_nanosleep(const timespec *time, timespec *left);
int __wrap_nanosleep(const timespec *time, timespec *left) {
  if (!g_back_off) return __real_nanosleep(time, left);
  EXPECT_EQ(time->tv_sec * 1000000000 + time->tv_nsec, 10000);
  return g_back_off(), 0;
}

long __wrap_vorn_private_syscall(unsigned long command, unsigned long, unsigned long ticks,
                                 unsigned long left, unsigned long unused) {
  ++g_requests;
  EXPECT_EQ(command, 0x17D00000800u);
  EXPECT_EQ(unused, ~0ul);
  if (!g_module) return errno = ENOSYS, -1;
  EXPECT_EQ(*pointer<int64_t>(ticks), 250);
  EXPECT_EQ(*pointer<unsigned long>(left), 0u);
  return g_module(pointer<unsigned long>(left));
}
}

namespace {

TEST(Wait, ModuleAnswersWithWhatItLeft) {
  const struct {
    long result;
    unsigned long left, returned;
  } rows[] = {{0, 7, 0}, {-1, 9, 9}, {5, 1, 1}, {-1, 0, 0}};
  for (const auto &row : rows) {
    g_module = [&](unsigned long *left) {
      *left = row.left;
      errno = EINTR;
      return row.result;
    };
    uint32_t word = 0; // only the module reads it
    EXPECT_EQ(vorn_wait_comm(&word, 250), row.returned);
    EXPECT_EQ(vorn_wait_interruptible(&word), row.returned == 0 ? 0 : -1);
  }
  g_requests = 0;
  uint32_t word = 1;
  for (const int64_t timeout : {int64_t{0}, INT64_MIN})
    EXPECT_EQ(vorn_wait_comm(&word, timeout), 0u);
  EXPECT_EQ(g_requests, 0);
}

TEST(Wait, WithoutModuleTheWordOrTheTimeEndsIt) {
  uint32_t word = 0;
  for (const int64_t timeout : {int64_t{1}, INT64_MAX})
    EXPECT_EQ(vorn_wait_comm(&word, timeout), static_cast<uint64_t>(timeout));
  word = 2; // anything but 0 waits
  g_clock = [&](timespec *now) {
    word = 1; // another value than was tested ends the sleep, but not the wait
    __real_clock_gettime(CLOCK_MONOTONIC, now);
  };
  const auto start = Clock::now();
  EXPECT_EQ(vorn_wait_comm(&word, 4), 0u);
  g_clock = nullptr;
  EXPECT_GE(Clock::now() - start, milliseconds{16});
  EXPECT_EQ(g_requests, 1); // the library remembers its absence
}

// The word is tested, then the clock is read: a wake-up there comes between test and sleep.
TEST(Wait, WakeUpBeforeTheSleepLeavesTheRestOfTheTime) {
  const struct {
    int64_t timeout;
    long nanoseconds; // that pass
    uint64_t left;
  } rows[] = {{250, 0, 250},    {250, 10000000, 248}, {250, 999999999, 1},
              {4, 16000000, 1}, {4, 90000000, 1},     {INT64_MAX, 1, INT64_MAX}};
  for (const auto &row : rows) {
    uint32_t word = 1;
    timespec time{1l << 33, 900000000};
    g_clock = [&](timespec *now) {
      *now = time;
      time.tv_nsec += row.nanoseconds;
      if (time.tv_nsec >= 1000000000) time = {time.tv_sec + 1, time.tv_nsec - 1000000000};
      word = 0;
    };
    EXPECT_EQ(vorn_wait_comm(&word, row.timeout), row.left) << row.nanoseconds;
    g_clock = nullptr;
  }
}

// The handler restarts calls, the wait has no time limit, and the thread has blocked all signals.
TEST(Wait, SignalsEndTheSleep) {
  struct sigaction action {};
  action.sa_handler = [](int) {};
  action.sa_flags = SA_RESTART;
  ASSERT_EQ(sigaction(SIGUSR1, &action, nullptr), 0);
  for (const bool wake_up : {false, true}) {
    std::atomic<uint32_t> waiter{0};
    std::atomic<uint64_t> left{0};
    std::jthread thread{[&] {
      sigset_t all;
      sigfillset(&all);
      sigdelset(&all, SIGUSR1);
      pthread_sigmask(SIG_SETMASK, &all, nullptr);
      waiter = tid();
      uint32_t word = 1;
      left = vorn_wait_comm(&word, VORN_WAIT_FOREVER);
    }};
    while (left == 0) { // one may come before the sleep
      std::this_thread::sleep_for(milliseconds{1});
      if (waiter != 0 && wake_up) vorn_wake_up_process(waiter);
      if (waiter != 0 && !wake_up) pthread_kill(thread.native_handle(), SIGUSR1);
    }
  }
  EXPECT_EQ(vorn_wake_up_process(0x7FFFFFFF), ESRCH);
}

// A signal without its handler would end the process.
TEST(Wait, SendsNoSignalWithoutItsHandler) {
  const std::string text = "signal SIGWAKEUP(" + std::to_string(SIGRTMAX - 4) + ") fail errno(1)";
  g_refuse_handlers = true;
  EXPECT_EQ(vorn_wake_up_process(tid()), EPERM);
  EXPECT_ONE_MESSAGE(EVLOG_ERROR, "vorn_sched.c", "wakeup_signal_init", text);
  EXPECT_EQ(vorn_sched_init(), -1);
  EXPECT_EQ(capture::take_lines(),
            (std::vector<std::string>{"E " + text, "E sched init fail s_sched_init(-1)"}));
  g_refuse_handlers = false;
  EXPECT_EQ(vorn_wake_up_process(tid()), 0);
  EXPECT_EQ(vorn_sched_init(), -1); // is tried once
}

class Queue : public testing::Test {
protected:
  void SetUp() override {
    __init_waitqueue_head(&head);
    for (vorn_wait_entry_s &entry : entries)
      vorn_wait_entry_init(&entry, tid());
  }

  std::vector<vorn_wait_entry_s *> queued() const {
    std::vector<vorn_wait_entry_s *> all;
    for (auto *node = vorn_list_first(&head.queue); node != nullptr;
         node = vorn_list_next(&head.queue, node))
      all.push_back(vorn_list_entry(node, vorn_wait_entry_s, node));
    return all;
  }

  vorn_wait_queue_head_s head;
  vorn_wait_entry_s entries[3];
};

TEST_F(Queue, HoldsTheLatestFirstAndWakesAll) {
  EXPECT_EQ(head.lock.magic, 0xDEAD4EADu);
  for (const int i : {0, 1, 2, 0})
    EXPECT_EQ(prepare_to_wait(&head, &entries[i]), 0);
  EXPECT_EQ(entries[0].flag, 1u);
  EXPECT_EQ(queued(), (std::vector{&entries[2], &entries[1], &entries[0]}));
  finish_wait(&head, &entries[1]);
  EXPECT_EQ(entries[1].flag, 0u);
  EXPECT_EQ(queued(), (std::vector{&entries[2], &entries[0]}));
  g_signal = [&] { // the signalled thread finds its flag written, and is not released yet
    EXPECT_EQ(queued().front()->flag, 0u);
    EXPECT_EQ(head.lock.lock, 1u);
  };
  __wake_up(&head);
  g_signal = nullptr;
  EXPECT_TRUE(queued().empty());
  for (vorn_wait_entry_s &entry : entries) {
    EXPECT_EQ(entry.flag, 0u);
    EXPECT_EQ(entry.node.next, &entry.node);
    EXPECT_EQ(sched_wait(&entry), -1);
    EXPECT_EQ(sched_wait_timeout(&entry, 3), 3u);
  }
  vorn_spinlock_lock(&head.lock); // finish_wait of a woken thread does not need it
  entries[0].flag = 1;
  finish_wait(&head, &entries[0]);
  EXPECT_EQ(entries[0].flag, 1u); // and does not read it
}

TEST_F(Queue, IsLeftUnderTheLock) {
  prepare_to_wait(&head, &entries[0]);
  vorn_spinlock_lock(&head.lock);
  int back_offs = 0;
  g_back_off = [&] {
    EXPECT_EQ(queued().size(), 1u);
    if (++back_offs == 2) vorn_spinlock_unlock(&head.lock);
  };
  finish_wait(&head, &entries[0]);
  EXPECT_EQ(back_offs, 2);
  EXPECT_TRUE(queued().empty());
}

// One thread opens turns one by one, each for all waiting threads, which leave their stack frames
// between turns. After a lost wake-up, a thread sleeps forever.
TEST_F(Queue, Stress) {
  constexpr int kWaiters = 3;
  const auto end = Clock::now() + milliseconds{600};
  std::atomic<int> turns{3000}; // the number of turns; lowered only to one that has not begun
  std::atomic<int> turn{0}, taken{0};
  std::vector<std::jthread> waiters;
  for (int i = 0; i < kWaiters; ++i) {
    waiters.emplace_back([&] {
      for (int seen = 0; seen < turns; ++seen) {
        vorn_wait_entry_s entry;
        vorn_wait_entry_init(&entry, tid());
        while (turn <= seen) { // a woken thread leaves without the lock
          prepare_to_wait(&head, &entry);
          if (turn > seen) break;
          sched_wait_timeout(&entry, VORN_WAIT_FOREVER);
        }
        finish_wait(&head, &entry);
        ++taken;
      }
    });
  }
  for (int next = 1; next <= turns; ++next) {
    if (Clock::now() > end) turns = next;
    turn = next;
    __wake_up(&head);
    while (taken < next * kWaiters)
      sched_yield();
  }
  waiters.clear();
  EXPECT_EQ(taken, turns * kWaiters);
  EXPECT_TRUE(queued().empty());
}

} // namespace
