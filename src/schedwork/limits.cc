// Supervises the workers of the work pool: time limits, the stall detector, the heal task.
// SPDX-License-Identifier: Apache-2.0
#define VORN_FILE "vorn_sched_work.c"

#include <cstring>
#include <unistd.h>

#include "base/bounded.hpp"
#include "base/log.hpp"
#include "schedwork/vorn_sched_work.hpp"
#include "vorn_jiffies.h"
#include "vorn_sig_calltrace.h"

namespace vorn::schedwork {

constinit Slot slots[VORN_SCHED_WORK_THREAD_COUNT]{};

namespace {

constexpr std::uint64_t kStallTicks = 45000;
constexpr unsigned int kMostDumps = 4;

static_assert(offsetof(vorn_sched_work_heal_task_s, check) == 32);
static_assert(offsetof(vorn_sched_work_heal_task_s, settings) == 56);
static_assert(sizeof(vorn_sched_work_heal_task_s) == 72);

struct Stall {
  Mutex mutex;
  std::uint64_t first_check = 0; // tick; 0 if there was none
  std::uint64_t started = 0;     // runs at that time
};
constinit Stall stall;

constinit vorn_sched_work_heal_task_s heal_task{};

bool is_slot(std::uint32_t index) { return index < VORN_SCHED_WORK_THREAD_COUNT; }

void note(Slot &slot, std::uint64_t start, std::uint32_t limit, std::uint32_t pid) {
  slot.limit.store(limit);
  slot.pid = pid;
  slot.start.store(start);
}

// A destroy begins the next life and then takes the mutex of each slot. So a worker of the present
// life keeps its slot while it holds the mutex.
bool claim(Slot &slot, std::uint32_t tid) {
  const MutexGuard hold{slot.mutex};
  if (slot.in_use.load() || outlived()) return false;
  note(slot, 0, 0, 0);
  slot.tid = tid;
  slot.in_use.store(true);
  return true;
}

void release(Slot &slot) {
  note(slot, 0, 0, 0);
  slot.in_use.store(false);
}

// Reads the start before the clock. The worker's CPU may still have been a tick later, so the age
// is signed.
bool overran(const Slot &slot) {
  if (!slot.in_use.load()) return false;
  const std::uint64_t start = slot.start.load();
  const auto age = static_cast<std::int64_t>(vorn_get_jiffies() - start);
  return start != 0 && age > static_cast<std::int64_t>(slot.limit.load());
}

// Reports a run of the slot's worker that exceeds its limit. Returns whether there is one.
bool report_overrun(Slot &slot) {
  if (!overran(slot)) return false;
  std::uint32_t tid = 0;
  std::uint32_t pid = 0;
  {
    const MutexGuard hold{slot.mutex};
    if (!overran(slot)) return false;
    tid = slot.tid;
    pid = slot.pid;
  }
  VORN_LOG_AS("vorn_sched_work_timeout_theck", kWarning, "sched work timeout: tid %u, pid %u.", tid,
              pid);
  sched_work_dump_thread_stack(tid);
  return true;
}

void vorn_dump_partial_sched_work_thread() {
  unsigned int dumps = 0;
  for (Slot &slot : slots) {
    std::uint32_t tid = 0;
    std::uint32_t pid = 0;
    {
      const MutexGuard hold{slot.mutex};
      if (!slot.in_use.load()) continue;
      tid = slot.tid;
      pid = slot.pid;
    }
    if (++dumps > kMostDumps) return;
    VORN_LOG(kError, "sched work timeout: tid %u, pid %u.", tid, pid);
    sched_work_dump_thread_stack(tid);
  }
}

// Returns whether the pool stands still at this tick. If not, restarts the count.
bool stands_still(std::uint64_t now) {
  const std::uint64_t finished = pool.finished.load();
  const std::uint64_t started = pool.started.load();
  const MutexGuard hold{stall.mutex};
  const bool stuck = stall.first_check != 0 && started == stall.started &&
                     started - finished >= VORN_SCHED_WORK_THREAD_COUNT;
  if (stuck) return now - stall.first_check >= kStallTicks;
  stall.first_check = now;
  stall.started = started;
  return false;
}

} // namespace

void free_all_slots() {
  for (Slot &slot : slots) {
    const MutexGuard hold{slot.mutex};
    release(slot);
  }
}

void forget_supervision() {
  free_all_slots();
  stall.first_check = 0;
}

} // namespace vorn::schedwork

using namespace vorn::schedwork;

int vorn_add_sched_work_timeout_check(uint32_t tid, uint32_t *index) {
  if (index == nullptr) return VORN_FAIL(-1, "Invalid index, param null.");
  for (uint32_t i = 0; i < VORN_SCHED_WORK_THREAD_COUNT; ++i) {
    if (!claim(slots[i], tid)) continue;
    *index = i;
    return 0;
  }
  if (outlived()) return -1; // the worker ends at once
  return VORN_FAIL(-1, "can not find spare index for tid %u.", tid);
}

void vorn_update_sched_work_timeout_info(uint32_t index, uint64_t start, uint32_t limit,
                                         uint32_t pid) {
  if (!is_slot(index)) return;
  const vorn::MutexGuard hold{slots[index].mutex};
  if (!outlived()) note(slots[index], start, limit, pid);
}

void vorn_del_sched_work_timeout_check(uint32_t index) {
  if (!is_slot(index)) {
    VORN_LOG(vorn::kError, "Invalid index (%u).\n", index);
    return;
  }
  const vorn::MutexGuard hold{slots[index].mutex};
  if (!outlived()) release(slots[index]);
}

int vorn_sched_work_timeout_theck() {
  for (Slot &slot : slots) {
    if (report_overrun(slot)) return 1;
  }
  return 0;
}

int vorn_is_all_work_timeout() {
  if (!stands_still(vorn_get_jiffies())) return 0;
  vorn_dump_partial_sched_work_thread();
  return 1;
}

void vorn_heal_check_callback(vorn_sched_work_heal_result_s *result) {
  if (result == nullptr) {
    VORN_LOG(vorn::kError, "Invalid param");
    return;
  }
  vorn_sched_work_timeout_theck();
  result->outcome = vorn_is_all_work_timeout() == 0 ? 1 : 0;
}

void vorn_init_sched_work_heal_task_info() {
  heal_task = {"vorn_schedwork_timeout_check", vorn_heal_check_callback, {}, {1, 5, 5}, 0};
}

int vorn_get_sched_work_heal_task_info(vorn_sched_work_heal_task_s **task, uint32_t *count) {
  if (task == nullptr || count == nullptr)
    return VORN_FAIL(-1, "Invalid param, heal_task(%p), task_num(%p).", static_cast<void *>(task),
                     static_cast<void *>(count));
  *task = &heal_task;
  *count = 1;
  return 0;
}

void sched_work_dump_thread_stack(uint32_t tid) {
  dump_thread_stack_sig(getpid(), static_cast<pid_t>(tid));
}
