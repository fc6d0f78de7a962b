// Declares what the sources of the work pool share: the pool, the slots of the workers with a time
// limit, and the state of a worker. The path of a work item:
//
//   vorn_sched_add_work        queue.append, then wake_worker
//   a worker                   takes a unit of the semaphore, or is awake and looks at the queue
//   sched_work_select_task     queue.take
//   sched_work_run_task        the handler
//
// Locks: a thread takes the pool's mutex first, then either the queue's spin lock or a slot's
// mutex.
// SPDX-License-Identifier: Apache-2.0
#ifndef VORN_SCHEDWORK_HPP
#define VORN_SCHEDWORK_HPP

#include <atomic>
#include <cstddef>
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

// Chooses a sleeping worker to wake. A thread that has chosen one raises the semaphore, whose unit
// the worker then takes. While a chosen worker is on its way to the queue, no other is chosen:
// otherwise many would come for items that workers have taken that were awake. A worker that comes
// and leaves items has another one chosen.
//
// No wake-up is lost. A worker adds itself, or arrives, and then looks at the queue under its lock.
// A thread that adds an item under that lock later sees that. The lock orders these accesses, so
// those of the word are relaxed.
class Sleepers {
public:
  // A worker is about to sleep.
  void add() { word_.fetch_add(kSleeper, std::memory_order_relaxed); }

  // A worker that has not been chosen does not sleep any more. Returns false if it has been.
  bool withdraw() {
    std::uint32_t word = word_.load(std::memory_order_relaxed);
    while (word >= kSleeper && !change(word, word - kSleeper)) {
    }
    return word >= kSleeper;
  }

  // Returns false if no worker sleeps, or one is on its way.
  bool choose() {
    std::uint32_t word = word_.load(std::memory_order_relaxed);
    while (may_choose(word) && !change(word, word - kSleeper + kOnItsWay)) {
    }
    return may_choose(word);
  }

  // The chosen worker is about to look at the queue.
  void arrive() { word_.fetch_and(~kOnItsWay, std::memory_order_relaxed); }

  void forget() { word_.store(0, std::memory_order_relaxed); }

private:
  static constexpr std::uint32_t kOnItsWay = 1;
  static constexpr std::uint32_t kSleeper = 2; // one that has not been chosen

  static bool may_choose(std::uint32_t word) { return word >= kSleeper && word % kSleeper == 0; }

  // Leaves in word what was there before.
  bool change(std::uint32_t &word, std::uint32_t to) {
    return word_.compare_exchange_weak(word, to, std::memory_order_relaxed);
  }

  std::atomic<std::uint32_t> word_{0};
};

// A worker that has just run an item watches for the next one for a short time before it sleeps: it
// takes the item sooner, and the adding thread makes no system call.
class Lookout {
public:
  // Returns whether the watching worker takes the caller's item.
  bool hand_over() {
    State state = kWatching;
    return state_.load(std::memory_order_relaxed) == kWatching &&
           state_.compare_exchange_strong(state, kHanded);
  }

  // Begins the watch of one worker at a time. Returns false if another worker watches. After true,
  // end() returns whether an item was handed over.
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

// The words that every run changes, those that every item changes, and those that change only when
// a worker sleeps or wakes are in separate cache lines.
struct Pool {
  Mutex mutex; // serialises start and destroy
  std::atomic<bool> created{false};
  alignas(64) Population population;
  alignas(64) std::atomic<std::uint64_t> started{0}; // runs
  std::atomic<std::uint64_t> finished{0}; // read before started, so that it is never larger
  alignas(64) Queue queue;
  alignas(64) vorn_sem_enhance_s work{VORN_SPINLOCK_INIT, 0, {&work.wait_list, &work.wait_list}};
  alignas(64) Lookout lookout;
  Sleepers sleepers;
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

// Makes sure that a worker looks at the queue after the caller has added an item. Returns the
// result of the semaphore.
int wake_worker();

void watch_thread_ends();             // prepares for handlers that end their worker
int hire_workers(std::uint32_t life); // sched_work_create_thread, only for that life
void free_all_slots();
void forget_supervision(); // called in a child of fork()

} // namespace vorn::schedwork

#endif
