// test-wraps: pthread_create
// Tests the thread pool.
// SPDX-License-Identifier: Apache-2.0
#include "vorn_thrd.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <deque>
#include <gtest/gtest.h>
#include <latch>
#include <mutex>
#include <set>
#include <thread>
#include <unistd.h>
#include <vector>

#include "evlog.h"
#include "support/child.hpp"
#include "support/create_error.hpp"
#include "support/log_capture.hpp"
#include "thread/vorn_thrd.hpp"
#include "vorn_sched.h"

namespace {

// Waits until there are this many threads and all wait for a job: the last threads of a pool start
// after the call that creates it, and leave after the call that ends it.
void wait_for_idle(int count) {
  const auto in = [](std::uint32_t states) {
    return std::ranges::count_if(vorn::thread::slots(), [=](const vorn::thread::Slot &slot) {
      return slot.count != 0 && (slot.state & states) != 0;
    });
  };
  while (in(vorn::thread::kAlive) != count || in(vorn::thread::kIdle) != count)
    usleep(1000);
}

// Jobs that run until they are released, and note the threads that ran them.
struct Jobs {
  explicit Jobs(int count) : begun(count) {}

  static void *run(void *argument) {
    auto &self = *static_cast<Jobs *>(argument);
    const vorn_thread_s *own = vorn_thrd_currentthreadinfo();
    {
      const std::lock_guard hold(self.mutex);
      self.pooled += own->pooled == 1 ? 1 : 0;
      self.threads.insert(gettid());
    }
    self.begun.count_down();
    self.end.wait();
    ++self.ended;
    return nullptr;
  }

  std::mutex mutex;
  std::latch begun;
  std::latch end{1};
  std::atomic<int> ended{0};
  int pooled = 0;
  std::set<long> threads;
};

TEST(Pool, RunsJobsOnItsThreadsAndOthersOnNewOnes) {
  capture::take();
  EXPECT_EQ(vorn_thread_pool_create(0), 0u);
  EXPECT_EQ(vorn_thread_pool_create(8), 3u);
  EXPECT_ONE_MESSAGE(EVLOG_INFO, "vorn_thrd.c", "vorn_thread_pool_create",
                     "Create OS thread pool 8, success 3.");
  EXPECT_EQ(vorn_thread_pool_create(5), 0u);
  EXPECT_ONE_MESSAGE(EVLOG_INFO, "vorn_thrd.c", "vorn_thread_pool_create",
                     "OS thread pool just allowed create once 5.");
  wait_for_idle(8);
  Jobs jobs(10);
  for (int i = 0; i < 10; ++i)
    EXPECT_EQ(vorn_thrd_create(Jobs::run, &jobs, nullptr), 0);
  EXPECT_EQ(create_thread_from_thread_pool(Jobs::run, &jobs, nullptr), -1);
  jobs.begun.wait();
  EXPECT_EQ(jobs.pooled, 8);
  EXPECT_EQ(jobs.threads.size(), 10u);
  jobs.end.count_down();
  while (jobs.ended != 10)
    usleep(100);
}

TEST(Pool, OfOneThreadIsTheSpawner) {
  EXPECT_EQ(vorn_thread_pool_create(1), 1u);
  wait_for_idle(1);
  EXPECT_STREQ(vorn::thread::slots()[0].record.load()->name, "OSThrdPoolNull");
  Jobs jobs(1);
  pthread_t id{};
  EXPECT_EQ(create_thread_from_thread_pool(nullptr, &jobs, nullptr), -1);
  EXPECT_EQ(create_thread_from_thread_pool(Jobs::run, &jobs, &id), 0);
  jobs.begun.wait();
  char name[16];
  EXPECT_EQ(pthread_getname_np(id, name, sizeof name), 0);
  EXPECT_STREQ(name, "OSThrdPoolRun");
  jobs.end.count_down();
  wait_for_idle(1);
  vorn_thread_pool_destroy();
  wait_for_idle(0);
  EXPECT_EQ(jobs.ended, 1) << "what ends the pool is no job";
  capture::take();
  EXPECT_EQ(vorn_thread_pool_destroy(), 0);
  EXPECT_ONE_MESSAGE(EVLOG_INFO, "vorn_thrd.c", "vorn_thread_pool_destroy", "TBA:res1 0, res2 0.");
}

TEST(Pool, NextJobFindsTheThreadUnchanged) {
  sigset_t mask;
  sigemptyset(&mask);
  sigaddset(&mask, SIGUSR2);
  sigaddset(&mask, SIGWAKEUP);
  pthread_sigmask(SIG_SETMASK, &mask, nullptr);
  vorn_thread_pool_create(1);
  wait_for_idle(1);
  static vorn_thread_s *worker;
  static std::atomic<int> looked;
  const auto spoil = [](void *) -> void * {
    worker = vorn_thrd_currentthreadinfo();
    const unsigned char first_cpu[VORN_THRD_CPUSET_SIZE] = {1};
    EXPECT_EQ(vorn_thrd_setbindcpu(pthread_self(), first_cpu), 0);
    vorn_thrd_core_set(77);
    vorn_thrd_numaId_set(7);
    vorn_thread_run_in_iod_context_init(7);
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, nullptr);
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
    return nullptr;
  };
  const auto look = [](void *) -> void * {
    if (looked++ != 0) return nullptr;
    cpu_set_t bound;
    cpu_set_t all;
    vorn_thrd_getbindcpu(pthread_self(), &bound);
    vorn_thrd_bindAllCfgCpu();
    vorn_thrd_getbindcpu(pthread_self(), &all);
    EXPECT_TRUE(CPU_EQUAL(&bound, &all));
    EXPECT_TRUE(smp_processor_id() != 77 && vorn_thrd_numaId_get() == -1);
    EXPECT_EQ(vorn_thread_run_in_iod_context_check(), 0);
    sigset_t own;
    pthread_sigmask(SIG_BLOCK, nullptr, &own);
    EXPECT_TRUE(sigismember(&own, SIGUSR2) == 1 && sigismember(&own, SIGUSR1) == 0);
    EXPECT_EQ(sigismember(&own, SIGWAKEUP), 0);
    int state = -1;
    pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, &state);
    EXPECT_EQ(state, PTHREAD_CANCEL_ENABLE);
    return nullptr;
  };
  EXPECT_EQ(create_thread_from_thread_pool(spoil, nullptr, nullptr), 0);
  constexpr unsigned int kLooks = 500;
  for (unsigned int i = 0; i < kLooks; ++i)
    while (create_thread_from_thread_pool(look, nullptr, nullptr) != 0)
      sched_yield();
  while (looked != kLooks)
    usleep(100);
  wait_for_idle(1);
  EXPECT_EQ(worker->jobs, kLooks + 1);
  int posts = -1;
  sem_getvalue(&worker->job, &posts);
  EXPECT_EQ(posts, 0) << "each would wake the idle thread";
}

