// bench-links: glib-2.0 tbb uv
// Compares scheduled work with other thread pools: the time from adding an item until its handler
// runs, and the time to add and run many items.
//
// A thread adds a single item after a pause, while the threads of the pool sleep, and directly
// after the previous item. It waits for the item without sleeping, so that only the pool is
// measured.
// SPDX-License-Identifier: Apache-2.0
#include "vorn_sched_work.h"

#include <atomic>
#include <boost/asio/post.hpp>
#include <boost/asio/thread_pool.hpp>
#include <string>
#include <tbb/global_control.h>
#include <tbb/task_arena.h>
#include <thread>
#include <uv.h>
#include <vector>

#include "support/bench.hpp"
#include "support/glib_pool.hpp"
#include "vorn_time.h"

namespace {

constexpr int kThreads = 4;
constexpr std::size_t kItems = 1024;     // that a thread adds at a time in a row
constexpr std::size_t kMaxItems = 65536; // in the curve

// The number of items to add one after the other, until the system has moved the threads to
// different CPUs.
constexpr std::uint64_t kRepeats = 200;

std::atomic<std::size_t> g_ran{0};
bench::Clock::time_point g_began;

void ran() {
  g_began = bench::Clock::now();
  g_ran.fetch_add(1, std::memory_order_release);
}

struct Vorn {
  static void handle(vorn_sched_work_s *) { ran(); }
  Vorn() {
    for (vorn_sched_work_s &item : items)
      vorn_sched_init_work(&item, handle, nullptr);
  }
  void give(std::size_t i) { vorn_sched_add_work(&items[i]); }
  std::vector<vorn_sched_work_s> items{kMaxItems};
};

struct Asio {
  void give(std::size_t) { boost::asio::post(pool, ran); }
  boost::asio::thread_pool pool{kThreads};
};

struct Tbb {
  void give(std::size_t) { arena.enqueue(ran); }
  tbb::global_control threads{tbb::global_control::max_allowed_parallelism, kThreads + 1};
  tbb::task_arena arena{kThreads, 0};
};

struct GLib {
  static void handle(void *, void *) { ran(); }
  void give(std::size_t) { g_thread_pool_push(pool, this, nullptr); }
  GThreadPool *pool = g_thread_pool_new(handle, nullptr, kThreads, 1, nullptr);
};

// Only the thread of the loop may queue items; the loop also notifies it when they end.
struct Uv {
  static void handle(uv_work_t *) { ran(); }
  static void done(uv_work_t *, int) {}
  Uv() { uv_loop_init(&loop); }
  void give(std::size_t i) { uv_queue_work(&loop, &items[i], handle, done); }
  void collect() { uv_run(&loop, UV_RUN_DEFAULT); }
  uv_loop_t loop;
  std::vector<uv_work_t> items{kMaxItems};
};

template <class Pool> Pool &the() {
  static auto *const pool = new Pool; // lives until the program ends
  return *pool;
}

void wait_for(std::size_t count) {
  while (g_ran.load(std::memory_order_acquire) != count)
    std::this_thread::yield();
}

template <class Pool> void collect(Pool &pool) {
  if constexpr (requires { pool.collect(); }) pool.collect();
}

template <class Pool>
bench::Contender single(const std::string &name, std::chrono::microseconds pause) {
  return bench::contender(name, [pause](std::uint64_t count) {
    const std::uint64_t repeats = pause.count() == 0 ? kRepeats : 1;
    bench::Nanoseconds time{};
    for (count *= repeats; count > 0; --count) {
      if (pause.count() != 0) std::this_thread::sleep_for(pause);
      g_ran = 0;
      const auto start = bench::Clock::now();
      the<Pool>().give(0);
      wait_for(1);
      time += g_began - start;
      collect(the<Pool>());
    }
    return time / static_cast<double>(repeats);
  });
}

template <class Pool> bench::Contender many(const std::string &name, std::size_t items) {
  return bench::contender(name, [items](std::uint64_t count) {
    bench::Nanoseconds time{};
    for (; count > 0; --count) {
      g_ran = 0;
      const auto start = bench::Clock::now();
      for (std::size_t i = 0; i < items; ++i)
        the<Pool>().give(i);
      wait_for(items);
      time += bench::Clock::now() - start;
      collect(the<Pool>());
    }
    return time;
  });
}

std::vector<bench::Contender> contenders(auto measure) {
  return {measure.template operator()<Vorn>("ours"),
          measure.template operator()<Asio>("Boost.Asio"), measure.template operator()<Tbb>("TBB"),
          measure.template operator()<GLib>("GLib"), measure.template operator()<Uv>("libuv")};
}

std::vector<bench::Contender> contenders(std::size_t items) {
  return contenders([=]<class Pool>(const char *name) { return many<Pool>(name, items); });
}

void measure_curve(const bench::Table &table) {
  const bench::Curve curve{
      table, {"schedwork", "Scheduled work: add and run items", "items at once", "item"}};
  for (std::size_t items = 1; items <= kMaxItems; items *= 4)
    curve.point(items, items, contenders(items));
}

} // namespace

int main(int argc, char **argv) {
  vorn_gettime_init();
  const bench::Table table{argc, argv, "Scheduled work"};
  if (bench::wants_curves()) {
    measure_curve(table);
    return 0;
  }
  const struct {
    const char *name;
    std::chrono::microseconds pause;
  } singles[] = {{"one item, right after the last", {}},
                 {"one item, 1 ms after the last", std::chrono::microseconds{1000}}};
  for (const auto &row : singles) {
    table.row(row.name, contenders([&]<class Pool>(const char *name) {
                return single<Pool>(name, row.pause);
              }));
  }
  table.row("1024 items at once", contenders(kItems));
}
