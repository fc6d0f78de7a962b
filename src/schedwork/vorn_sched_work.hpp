// What the sources of the pool share. An item's way:
//
//   vorn_sched_add_work        queue.append, then a unit: to the lookout or to the semaphore
//   a worker's wait_for_unit   takes the unit
//   sched_work_select_task     queue.take
//   sched_work_run_task        the handler
//
// Locks: the pool's mutex comes first, and then one of the queue's spin lock and a slot's mutex.
#ifndef VORN_SCHEDWORK_HPP
#define VORN_SCHEDWORK_HPP

#include <atomic>
#include <cstdint>

#include "base/mutex.hpp"
#include "schedwork/population.hpp"
#include "schedwork/queue.hpp"
#include "vorn_sem_enhance.h"

namespace vorn::schedwork {

// A run of a worker with a time limit. Written under the mutex; the words are atomic for those who
// look before they take it.
struct Slot {
  std::atomic<std::uint64_t> start; // tick; 0: there is no such run
  Mutex mutex;
  std::atomic<bool> in_use;
  std::atomic<std::uint32_t> limit; // ticks
  std::uint32_t tid;
  std::uint32_t pid;
};

inline constexpr std::uint32_t kNoSlot = UINT32_MAX;

// Hands a unit to a worker that has just run an item and is awake: it is taken sooner, and costs
// the adding thread no system call.
class Lookout {
public:
  // Whether a worker has got the unit.
  bool hand_over() {
    State state = kWatching;
    return state_.load(std::memory_order_relaxed) == kWatching &&
           state_.compare_exchange_strong(state, kHanded);
  }

  // Looks out for a unit for a while, one worker at a time. Whether the caller has got one.
  bool watch();

  void forget() { state_.store(kNobody); }

private:
  enum State : std::uint32_t { kNobody, kWatching, kHanded };
  bool give_up();

  std::atomic<State> state_{kNobody};
};

struct Pool {
  Mutex mutex; // serialises start and destroy
  std::atomic<bool> created{false};
  Population population;
  std::atomic<std::uint64_t> started{0};  // runs
  std::atomic<std::uint64_t> finished{0}; // read before started, so that it is never the greater
  Queue queue;
  vorn_sem_enhance_s work{VORN_SPINLOCK_INIT, 0, {&work.wait_list, &work.wait_list}};
  Lookout lookout;
  std::atomic<std::uint32_t> free_minimum{4};
  std::atomic<std::uint32_t> free_maximum{8};
};
extern constinit Pool pool;

// The calling thread as a worker; active is false in any other.
struct Worker {
  bool active;
  bool running; // a handler
  std::uint32_t life;
  std::uint32_t slot;
};
extern constinit thread_local Worker t_worker;

// Whether the calling thread is a worker of an earlier life, which has no business with this one's
// queue and slots.
inline bool outlived() { return t_worker.active && t_worker.life != pool.population.counts().life; }

void watch_thread_ends();             // prepares for workers that are ended by their handlers
int hire_workers(std::uint32_t life); // sched_work_create_thread, for that life alone
void free_all_slots();
void forget_supervision(); // in a child of fork()

} // namespace vorn::schedwork

#endif