TEST(Pool, FailedStartsLeakNothingAndAChildHasNoPool) {
  create_error = EAGAIN;
  EXPECT_EQ(vorn_thread_pool_create(4), 0u);
  const auto lines = capture::take_lines();
  ASSERT_EQ(lines.size(), 3u);
  EXPECT_EQ(lines[1].find("E Create thread failed, error 11, errno "), 0u) << lines[1];
  for (const vorn::thread::Slot &slot : vorn::thread::slots())
    ASSERT_EQ(slot.count, 0u);
  create_error = 0;
  EXPECT_EQ(vorn_thread_pool_create(1), 1u);
  wait_for_idle(1);
#if !defined(__SANITIZE_THREAD__) && !defined(__SANITIZE_ADDRESS__) // a child returns from its job
  const vorn_thrd_entry_f fork_and_return = [](void *code) {
    const pid_t child = fork();
    // The last thread of the child ends the child.
    if (child == 0 && vorn_thrd_currentthreadinfo()->slot->state == vorn::thread::kRunning)
      return static_cast<void *>(nullptr);
    if (child == 0) _exit(1);
    int status = -1;
    waitpid(child, &status, 0);
    *static_cast<std::atomic<int> *>(code) = exit_code(status);
    return code;
  };
  std::atomic<int> code{-2};
  const auto gives_to_own_pool = [&] {
    const int refused = create_thread_from_thread_pool(fork_and_return, &code, nullptr);
    return refused == -1 && vorn_thread_pool_create(1) == 1 ? 0 : 1;
  };
  EXPECT_EQ(run_in_child(gives_to_own_pool), 0);
  EXPECT_EQ(create_thread_from_thread_pool(fork_and_return, &code, nullptr), 0);
  while (code == -2)
    usleep(1000);
  EXPECT_EQ(code, 0);
#endif
}

