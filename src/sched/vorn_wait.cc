// Implements the wait queues. An entry belongs to the waiting thread until prepare_to_wait links
// it; from then on, the queue's lock guards it. But the waiting thread tests without the lock
// whether its node is unlinked, and then reuses the entry. So the waking thread unlinks the node
// last, and does not access the entry after that.
// SPDX-License-Identifier: Apache-2.0
#define VORN_FILE "vorn_sched.c"

#include "vorn_wait.h"

#include <mutex>

#include "base/system.hpp"
#include "list/links.hpp"
#include "lock/spin_guard.hpp"
#include "vorn_sched.h"

namespace vorn::sched {
namespace {

using list::is_alone;
using lock::SpinGuard;

static_assert(offsetof(vorn_wait_queue_head_s, lock) == 0);
static_assert(offsetof(vorn_wait_queue_head_s, queue) == 24);
static_assert(sizeof(vorn_wait_queue_head_s) == 40);
static_assert(offsetof(vorn_wait_entry_s, tid) == 0);
static_assert(offsetof(vorn_wait_entry_s, flag) == 4);
static_assert(offsetof(vorn_wait_entry_s, callback) == 8);
static_assert(offsetof(vorn_wait_entry_s, node) == 16);
static_assert(sizeof(vorn_wait_entry_s) == 32);

constexpr timespec kBackOff{0, 10000};

void set_flag(vorn_wait_entry_s *entry, uint32_t flag) {
  atomic_word(entry->flag).store(flag, std::memory_order_release);
}

void take_out(vorn_list_head_s *node) {
  list::unlink(node);
  list::make_alone(node);
}

void wake(vorn_wait_entry_s *entry) {
  const uint32_t tid = entry->tid;
  set_flag(entry, 0);
  vorn_wake_up_process(tid);
  take_out(&entry->node);
}

} // namespace
} // namespace vorn::sched

using namespace vorn::sched;

void __init_waitqueue_head(vorn_wait_queue_head_s *head) {
  vorn_spinlock_init(&head->lock);
  vorn_list_init_head(&head->queue);
}

int prepare_to_wait(vorn_wait_queue_head_s *head, vorn_wait_entry_s *entry) {
  const SpinGuard hold{head->lock};
  set_flag(entry, 1);
  if (is_alone(&entry->node)) vorn::list::insert_after(&head->queue, &entry->node);
  return 0;
}

int sched_wait(vorn_wait_entry_s *entry) { return vorn_wait_interruptible(&entry->flag); }

uint64_t sched_wait_timeout(vorn_wait_entry_s *entry, int64_t timeout) {
  return vorn_wait_comm(&entry->flag, timeout);
}

void finish_wait(vorn_wait_queue_head_s *head, vorn_wait_entry_s *entry) {
  while (!is_alone(&entry->node)) {
    const SpinGuard hold{head->lock, std::try_to_lock};
    if (!hold) {
      vorn::sys::sleep(kBackOff);
      continue;
    }
    if (!is_alone(&entry->node)) take_out(&entry->node);
    set_flag(entry, 0);
  }
}

void __wake_up(vorn_wait_queue_head_s *head) {
  const SpinGuard hold{head->lock};
  while (vorn_list_head_s *node = vorn_list_first(&head->queue))
    wake(vorn_list_entry(node, vorn_wait_entry_s, node));
}

void before_wait() {}

int autoremove_wake_function() { return 0; }
