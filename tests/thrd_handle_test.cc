// Tests the handles by which threads wait for the end of other threads.
// SPDX-License-Identifier: Apache-2.0
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <gtest/gtest.h>
#include <latch>
#include <memory>
#include <pthread.h>
#include <thread>
#include <unistd.h>

#include "support/child.hpp"
#include "support/log_capture.hpp"
#include "support/threads.hpp"
#include "vorn_thrd.h"

namespace {

using Handle = std::unique_ptr<vorn_thrd_handle_s, decltype(&vorn_thrd_put_handle)>;

Handle start(vorn_thrd_entry_f entry, void *argument = nullptr) {
  vorn_thrd_handle_s *handle = nullptr;
  EXPECT_EQ(vorn_thrd_create_handle(entry, argument, &handle), 0);
  return {handle, vorn_thrd_put_handle};
}

// Returns the result of the thread; NULL if the wait fails.
void *result_of(const Handle &handle) {
  void *result = nullptr;
  EXPECT_EQ(vorn_thrd_wait_handle(handle.get(), -1, &result), 0);
  return result;
}

void *wait_for_latch(void *latch) {
  static_cast<std::latch *>(latch)->wait();
  return latch;
}

TEST(ThreadHandle, GivesTheResultOfEachWayToEnd) {
  int place = 0;
  const struct {
    vorn_thrd_entry_f entry;
    void *result;
  } rows[] = {
      {[](void *argument) { return argument; }, &place},
      {[](void *) -> void * { pthread_exit(nullptr); }, PTHREAD_CANCELED},
      // Not in a call that blocks: the thread sanitizer ignores the rest of a thread that leaves
      // one.
      {[](void *) -> void * {
         pthread_cancel(pthread_self());
         for (;;)
           pthread_testcancel();
       },
       PTHREAD_CANCELED},
      {[](void *) -> void * {
         pthread_setcanceltype(PTHREAD_CANCEL_ASYNCHRONOUS, nullptr);
         pthread_cancel(pthread_self());
         std::abort();
       },
       PTHREAD_CANCELED},
      // A cancellation that the function has not let act does not change its result.
      {[](void *argument) {
         pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
         pthread_cancel(pthread_self());
         return argument;
       },
       &place},
      {[](void *argument) { return vorn_thrd_clearcurthreadinfo(), argument; }, &place},
  };
  // New threads, and then threads of a pool, which a cancelled job ends.
  for (const bool pooled : {false, true}) {
    EXPECT_EQ(pooled ? vorn_thread_pool_create(1) : 1, 1u);
    for (int round = 0; round < 20; ++round) {
      for (const auto &row : rows) {
        const Handle handle = start(row.entry, &place);
        EXPECT_EQ(result_of(handle), row.result) << &row - rows;
        EXPECT_EQ(result_of(handle), row.result);
        EXPECT_EQ(vorn_thrd_wait_handle(handle.get(), 0, nullptr), 0);
      }
    }
  }
}

TEST(ThreadHandle, RecordNamesTheFunction) {
  const vorn_thrd_entry_f entry = [](void *argument) -> void * {
    const vorn_thread_s *record = vorn_thrd_currentthreadinfo();
    const bool is_named = record->argument == argument &&
                          record->entry == *static_cast<const vorn_thrd_entry_f *>(argument);
    return is_named ? argument : nullptr;
  };
  void *argument = const_cast<vorn_thrd_entry_f *>(&entry);
  EXPECT_EQ(result_of(start(entry, argument)), argument);
  EXPECT_EQ(vorn_thread_pool_create(1), 1u);
  for (int i = 0; i < 5; ++i)
    EXPECT_EQ(result_of(start(entry, argument)), argument);
}

TEST(ThreadHandle, RunsOutOfTimeDespiteSignals) {
  using Clock = std::chrono::steady_clock;
  std::latch release(1);
  const Handle handle = start(wait_for_latch, &release);
  void *result = &result;
  EXPECT_EQ(vorn_thrd_wait_handle(handle.get(), 0, &result), 1);
  struct sigaction action {};
  action.sa_handler = [](int) {};
  sigaction(SIGUSR1, &action, nullptr);
  std::atomic<bool> done{false};
  std::thread signals([&done, waiter = pthread_self()] {
    for (; !done; usleep(1000))
      pthread_kill(waiter, SIGUSR1);
  });
  const auto begin = Clock::now();
  EXPECT_EQ(vorn_thrd_wait_handle(handle.get(), 100, &result), 1);
  EXPECT_GE(Clock::now() - begin, std::chrono::milliseconds(100));
  EXPECT_EQ(result, &result);
  release.count_down();
  EXPECT_EQ(result_of(handle), &release);
  done = true;
  signals.join();
  EXPECT_NO_MESSAGE();
}

TEST(ThreadHandle, RefusesBadArgumentsAndItself) {
  vorn_thrd_handle_s *none = nullptr;
  EXPECT_EQ(capture::traced(vorn_thrd_create_handle(nullptr, nullptr, &none)),
            "-1; E vorn_thrd_create_handle: Thread entry is null.");
  EXPECT_EQ(none, nullptr);
  EXPECT_EQ(capture::traced(vorn_thrd_create_handle(wait_for_latch, nullptr, nullptr)),
            "-1; E vorn_thrd_create_handle: Place for the thread's handle is null.");
  EXPECT_EQ(capture::traced(vorn_thrd_wait_handle(nullptr, 0, nullptr)),
            "-1; E vorn_thrd_wait_handle: Handle of the thread is null.");
  vorn_thrd_put_handle(nullptr);
  EXPECT_NO_MESSAGE();
  static std::atomic<vorn_thrd_handle_s *> itself{nullptr};
  const Handle handle = start(
      [](void *argument) -> void * {
        while (itself == nullptr)
          sched_yield();
        return vorn_thrd_wait_handle(itself, -1, nullptr) == -1 ? argument : nullptr;
      },
      &none);
  EXPECT_EQ(capture::traced(vorn_thrd_wait_handle(handle.get(), -2, nullptr)),
            "-1; E vorn_thrd_wait_handle: Invalid time-out -2 ms.");
  itself = handle.get();
  EXPECT_EQ(result_of(handle), &none);
  EXPECT_EQ(capture::take_lines().at(0), "E A thread waits for its own end.");
}

// Waiting threads see what the function wrote, and the handle is given back before, at and after
// the end: the sanitizers find a race and a leak.
TEST(ThreadHandle, PublishesTheResultAndOutlivesItsHandle) {
  struct Work {
    long sum = 0;
  };
  const vorn_thrd_entry_f entry = [](void *argument) -> void * {
    static_cast<Work *>(argument)->sum += 7;
    return argument;
  };
  EXPECT_EQ(vorn_thread_pool_create(1), 1u);
  for (int round = 0; round < 300; ++round) {
    Work work[2];
    const Handle handles[] = {start(entry, &work[0]), start(entry, &work[1])};
    run_threads(3, [&](int i) {
      if (i != 0) usleep(static_cast<useconds_t>(i * 20));
      for (int own = 0; own < 2; ++own) {
        while (vorn_thrd_wait_handle(handles[own].get(), i == 2 ? 0 : 50, nullptr) == 1)
          sched_yield();
        EXPECT_EQ(work[own].sum, 7);
      }
    });
  }
  std::atomic<int> ends{0};
  for (int i = 0; i < 300; ++i) {
    start(
        [](void *argument) -> void * {
          static_cast<std::atomic<int> *>(argument)->fetch_add(1);
          return nullptr;
        },
        &ends);
  }
  while (ends != 300)
    usleep(1000);
}

TEST(ThreadHandle, ChildOfForkKnowsItsOwnThreads) {
  std::latch release(1);
  const Handle ended = start([](void *argument) { return argument; }, &release);
  EXPECT_EQ(result_of(ended), &release);
  vorn_thrd_handle_s *runs = start(wait_for_latch, &release).release();
  capture::take();
  EXPECT_EQ(run_in_child([&] {
              void *result = nullptr;
              if (vorn_thrd_wait_handle(ended.get(), -1, &result) != 0 || result != &release)
                return 1;
              if (capture::traced(vorn_thrd_wait_handle(runs, -1, nullptr)) !=
                  "-1; E vorn_thrd_wait_handle: The thread exists only in the parent process.")
                return 2;
              vorn_thrd_put_handle(runs);
              return 0;
            }),
            0);
  release.count_down();
  EXPECT_EQ(vorn_thrd_wait_handle(runs, -1, nullptr), 0);
  vorn_thrd_put_handle(runs);

  // The thread that forks exists in both processes.
  static std::atomic<vorn_thrd_handle_s *> itself{nullptr};
  const Handle forks = start([](void *) -> void * {
    while (itself == nullptr)
      sched_yield();
    const int code = run_in_child([] {
      return capture::outcome(vorn_thrd_wait_handle(itself, -1, nullptr)) ==
                     "-1; E A thread waits for its own end."
                 ? 7
                 : 1;
    });
    return reinterpret_cast<void *>(static_cast<intptr_t>(code));
  });
  itself = forks.get();
  EXPECT_EQ(result_of(forks), reinterpret_cast<void *>(7));
}

} // namespace
