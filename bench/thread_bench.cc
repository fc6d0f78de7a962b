// bench-links: glib-2.0
// Measures passing a job to a thread, and finding a thread by its id.
// SPDX-License-Identifier: Apache-2.0
#include <atomic>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <pthread.h>
#include <random>
#include <semaphore.h>
#include <string>
#include <thread>
#include <unistd.h>
#include <unordered_map>
#include <vector>

#include "support/bench.hpp"
#include "support/glib_pool.hpp"
#include "support/threads.hpp"
#include "vorn_thrd.h"

namespace {

constexpr unsigned int kPoolThreads = 4;
constexpr std::uint64_t kBatch = 100; // lookups of each of several callers in an operation
constexpr std::size_t kThreads = 1000;

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

std::atomic<long> ids[kThreads]; // of the parked threads
std::atomic<std::size_t> parked;

void *park(void *) {
  ids[parked++] = gettid();
  for (;;)
    pause();
}

// Starts and joins a thread: the kernel gives its id to no other thread for a long time.
void spend_id() {
  std::thread{[] {}}.join();
}

// Starts threads until count are parked. As in a service that also runs short-lived threads, their
// ids are not consecutive.
void park_threads(std::size_t count) {
  static std::minstd_rand random{1};
  pthread_attr_t attributes;
  vorn_thrd_attr_init(&attributes);
  vorn_thrd_setstacksize(&attributes, 65536);
  for (std::size_t i = parked; i < count; ++i) {
    vorn_thrd_create_attr(park, nullptr, nullptr, &attributes);
    while (parked == i || ids[i] == 0)
      usleep(10);
    for (auto gap = random() % 16; gap > 0; --gap)
      spend_id();
  }
}

// An implementation without the library: a map guarded by a lock, and counted references.
class Map {
public:
  explicit Map(std::size_t count) {
    for (std::size_t i = 0; i < count; ++i)
      threads_[ids[i]] = std::make_shared<long>(ids[i]);
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

void find_ours(long id) {
  if (vorn_thrd_putthreadinfo(vorn_thrd_getthreadinfobytid(id)) < 1) std::abort();
}

void find_row(const bench::Table &table) {
  park_threads(kThreads);
  Map map{kThreads};
  const long id = ids[kThreads - 1];
  table.row("find the last of 1000 threads, put it back",
            {bench::ours([id] { find_ours(id); }),
             bench::peer("map, mutex", [&map, id] { return map.find(id).use_count(); })});
}

// Returns the id of a parked thread: of each in turn, in every thread that calls this from another
// one on.
long next_id(std::size_t count) {
  static std::atomic<std::size_t> first{0};
  static thread_local std::size_t at = first.fetch_add(97) % count;
  at = at + 1 < count ? at + 1 : 0;
  return ids[at].load(std::memory_order_relaxed);
}

// Returns contenders that find one of count threads, and put it back, in that many callers at once.
std::vector<bench::Contender> finders(Map &map, std::size_t count, unsigned int callers) {
  const auto in_callers = [callers](auto find) {
    return [=](std::uint64_t times) {
      return bench::in_threads(callers, times * kBatch, find) / kBatch / callers;
    };
  };
  return {bench::ours(in_callers([count] { find_ours(next_id(count)); })),
          bench::peer("map, mutex",
                      in_callers([&map, count] { bench::keep(map.find(next_id(count))); }))};
}

void measure_curves(const bench::Table &table) {
  const bench::Curve registered{
      table, {"registry", "Threads: find one by its id", "registered threads", "lookup"}};
  for (const std::size_t count : {1, 4, 16, 64, 256, 1000}) {
    park_threads(count);
    Map map{count};
    registered.point(count, 1, finders(map, count, 1));
  }
  const bench::Curve callers{
      table, {"registry-callers", "Threads: find one of 1000 by its id", "callers", "lookup"}};
  Map map{kThreads};
  for (unsigned int count = 1; count <= 16; count *= 2)
    callers.point(count, 1, finders(map, kThreads, count));
}

} // namespace

int main(int argc, char **argv) {
  sem_init(&ran, 0, 0);
  vorn_thread_pool_create(kPoolThreads);
  usleep(10'000);
  const bench::Table table{argc, argv, "Threads"};
  if (bench::wants_curves()) {
    measure_curves(table);
    return 0;
  }
  give_rows<Until::kGiven>(table, "give a job to a thread");
  give_rows<Until::kRun>(table, "give a job, wait until it has run");
  find_row(table);
  return 0;
}
