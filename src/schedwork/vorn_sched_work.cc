// Initialises, queues, deletes and shows work items.
// SPDX-License-Identifier: Apache-2.0
#include "vorn_sched_work.h"

#include <unistd.h>

#include "base/cancellation_guard.hpp"
#include "base/log.hpp"
#include "schedwork/vorn_sched_work.hpp"
#include "vorn_symbol.h"

namespace vorn::schedwork {
namespace {

static_assert(offsetof(vorn_sched_work_s, pid) == 0);
static_assert(offsetof(vorn_sched_work_s, timeout) == 4);
static_assert(offsetof(vorn_sched_work_s, node) == 8);
static_assert(offsetof(vorn_sched_work_s, pData) == 24);
static_assert(offsetof(vorn_sched_work_s, handler) == 32);
static_assert(sizeof(vorn_sched_work_s) == 40);

struct AddressText {
  explicit AddressText(const void *address)
      : AddressText(reinterpret_cast<std::uintptr_t>(address)) {}
  explicit AddressText(std::uintptr_t address) {
    vorn_symbol_addr_to_string(address, text, sizeof text);
  }
  char text[256] = "";
};

int wake_worker() {
  if (pool.lookout.hand_over()) return 0;
  return vorn_sem_enhance_up(&pool.work);
}

} // namespace
} // namespace vorn::schedwork

using namespace vorn::schedwork;

int vorn_sched_init_work(vorn_sched_work_s *work, vorn_sched_work_f handler, void *data) {
  if (work == nullptr) return VORN_FAIL(-1, "The v_pstWork is equal NULL.");
  work->pid = getpid();
  work->timeout = 0;
  vorn_list_poison(&work->node);
  work->pData = data;
  work->handler = handler;
  return work->pid;
}

int vorn_set_sched_work_timeout(vorn_sched_work_s *work, uint32_t seconds) {
  if (work == nullptr || seconds < VORN_SCHED_WORK_TIMEOUT_MIN)
    return VORN_FAIL(-1, "param %p, timeout %u.", static_cast<void *>(work), seconds);
  work->timeout = seconds;
  return 0;
}

int vorn_sched_add_work(vorn_sched_work_s *work) {
  if (work == nullptr) return VORN_FAIL(-1, "The v_pstWork is equal NULL.");
  if (!pool.created.load() && sched_work_init() != 0)
    return VORN_FAIL(-1, "Adding work failed, as the result of initing sched_work failed");
  if (pool.population.counts().destroying())
    VORN_LOG(vorn::kError, "In destroying, adding v_pstWork failed.");
  int32_t pid = 0;
  if (!pool.queue.append(work, &pid))
    return VORN_FAIL(-1, "Work in list is not initial, PID = (%d)", pid);
  const vorn::CancellationGuard off; // the item is queued and needs the wake-up of a worker
  const int result = wake_worker();
  // If a destroy has ended since the first test, either it saw the item, or this test sees its
  // effect: a destroy clears the flag before it reads the queue under the queue's lock.
  if (!pool.created.load()) sched_work_init();
  return result;
}

int vorn_sched_delete_work(vorn_sched_work_s *work) {
  if (work == nullptr) return VORN_FAIL(-1, "The v_pstWork is equal NULL.");
  if (!pool.created.load())
    return VORN_FAIL(-1, "Deleting work failed, as the sched_work not inited.");
  return pool.queue.remove(work) ? 0 : VORN_SCHED_WORK_NOT_QUEUED;
}

vorn_sched_work_s *sched_work_select_task() { return pool.queue.take(); }

void VornSchedWorkShow(vorn_list_head_s *node) {
  if (node == nullptr) return;
  const vorn_sched_work_s *work = vorn_list_entry(node, vorn_sched_work_s, node);
  const AddressText item{work};
  const AddressText data{work->pData};
  const AddressText handler{reinterpret_cast<std::uintptr_t>(work->handler)};
  VORN_LOG(vorn::kInfo,
           "Sched work entry:%s, schedWork pid:%d, sched work pData:%s, sched work process         "
           "function: %s",
           item.text, work->pid, data.text, handler.text);
}
