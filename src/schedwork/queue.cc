// Implements the queue of the work pool.
// SPDX-License-Identifier: Apache-2.0
#define VORN_FILE "vorn_sched_work.c"

#include "schedwork/queue.hpp"

#include "list/vorn_list.hpp"
#include "lock/spin_guard.hpp"
#include "schedwork/vorn_sched_work.hpp"

namespace vorn::schedwork {
namespace {

// The names of functions for the messages of the list and of the lock.
constexpr const char *kAdd = "vorn_sched_add_work";
constexpr const char *kDelete = "vorn_sched_delete_work";
constexpr const char *kTake = "sched_work_select_task";
constexpr const char *kDestroy = "sched_work_destroy";

vorn_sched_work_s *record_of(vorn_list_head_s *node) {
  return vorn_list_entry(node, vorn_sched_work_s, node);
}

} // namespace

bool Queue::append(vorn_sched_work_s *work, std::int32_t *pid) {
  const lock::GatedSpinGuard hold{lock_, kAdd};
  if (!vorn_list_is_poisoned(&work->node)) {
    *pid = work->pid;
    return false;
  }
  list::insert_tail(head(), &work->node, VornSchedWorkShow, VORN_FILE, kAdd);
  resize(size() + 1);
  return true;
}

bool Queue::remove(vorn_sched_work_s *work) {
  const lock::GatedSpinGuard hold{lock_, kDelete};
  if (vorn_list_is_poisoned(&work->node)) return false;
  list::remove(&work->node, VornSchedWorkShow, VORN_FILE, kDelete);
  resize(size() - 1);
  return true;
}

vorn_sched_work_s *Queue::take() {
  const lock::GatedSpinGuard hold{lock_, kTake};
  if (t_worker.active && t_worker.life != life_) return nullptr;
  vorn_list_head_s *node = vorn_list_first(head());
  if (node == nullptr) return nullptr;
  list::remove(node, VornSchedWorkShow, VORN_FILE, kTake);
  resize(size() - 1);
  return record_of(node);
}

void Queue::drop_all() {
  const lock::GatedSpinGuard hold{lock_, kDestroy};
  for (vorn_list_head_s *node = nullptr; (node = vorn_list_first(head())) != nullptr;)
    list::remove(node, VornSchedWorkShow, VORN_FILE, kDestroy);
  resize(0);
  ++life_;
}

bool Queue::empty() {
  const lock::GatedSpinGuard hold{lock_, kDestroy};
  return size() == 0;
}

void Queue::forget(std::uint32_t next_life) {
  while (vorn_list_head_s *node = vorn_list_first(head())) {
    head()->next = node->next;
    vorn_list_poison(node);
  }
  vorn_list_init_head(head());
  vorn_spinlock_init(&lock_);
  resize(0);
  life_ = next_life;
}

} // namespace vorn::schedwork
