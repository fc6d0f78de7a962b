// Implements the workers of the work pool: how they wait, run items and end.
//
// A worker belongs to one life of the pool. While it runs an item, a destroy may begin the next
// life. The worker learns that from the population's word, and then leaves without touching the
// counts, the slots and the queue of the next life. Units of the semaphore belong to no life: the
// worker wakes another for its unit.
//
// A worker that is awake runs items until the queue is empty, and needs no units for them. It
// counts as busy meanwhile.
// SPDX-License-Identifier: Apache-2.0
#define VORN_FILE "vorn_sched_work.c"

#include <algorithm>
#include <chrono>
#include <pthread.h>

#include "arch/pause.hpp"
#include "base/cancellation_guard.hpp"
#include "base/log.hpp"
#include "base/once.hpp"
#include "base/ratelimit.hpp"
#include "base/thread_id.hpp"
#include "schedwork/vorn_sched_work.hpp"
#include "vorn_jiffies.h"
#include "vorn_percpu_posix.h"
#include "vorn_sched.h"
#include "vorn_thrd.h"

namespace vorn::schedwork {

constinit thread_local Worker t_worker{};

namespace {

constexpr std::int64_t kWaitMilliseconds = 10000;
constexpr std::uint64_t kTicksPerSecond = 250;
constexpr const char *kThread = "sched_work_thread"; // the function that log messages name

// The time that a worker watches for the next item before it sleeps.
constexpr std::chrono::microseconds kLookout{20};

// Enables cancellation for a scope. Elsewhere a worker is not cancelled, so its counts stay right.
class CancellationOn {
public:
  CancellationOn() { pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, nullptr); }
  CancellationOn(const CancellationOn &) = delete;
  CancellationOn &operator=(const CancellationOn &) = delete;
  ~CancellationOn() {
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
    pthread_setcanceltype(PTHREAD_CANCEL_DEFERRED, nullptr); // a handler may have changed it
  }
};

constinit Once key_made{OncePolicy::kRetry};
pthread_key_t key;

void release_slot() {
  if (t_worker.slot != kNoSlot) vorn_del_sched_work_timeout_check(t_worker.slot);
}

// Cleans up after a worker that a handler has ended, or that was cancelled while it was idle.
void on_thread_end(void *) {
  const CancellationGuard off;
  if (!t_worker.active) return;
  const bool idle = !t_worker.running;
  if (!idle) pool.finished.fetch_add(1);
  release_slot();
  const bool counted = pool.population.leave(t_worker.life, idle);
  if (idle) wake_worker(); // it may have taken a unit
  // Another worker replaces it. If none can be started, the next add tries again.
  if (counted && hire_workers(t_worker.life) != 0) pool.created.store(false);
  t_worker.active = false;
}

void register_worker(std::uint32_t life) {
  t_worker = {true, false, life, kNoSlot};
  if (key_made.done()) pthread_setspecific(key, &t_worker);
  std::uint32_t slot = kNoSlot;
  if (vorn_add_sched_work_timeout_check(thread_id(), &slot) == 0) t_worker.slot = slot;
}

void unregister_worker() {
  t_worker.active = false;
  if (key_made.done()) pthread_setspecific(key, nullptr);
}

// Returns whether the worker must take an item before it sleeps. Without a watch, it sleeps only
// after it has looked at the queue once more.
bool finds_item_soon(bool watching) {
  if (!watching) return false;
  const auto end = std::chrono::steady_clock::now() + kLookout;
  while (!pool.lookout.handed() && pool.queue.size() == 0 &&
         std::chrono::steady_clock::now() < end) {
    arch::pause();
    vorn_yield(); // the adding thread may be waiting for this CPU
  }
  return pool.lookout.end() || pool.queue.size() != 0;
}

// Returns if there is an item or a unit, or after a time. A worker that another thread has chosen
// gets its unit, even if it wakes or finds an item by itself.
void wait_for_work() {
  pool.sleepers.add();
  if (!pool.queue.empty() && pool.sleepers.withdraw()) return;
  while (vorn_sem_enhance_down_timeout(&pool.work, kWaitMilliseconds) != 0) {
    if (pool.sleepers.withdraw()) return;
  }
  pool.sleepers.arrive();
}

// A cancellation of an idle worker takes effect here, and not in the next handler.
void rest() {
  wait_for_work();
  const CancellationOn on;
  pthread_testcancel();
}

// Returns whether the worker must leave because its life of the pool has ended or is ending.
bool leaves_idle() {
  const Counts now = pool.population.counts();
  if (now.life != t_worker.life) {
    wake_worker(); // the worker may have taken a unit
    return true;
  }
  if (!now.destroying()) return false;
  pool.population.leave(t_worker.life, true);
  release_slot();
  return true;
}

void report_all_busy() {
  const Counts now = pool.population.counts();
  if (now.total == VORN_SCHED_WORK_THREAD_COUNT && now.free == 0)
    VORN_LOG_RATELIMITED_AS(kThread, kInfo, kInfo, "All vorn_sched_work threads is running.");
}

// Returns whether the worker stays.
bool end_run() {
  if (pool.population.end_run(t_worker.life, pool.free_maximum.load())) return true;
  if (outlived()) return false;
  release_slot();
  pool.population.leave(t_worker.life, false);
  VORN_LOG_AS(kThread, kDebug, "Sched work thread exited.");
  return false;
}

enum class After { kSleep, kTakeItem, kLeave };

void run_item(vorn_sched_work_s *work) {
  hire_workers(t_worker.life);
  report_all_busy();
  pool.started.fetch_add(1);
  const CancellationOn on;
  sched_work_run_task(work, t_worker.slot);
  pthread_testcancel(); // a cancellation during the handler must not end the next handler
}

vorn_sched_work_s *next_item() {
  const Counts now = pool.population.counts();
  return now.life == t_worker.life && !now.destroying() ? sched_work_select_task() : nullptr;
}

After run_items(vorn_sched_work_s *work) {
  pool.population.begin_run(t_worker.life);
  t_worker.running = true;
  bool watching = false;
  while (work != nullptr) {
    run_item(work);
    // Begin the watch before the run counts as finished: a thread that waits for its end may add
    // the next item.
    work = next_item();
    watching = work == nullptr && pool.lookout.begin();
    pool.finished.fetch_add(1);
  }
  t_worker.running = false;
  if (end_run()) return finds_item_soon(watching) ? After::kTakeItem : After::kSleep;
  if (watching && pool.lookout.end()) wake_worker();
  return After::kLeave;
}

void run_worker() {
  After after = After::kSleep;
  while (after != After::kLeave) {
    if (after == After::kSleep) rest();
    if (leaves_idle()) return;
    vorn_sched_work_s *work = sched_work_select_task();
    if (work != nullptr && pool.queue.size() != 0) wake_worker();
    after = work != nullptr ? run_items(work) : After::kSleep;
  }
}

std::uint32_t ticks(std::uint32_t seconds) {
  return static_cast<std::uint32_t>(std::min<std::uint64_t>(seconds * kTicksPerSecond, UINT32_MAX));
}

} // namespace

