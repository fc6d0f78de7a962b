// Starts, grows and destroys the work pool.
//
// A destroy ends one life of the pool and begins the next:
//   1. Marks the population: no thread hires a worker, and an idle worker that wakes leaves.
//   2. Drops the queue and hands it to the next life: workers of the old life take nothing any
//      more.
//   3. Wakes the idle workers until none is counted. A worker that is too late will find that its
//      life has ended.
//   4. Begins the next life in the population's word, then frees the slots. A worker tests its life
//      under the slot's mutex before it writes the slot.
//   5. Starts the pool again if other threads have queued work items since step 2.
// SPDX-License-Identifier: Apache-2.0
#define VORN_FILE "vorn_sched_work.c"

#include <algorithm>

#include "base/fork_gate.hpp"
#include "base/log.hpp"
#include "schedwork/vorn_sched_work.hpp"
#include "vorn_cfg.h"
#include "vorn_sched.h"
#include "vorn_str.h"
#include "vorn_thrd.h"
#include "vorn_time.h"

namespace vorn::schedwork {

constinit Pool pool;

namespace {

constexpr std::uint64_t kFreeMinimum = 4;
constexpr std::uint64_t kFreeMaximum = 8;
constexpr int kMostLateRounds = 100; // of 10 ms each

constinit bool inited = false; // under the pool's mutex

constexpr char kSection[] = "VORN";
constexpr char kMinimumKey[] = "SCHED_THREAD_FREE_NUM_MIN";

// Returns whether the key exists.
bool read_bound(const char *key, std::uint64_t &bound) {
  char text[256];
  if (vorn_cfg_getItemValue(kSection, key, text, sizeof text) != 0) return false;
  bound = vorn_str_tou64(text);
  return true;
}

void set_bounds(std::uint64_t minimum, std::uint64_t maximum) {
  pool.free_minimum.store(static_cast<std::uint32_t>(std::min(minimum, kFreeMinimum)));
  pool.free_maximum.store(static_cast<std::uint32_t>(std::min(maximum, kFreeMaximum)));
}

// Called with the mutex held. Raises a unit for each queued item: workers that have ended may have
// taken the units that the adding threads raised.
int start() {
  sched_work_thread_num_set();
  if (sched_work_create_thread() != 0) return -1;
  pool.created.store(true);
  for (std::size_t items = pool.queue.size(); items > 0; --items)
    vorn_sem_enhance_up(&pool.work);
  return 0;
}

void wake_and_wait() {
  vorn_sem_enhance_up(&pool.work);
  vorn_10msleep(1);
}

void send_idle_home() {
  for (unsigned int idle = pool.population.counts().free; idle > 0; --idle)
    wake_and_wait();
  for (int round = 0; round < kMostLateRounds && pool.population.counts().free != 0; ++round)
    wake_and_wait();
}

// The child's thread may be a worker whose handler has called fork(). Its run is then the only one
// in progress, and belongs to an earlier life.
void forget_pool() {
  pool.population.begin_life();
  pool.queue.forget(pool.population.counts().life);
  vorn_sem_enhance_init(&pool.work, 0);
  pool.lookout.forget();
  pool.created.store(false);
  pool.finished.store(0);
  pool.started.store(t_worker.running ? 1 : 0);
  forget_supervision();
}
const ForkChild fork_child{forget_pool};

} // namespace

int hire_workers(std::uint32_t life) {
  const auto argument = reinterpret_cast<void *>(static_cast<std::uintptr_t>(life));
  while (pool.population.hire(life, pool.free_minimum.load())) {
    if (create_thread_nopreempt_raw(sched_work_thread, argument, nullptr) == 0) continue;
    pool.population.leave(life, true);
    return VORN_FAIL_AS("sched_work_create_thread", -1, "Create sched work thread fail.");
  }
  return 0;
}

} // namespace vorn::schedwork

using namespace vorn::schedwork;

int sched_work_init() {
  const vorn::MutexGuard hold{pool.mutex};
  if (!inited) {
    vorn_gettime_init(); // a spin lock needs the clock to know when to yield
    watch_thread_ends();
    vorn_init_sched_work_heal_task_info();
    inited = true;
  }
  return pool.created.load() ? 0 : start();
}

int sched_work_destroy() {
  const vorn::MutexGuard hold{pool.mutex};
  if (!pool.created.load()) return 0;
  pool.population.mark_destroying();
  vorn_10msleep(1);
  pool.queue.drop_all();
  send_idle_home();
  const int left = pool.population.begin_life().total - kDestroying;
  free_all_slots();
  if (left != 0)
    VORN_LOG(vorn::kDebug, "some sched work thread exited abnormally. totalThread = %d", left);
  pool.created.store(false);
  if (!pool.queue.empty()) start();
  return 0;
}

void sched_work_thread_num_set() {
  std::uint64_t minimum = kFreeMinimum;
  std::uint64_t maximum = kFreeMaximum;
  read_bound(kMinimumKey, minimum);
  read_bound("SCHED_THREAD_FREE_NUM_MAX", maximum);
  if (minimum == 0) {
    VORN_LOG(vorn::kWarning, "%s is 0, 1 is used.", kMinimumKey);
    minimum = 1; // a pool must run its items
  }
  if (maximum >= minimum) set_bounds(minimum, maximum);
}

int sched_work_create_thread() { return hire_workers(pool.population.counts().life); }
