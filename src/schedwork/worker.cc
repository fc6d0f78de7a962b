// Implements the workers of the work pool: how they wait, run items and end.
//
// A worker belongs to one life of the pool. While it runs an item, a destroy may begin the next
// life. The worker learns that from the population's word, and then leaves without touching the
// counts, the slots and the queue of the next life. Units of the semaphore belong to no life: the
// worker passes its unit on.
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
  if (idle) vorn_sem_enhance_up(&pool.work); // it may have taken a unit
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

// Returns whether the worker must take an item before it sleeps. A thread that added an item before
// the watch began has raised the semaphore. This worker takes that unit, unless another worker has
// taken it and found no item.
bool finds_item_soon(bool watching) {
  if (watching && pool.queue.size() == 0) {
    const auto end = std::chrono::steady_clock::now() + kLookout;
    while (!pool.lookout.handed() && std::chrono::steady_clock::now() < end) {
      arch::pause();
      vorn_yield(); // the adding thread may be waiting for this CPU
    }
  }
  if (watching && pool.lookout.end()) return true;
  if (pool.queue.size() == 0) return false;
  vorn_sem_enhance_down_timeout(&pool.work, 0);
  return true;
}

// A cancellation of an idle worker takes effect here, and not in the next handler.
void wait_for_unit() {
  vorn_sem_enhance_down_timeout(&pool.work, kWaitMilliseconds);
  const CancellationOn on;
  pthread_testcancel();
}

// Returns whether the worker must leave because its life of the pool has ended or is ending.
bool leaves_idle() {
  const Counts now = pool.population.counts();
  if (now.life != t_worker.life) {
    vorn_sem_enhance_up(&pool.work); // the worker may have taken a unit
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

After run_item(vorn_sched_work_s *work) {
  pool.population.begin_run(t_worker.life);
  hire_workers(t_worker.life);
  report_all_busy();
  t_worker.running = true;
  pool.started.fetch_add(1);
  {
    const CancellationOn on;
    sched_work_run_task(work, t_worker.slot);
    pthread_testcancel(); // a cancellation during the handler must not end the next handler
  }
  // Begin the watch before the run counts as finished: a thread that waits for its end may add the
  // next item.
  const bool watching = pool.queue.size() == 0 && pool.lookout.begin();
  pool.finished.fetch_add(1);
  t_worker.running = false;
  if (end_run()) return finds_item_soon(watching) ? After::kTakeItem : After::kSleep;
  if (watching && pool.lookout.end()) vorn_sem_enhance_up(&pool.work);
  return After::kLeave;
}

void run_worker() {
  After after = After::kSleep;
  while (after != After::kLeave) {
    if (after == After::kSleep) wait_for_unit();
    if (leaves_idle()) return;
    vorn_sched_work_s *work = sched_work_select_task();
    after = work != nullptr ? run_item(work) : After::kSleep;
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