// Gives a job to a cancelled idle thread, and looks at the replacement.
TEST(Pool, JobOfACancelledThreadIsRunByAnother) {
  vorn_set_instant_map_flag();
  vorn_thread_pool_create(1);
  static std::atomic<int> ran;
  static std::atomic<long> runner;
  const auto job = [](void *) -> void * {
    const vorn_thread_s *own = vorn_thrd_currentthreadinfo();
    EXPECT_LT(own->os_stack_high - own->os_stack_low, 1ul << 20); // a sanitizer adds some
    runner = gettid();
    if (ran++ == 6) pthread_cancel(pthread_self());
    return nullptr;
  };
  const auto give = [&] {
    pthread_t id{};
    wait_for_idle(1);
    const int before = ran;
    EXPECT_EQ(create_thread_from_thread_pool(job, nullptr, &id), 0);
    while (ran == before)
      usleep(100);
    return id;
  };
  for (const int error : {0, EAGAIN, 0}) {
    const pthread_t idle_thread = give();
    wait_for_idle(1);
    const long cancelled = runner;
    pthread_cancel(idle_thread);
    create_error = error;
    give();
    EXPECT_EQ(runner == cancelled, error != 0) << "itself if no other can be started";
    wait_for_idle(error == 0 ? 1 : 0);
    create_error = 0;
    if (error == 0) continue;
    EXPECT_EQ(create_thread_from_thread_pool(job, nullptr, nullptr), -1) << "but starts a thread";
  }
  EXPECT_EQ(ran, 6);
  give();
  wait_for_idle(1);
  EXPECT_EQ(vorn_thrd_getthreadinfobytid(runner), nullptr)
      << "what is pending acts with the job's end";
  EXPECT_NE(vorn::thread::slots()[0].record.load()->cpuset[0], 0u) << "bound to all CPUs";
}

// Each accepted job runs once, even if earlier jobs ended their threads or the pool is being
// destroyed; and the pool keeps its size.
TEST(Pool, AcceptedJobRunsOnce) {
  constexpr int kDispatchers = 3;
  struct Given {
    int way = 0;
    bool taken = false;
    std::atomic<int> ran{0};
  };
  static std::atomic<int> ran;
  static std::atomic<bool> ending;
  static std::atomic<pthread_t> victim;
  std::atomic<bool> pausing{false};
  static const vorn_thrd_entry_f ways[] = {
      [](void *of) { return of; },
      [](void *) -> void * { pthread_exit(nullptr); },
      [](void *of) { return pthread_cancel(pthread_self()), of; },
      [](void *of) { return pthread_cancel(pthread_self()), pthread_testcancel(), of; },
      [](void *of) { return vorn_thrd_clearcurthreadinfo(), vorn_thrd_setcurthreadinfo(), of; },
      [](void *of) {
        pthread_t none{};
        if (victim.compare_exchange_strong(none, pthread_self()))
          while (victim != 0) {
          }
        return of;
      },
  };
  std::atomic<int> taken{0};
  std::deque<Given> given[kDispatchers];
  vorn_thread_pool_create(4);
  wait_for_idle(4);
  std::jthread canceller([] {
    for (; !ending; usleep(100)) {
      if (victim != 0) pthread_cancel(victim);
      victim = 0;
    }
    victim = 0;
  });
  std::vector<std::jthread> dispatchers;
  for (std::deque<Given> &own : given) {
    dispatchers.emplace_back([&] {
      const auto job = [](void *argument) -> void * {
        auto &self = *static_cast<Given *>(argument);
        ++self.ran, ++ran;
        return ways[self.way](nullptr);
      };
      own.emplace_back();
      while (!ending) {
        Given &next = own.back();
        next.way = static_cast<int>(own.size() % std::size(ways));
        next.taken = !pausing && create_thread_from_thread_pool(job, &next, nullptr) == 0;
        if (pausing) usleep(1000);
        if (!next.taken) continue;
        ++taken;
        own.emplace_back();
      }
    });
  }
  usleep(100'000);
  for (int i = 0; taken <= 20 && i < 10000; ++i)
    usleep(1000); // a busy machine takes longer
  pausing = true;
  wait_for_idle(4);
  pausing = false;
  usleep(100'000);
  vorn_thread_pool_destroy();
  usleep(20'000);
  ending = true;
  dispatchers.clear();
  canceller.join();
  for (int i = 0; ran != taken && i < 5000; ++i)
    usleep(1000);
  wait_for_idle(0);
  for (const std::deque<Given> &own : given)
    for (const Given &one : own)
      ASSERT_EQ(one.ran, one.taken ? 1 : 0) << one.way;
  EXPECT_GT(taken, 20);
  EXPECT_EQ(vorn_thread_pool_destroy(), 0);
  EXPECT_EQ(create_thread_from_thread_pool(Jobs::run, nullptr, nullptr), -1);
  EXPECT_EQ(vorn_thread_pool_create(4), 0u) << "there is one pool in a process";
}

} // namespace
