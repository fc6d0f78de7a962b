// bench-links: glib-2.0
// Measures passing a job to a thread, and finding a thread by its id.
// SPDX-License-Identifier: Apache-2.0
#include <atomic>
#include <memory>
#include <mutex>
#include <pthread.h>
#include <semaphore.h>
#include <string>
#include <unistd.h>
#include <unordered_map>

#include "support/bench.hpp"
#include "support/glib_pool.hpp"
#include "vorn_thrd.h"

namespace {

constexpr unsigned int kPoolThreads = 4;
constexpr int kThreads = 1000;

sem_t ran;

void *job(void *) {
  sem_post(&ran);
  return nullptr;
}

void glib_job(void *, void *) { sem_post(&ran); }

void wait_for_job() {
  while (sem_wait(&ran) != 0) {
  }
}

void give_to_pool() {
  while (create_thread_from_thread_pool(job, nullptr, nullptr) != 0)
    sched_yield();
}

void give_to_new_thread() {
  pthread_t id;
  if (pthread_create(&id, nullptr, job, nullptr) == 0) pthread_detach(id);
}

GThreadPool *glib_pool() {
  static GThreadPool *const pool =
      g_thread_pool_new(glib_job, nullptr, static_cast<int>(kPoolThreads), 1, nullptr);
  return pool;
}

void give_to_glib() { g_thread_pool_push(glib_pool(), &ran, nullptr); }

// Whether to measure only the time to pass the job, or the time until the job has run.
enum class Until { kGiven, kRun };

template <void (*give)(), Until until> bench::Nanoseconds measure(std::uint64_t count) {
  bench::Nanoseconds time{};
  for (; count > 0; --count) {
    const auto start = bench::Clock::now();
    give();
    const auto given = bench::Clock::now();
    wait_for_job();
    time += (until == Until::kGiven ? given : bench::Clock::now()) - start;
  }
  return time;
}

template <Until until> void give_rows(const bench::Table &table, const std::string &name) {
  const bench::Contender pool = bench::ours(measure<give_to_pool, until>);
  table.row((name + " (new thread)").c_str(),
            {pool, bench::peer("pthread_create", measure<give_to_new_thread, until>)});
  table.row(name.c_str(), {pool, bench::peer("GLib", measure<give_to_glib, until>)});
}

std::atomic<int> parked;
std::atomic<long> latest;

void *park(void *) {
  latest = gettid();
  ++parked;
  for (;;)
    pause();
}

void start_parked_threads() {
  pthread_attr_t attributes;
  vorn_thrd_attr_init(&attributes);
  vorn_thrd_setstacksize(&attributes, 65536);
  for (int i = 0; i < kThreads; ++i)
    vorn_thrd_create_attr(park, nullptr, nullptr, &attributes);
  while (parked != kThreads)
    usleep(1000);
}

// An implementation without the library: a map guarded by a lock, and counted references.
class Map {
public:
  Map() {
    for (long id = latest - kThreads + 1; id <= latest; ++id)
      threads_[id] = std::make_shared<long>(id);
  }
  std::shared_ptr<long> find(long id) {
    const std::lock_guard hold(mutex_);
    const auto at = threads_.find(id);
    return at == threads_.end() ? nullptr : at->second;
  }

private:
  std::mutex mutex_;
  std::unordered_map<long, std::shared_ptr<long>> threads_;
};

void find_row(const bench::Table &table) {
  start_parked_threads();
  Map map;
  const long id = latest;
  table.row("find the last of 1000 threads, put it back",
            {bench::ours([id] { vorn_thrd_putthreadinfo(vorn_thrd_getthreadinfobytid(id)); }),
             bench::peer("map, mutex", [&map, id] { return map.find(id).use_count(); })});
}

} // namespace

int main(int argc, char **argv) {
  sem_init(&ran, 0, 0);
  vorn_thread_pool_create(kPoolThreads);
  usleep(10'000);
  const bench::Table table{argc, argv, "Threads"};
  give_rows<Until::kGiven>(table, "give a job to a thread");
  give_rows<Until::kRun>(table, "give a job, wait until it has run");
  find_row(table);
  return 0;
}
