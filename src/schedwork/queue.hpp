// The records that wait to be run, first in, first out, under a spin lock.
#ifndef VORN_SCHEDWORK_QUEUE_HPP
#define VORN_SCHEDWORK_QUEUE_HPP

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "vorn_sched_work.h"
#include "vorn_spinlock.h"

namespace vorn::schedwork {

class Queue {
public:
  // False when it is on a list: its process id is in *pid then. After a success the record may be
  // gone by the time the call returns.
  bool append(vorn_sched_work_s *work, std::int32_t *pid);

  // False when it is on no list.
  bool remove(vorn_sched_work_s *work);

  // NULL when there is none. A worker takes from its own life of the pool alone: a destroy hands
  // the queue to the next life while the workers of the last may still be on their way here.
  vorn_sched_work_s *take();

  // Drops all records; what comes after is the next life's.
  void drop_all();

  // Takes the lock: an append that this does not see comes after it, and sees what its caller
  // wrote.
  bool empty();

  // How many there are. May be old by the time it returns.
  std::size_t size() const { return size_.load(std::memory_order_relaxed); }

  // In a child of fork(): the records are not in this process's queue any more.
  void forget(std::uint32_t next_life);

private:
  vorn_list_head_s *head() { return &anchor_.node; }
  void resize(std::size_t size) { size_.store(size, std::memory_order_relaxed); }

  vorn_spinlock_s lock_ = VORN_SPINLOCK_INIT;
  // A whole record, because the report of a corrupt list shows the one that the head stands in.
  vorn_sched_work_s anchor_{0, 0, {&anchor_.node, &anchor_.node}, nullptr, nullptr};
  std::atomic<std::size_t> size_{0}; // written under the lock
  std::uint32_t life_ = 0;
};

} // namespace vorn::schedwork

#endif
