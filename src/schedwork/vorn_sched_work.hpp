// Declares what the sources of the work pool share: the pool, the slots of the workers with a time
// limit, and the state of a worker. The path of a work item:
//
//   vorn_sched_add_work        queue.append, then a unit to the lookout or to the semaphore
//   a worker                   takes the unit, or finds the item while it is still awake
//   sched_work_select_task     queue.take
//   sched_work_run_task        the handler
//
// Locks: a thread takes the pool's mutex first, then either the queue's spin lock or a slot's
// mutex.
// SPDX-License-Identifier: Apache-2.0
#ifndef VORN_SCHEDWORK_HPP
#define VORN_SCHEDWORK_HPP

#include <atomic>
#include <cstdint>

#include "base/mutex.hpp"
#include "schedwork/population.hpp"
#include "schedwork/queue.hpp"
#include "vorn_sem_enhance.h"

namespace vorn::schedwork {

// A run of a worker with a time limit. A thread writes it under the mutex. The words are atomic for
// threads that read them before they take the mutex.
struct Slot {
  std::atomic<std::uint64_t> start; // tick; 0 if there is no such run
  Mutex mutex;
  std::atomic<bool> in_use;
  std::atomic<std::uint32_t> limit; // ticks
  std::uint32_t tid;
  std::uint32_t pid;
};

extern constinit Slot slots[VORN_SCHED_WORK_THREAD_COUNT];

inline constexpr std::uint32_t kNoSlot = UINT32_MAX;

// Hands a unit to a worker that has just run an item and is awake: the worker takes the item
// sooner, and the adding thread makes no system call.
class Lookout {
public:
  // Returns whether a worker has got the unit.
  bool hand_over() {
    State state = kWatching;
    return state_.load(std::memory_order_relaxed) == kWatching &&
           state_.compare_exchange_strong(state, kHanded);
  }

  // Begins the watch of one worker at a time. Returns false if another worker watches. After true,
  // end() returns whether a unit was handed over.
  bool begin() {
    State state = kNobody;
    return state_.compare_exchange_strong(state, kWatching);
  }
  bool end() {
    State state = kWatching;
    if (state_.compare_exchange_strong(state, kNobody)) return false;
    state_.store(kNobody); // from kHanded, which only the watching worker may reset
    return true;
  }

  bool handed() const { return state_.load(std::memory_order_relaxed) == kHanded; }

  void forget() { state_.store(kNobody); }

private:
  enum State : std::uint32_t { kNobody, kWatching, kHanded };

  std::atomic<State> state_{kNobody};
};

// The words that adding threads write, those that workers write, and those that a watching worker
// reads are in separate cache lines.
struct Pool {
  Mutex mutex; // serialises start and destroy
  std::atomic<bool> created{false};
  alignas(64) Population population;
  std::atomic<std::uint64_t> started{0};  // runs
  std::atomic<std::uint64_t> finished{0}; // read before started, so that it is never larger
  alignas(64) Queue queue;
  alignas(64) vorn_sem_enhance_s work{VORN_SPINLOCK_INIT, 0, {&work.wait_list, &work.wait_list}};
  alignas(64) Lookout lookout;
  alignas(64) std::atomic<std::uint32_t> free_minimum{4};
  std::atomic<std::uint32_t> free_maximum{8};
};
extern constinit Pool pool;

// The calling thread as a worker; active is false in other threads.
struct Worker {
  bool active;
  bool running; // is running a handler
  std::uint32_t life;
  std::uint32_t slot;
};
extern constinit thread_local Worker t_worker;

// Returns whether the calling thread is a worker of an earlier life, which must not touch the queue
// and the slots.
inline bool outlived() { return t_worker.active && t_worker.life != pool.population.counts().life; }

void watch_thread_ends();             // prepares for handlers that end their worker
int hire_workers(std::uint32_t life); // sched_work_create_thread, only for that life
void free_all_slots();
void forget_supervision(); // called in a child of fork()

} // namespace vorn::schedwork

#endif