void watch_thread_ends() {
  key_made.run([] { return vorn_key_create(&key, on_thread_end); });
}

} // namespace vorn::schedwork

using namespace vorn::schedwork;

void *sched_work_thread(void *argument) {
  const vorn::CancellationGuard off;
  VORN_LOG(vorn::kDebug, "Sched work thread running.");
  vorn_set_process_name("vorn_schedwork");
  vorn_setCurThreadStrategy(VORN_THRD_STRATEGY_MANAGE);
  register_worker(static_cast<std::uint32_t>(reinterpret_cast<std::uintptr_t>(argument)));
  run_worker();
  unregister_worker();
  return nullptr;
}

// The item is not accessed after the call of its handler: it may be gone.
void sched_work_run_task(vorn_sched_work_s *work, uint32_t slot) {
  const vorn_sched_work_f handler = work->handler;
  const auto pid = work->pid;
  if (handler == nullptr) {
    VORN_LOG(vorn::kError, "NULL sched work data handler, PID = (%d).", pid);
    return;
  }
  if (work->timeout == 0) {
    handler(work);
    return;
  }
  vorn_update_sched_work_timeout_info(slot, vorn_get_jiffies(), ticks(work->timeout),
                                      static_cast<std::uint32_t>(pid));
  handler(work);
  vorn_update_sched_work_timeout_info(slot, 0, 0, 0);
}
