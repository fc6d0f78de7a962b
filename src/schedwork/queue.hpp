// Queues the work items that wait to run, first in, first out, under a spin lock.
// SPDX-License-Identifier: Apache-2.0
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
  // Returns false if the item is on a list; *pid is then its process id. After a success, the item
  // may be gone before the call returns.
  bool append(vorn_sched_work_s *work, std::int32_t *pid);

  // Returns false if the item is on no list.
  bool remove(vorn_sched_work_s *work);

  // Returns NULL if there is none. A worker takes only items of the life of the pool to which it
  // belongs: a destroy passes the queue to the next life, while a worker of the old life may still
  // be about to call this.
  vorn_sched_work_s *take();

  // Drops all items. Later items belong to the next life.
  void drop_all();

  // Takes the lock: an append that this call does not see comes later, and its thread sees the
  // caller's earlier writes.
  bool empty();

  // Returns the number of items. It may have changed before the call returns.
  std::size_t size() const { return size_.load(std::memory_order_relaxed); }

  // Called in a child of fork(), whose queue drops the parent's items.
  void forget(std::uint32_t next_life);

private:
  vorn_list_head_s *head() { return &anchor_.node; }
  void resize(std::size_t size) { size_.store(size, std::memory_order_relaxed); }

  vorn_spinlock_s lock_ = VORN_SPINLOCK_INIT;
  // A whole item, because the report of a corrupt list shows the structure that contains the head.
  vorn_sched_work_s anchor_{0, 0, {&anchor_.node, &anchor_.node}, nullptr, nullptr};
  std::atomic<std::size_t> size_{0}; // written under the lock
  std::uint32_t life_ = 0;
};

} // namespace vorn::schedwork

#endif
