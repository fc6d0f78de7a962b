#include "vorn_thrd.h"

#include <atomic>
#include <gtest/gtest.h>
#include <latch>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

#include "evlog.h"
#include "support/log_capture.hpp"
#include "thread/vorn_thrd.hpp"

namespace {

int listed;
int idle;

bool is_idle(unsigned long tid) {
  vorn_thread_s *record = vorn_thrd_getthreadinfobytid(static_cast<long>(tid));
  if (record == nullptr) return false;
  const bool result = record->slot->state == vorn::thread::kIdle;
  vorn_thrd_putthreadinfo(record);
  return result;
}

int count_threads(const char *format, ...) {
  if (std::string(format) != "%5lu %-18s %-11d %-8d\n") return 0;
  va_list args;
  va_start(args, format);
  const auto tid = va_arg(args, unsigned long);
  const bool named = std::string(va_arg(args, const char *)) == "OSThrdPoolNull";
  va_end(args);
  ++listed;
  idle += named && is_idle(tid) ? 1 : 0;
  return 0;
}

// Until there are so many threads, and all wait for a job: the last ones of a pool are started
// behind the call that creates it, and leave behind the one that ends it.
void wait_for_idle(int count) {
  do {
    usleep(1000);
    listed = idle = 0;
    vorn_thrd_list(count_threads);
  } while (listed != count || idle != count);
}

// Jobs that stay until they are let go, and tell who ran them.
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
  EXPECT_ONE_RECORD(EVLOG_INFO, "vorn_thrd.c", "vorn_thread_pool_create",
                    "Create OS thread pool 8, success 3.");
  EXPECT_EQ(vorn_thread_pool_create(5), 0u);
  EXPECT_ONE_RECORD(EVLOG_INFO, "vorn_thrd.c", "vorn_thread_pool_create",
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
  EXPECT_ONE_RECORD(EVLOG_INFO, "vorn_thrd.c", "vorn_thread_pool_destroy", "TBA:res1 0, res2 0.");
}

TEST(Pool, NothingOfAJobStaysWithTheThread) {
  vorn_thread_pool_create(1);
  wait_for_idle(1);
  static cpu_set_t bound;
  static vorn_thread_s *worker;
  static std::atomic<int> looked;
  const auto bind = [](void *) -> void * {
    worker = vorn_thrd_currentthreadinfo();
    const unsigned char first_cpu[VORN_THRD_CPUSET_SIZE] = {1};
    EXPECT_EQ(vorn_thrd_setbindcpu(pthread_self(), first_cpu), 0);
    return nullptr;
  };
  const auto look = [](void *) -> void * {
    if (looked == 0) vorn_thrd_getbindcpu(pthread_self(), &bound);
    ++looked;
    return nullptr;
  };
  EXPECT_EQ(create_thread_from_thread_pool(bind, nullptr, nullptr), 0);
  constexpr unsigned int kLooks = 500;
  for (unsigned int i = 0; i < kLooks; ++i)
    while (create_thread_from_thread_pool(look, nullptr, nullptr) != 0)
      sched_yield();
  while (looked != kLooks)
    usleep(100);
  cpu_set_t all;
  vorn_thrd_bindAllCfgCpu();
  vorn_thrd_getbindcpu(pthread_self(), &all);
  EXPECT_TRUE(CPU_EQUAL(&bound, &all));
  wait_for_idle(1);
  EXPECT_EQ(worker->jobs, kLooks + 1);
  int posts = -1;
  sem_getvalue(&worker->job, &posts);
  EXPECT_EQ(posts, 0) << "an idle thread would go round for each";
}

// Whoever is told that a job was taken can rely on it: each runs once, also those that were given
// while the pool is being ended.
TEST(Pool, EveryJobTakenRunsOnce) {
  constexpr int kDispatchers = 3;
  static std::atomic<int> ran;
  static std::atomic<bool> ending;
  std::atomic<int> taken{0};
  vorn_thread_pool_create(4);
  wait_for_idle(4);
  std::vector<std::thread> dispatchers;
  for (int i = 0; i < kDispatchers; ++i) {
    dispatchers.emplace_back([&] {
      const auto job = [](void *argument) -> void * {
        ran += *static_cast<int *>(argument);
        return nullptr;
      };
      static int one = 1;
      while (!ending)
        if (create_thread_from_thread_pool(job, &one, nullptr) == 0) ++taken;
    });
  }
  usleep(100'000);
  vorn_thread_pool_destroy();
  usleep(20'000);
  ending = true;
  for (std::thread &dispatcher : dispatchers)
    dispatcher.join();
  for (int i = 0; ran != taken && i < 1000; ++i)
    usleep(1000);
  EXPECT_EQ(ran, taken);
  EXPECT_GT(taken, 100);
  wait_for_idle(0);
  EXPECT_EQ(vorn_thread_pool_destroy(), 0);
  EXPECT_EQ(create_thread_from_thread_pool(Jobs::run, nullptr, nullptr), -1);
  EXPECT_EQ(vorn_thread_pool_create(4), 0u) << "there is one pool in a process";
}

} // namespace
