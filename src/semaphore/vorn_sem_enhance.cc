// Implements the enhanced semaphore.
//
// 1. down takes a unit if there is one. Otherwise it links a waiter, releases the lock, and sleeps
//    on the waiter's status.
// 2. up gives its unit to the first waiter: it unlinks the waiter, sets the status to 0, and wakes
//    the thread. Without a waiter, it adds the unit to the count.
// 3. The thread in down takes the lock again and tests the status. If it has no unit, a plain down
//    sleeps again; the others unlink the waiter and return.
//
// A waiter is on the stack of the thread in down, and the semaphore's lock guards it from the
// moment when it is linked. An up that grants it a unit accesses it only under the lock. The
// waiting thread also tests its status under the lock, and so does not return before that up is
// done with the waiter. After the lock, up uses only a number, the thread's id.
// SPDX-License-Identifier: Apache-2.0
#include "vorn_sem_enhance.h"

#include <cerrno>

#include "base/cancellation_guard.hpp"
#include "base/infra_log.hpp"
#include "base/log.hpp"
#include "base/thread_id.hpp"
#include "list/links.hpp"
#include "lock/spin_guard.hpp"
#include "vorn_sched.h"

namespace vorn::semaphore {
namespace {

using lock::SpinGuard;
using lock::SpinRelease;

constexpr int64_t kMillisecondsPerTick = 4;

enum Status : uint32_t { kGranted = 0, kWaiting = 1 };

struct Waiter {
  vorn_list_head_s node;
  uint32_t waiter_tid;
  uint32_t status; // the word that the thread sleeps on
};

static_assert(offsetof(vorn_sem_enhance_s, lock) == 0);
static_assert(offsetof(vorn_sem_enhance_s, cnt) == 24);
static_assert(offsetof(vorn_sem_enhance_s, wait_list) == 32);
static_assert(sizeof(vorn_sem_enhance_s) == 48);

enum class Mode { kInterruptible, kPlain };

bool take_unit(vorn_sem_enhance_s *sem) {
  if (sem->cnt < 1) return false;
  --sem->cnt;
  return true;
}

// Called and returns with the lock held. The thread is not cancelled while its waiter is in the
// list. A plain down does not end by a time-out: there, a time-out means that the wait failed, and
// the thread pauses before the next attempt.
int down_common_inner(vorn_sem_enhance_s *sem, Mode mode, int64_t timeout) {
  const CancellationGuard off;
  Waiter self{{}, thread_id(), kWaiting};
  list::insert_after(sem->wait_list.prev, &self.node);
  for (;;) {
    uint64_t left = 0;
    {
      const SpinRelease open{sem->lock};
      left = vorn_wait_comm(&self.status, timeout);
      if (left == 0 && mode == Mode::kPlain) vorn_schedule();
    }
    if (self.status == kGranted) return 0;
    if (mode == Mode::kPlain) continue;
    list::unlink(&self.node);
    return left == 0 ? VORN_SEM_TIMED_OUT : VORN_SEM_INTERRUPTED;
  }
}

// Gives the unit to the first waiter and returns its thread id; without a waiter, adds it to the
// count and returns 0.
uint32_t give_unit(vorn_sem_enhance_s *sem) {
  vorn_list_head_s *node = vorn_list_first(&sem->wait_list);
  if (node == nullptr) {
    ++sem->cnt;
    return 0;
  }
  Waiter *waiter = vorn_list_entry(node, Waiter, node);
  list::unlink(node);
  list::make_alone(node);
  const uint32_t tid = waiter->waiter_tid;
  atomic_word(waiter->status).store(kGranted, std::memory_order_release);
  return tid;
}

// The waiter has its unit, but sleeps until it gets the signal.
[[gnu::cold, gnu::noinline]] int retry_wake_up(const vorn_sem_enhance_s *sem, uint32_t tid,
                                               int result) {
  constexpr const char *kUp = "vorn_sem_enhance_up";
  const auto address = reinterpret_cast<unsigned long>(sem);
  VORN_LOG_INFRA_AS(kUp, "Wake up sem(0x%lx) waiter tid(%u) fail ret(%d).", address, tid, result);
  const CancellationGuard off;
  while (result == EAGAIN) {
    result = vorn_wake_up_process(tid);
    if (result == 0) {
      VORN_LOG_INFRA_AS(kUp, "Retry wake up sem(0x%lx) waiter tid(%u) sucess.", address, tid);
      return 0;
    }
    vorn_usleep(1);
  }
  VORN_LOG_INFRA_AS(kUp, "Retry wake up sem(0x%lx) waiter tid(%u) fail ret(%d).", address, tid,
                    result);
  return result;
}

} // namespace
} // namespace vorn::semaphore

using namespace vorn::semaphore;

int vorn_sem_enhance_init(vorn_sem_enhance_s *sem, int count) {
  vorn_spinlock_init(&sem->lock);
  sem->cnt = count;
  vorn_list_init_head(&sem->wait_list);
  return 0;
}

void vorn_sem_enhance_down(vorn_sem_enhance_s *sem) {
  const SpinGuard hold{sem->lock};
  if (take_unit(sem)) return;
  down_common_inner(sem, Mode::kPlain, VORN_WAIT_FOREVER);
}

int vorn_sem_enhance_down_interruptible(vorn_sem_enhance_s *sem) {
  const SpinGuard hold{sem->lock};
  if (take_unit(sem)) return 0;
  return down_common_inner(sem, Mode::kInterruptible, VORN_WAIT_FOREVER);
}

int vorn_sem_enhance_down_timeout(vorn_sem_enhance_s *sem, int64_t timeout) {
  const SpinGuard hold{sem->lock};
  if (take_unit(sem)) return 0;
  return down_common_inner(sem, Mode::kInterruptible, timeout / kMillisecondsPerTick);
}

int vorn_sem_enhance_up(vorn_sem_enhance_s *sem) {
  uint32_t tid = 0;
  {
    const SpinGuard hold{sem->lock};
    tid = give_unit(sem);
  }
  if (tid == 0) return 0;
  const int result = vorn_wake_up_process(tid);
  return result == 0 ? 0 : retry_wake_up(sem, tid, result);
}

int vorn_sem_enhance_destroy(vorn_sem_enhance_s *) { return 0; }

void vorn_sem_enhance_show(vorn_sem_enhance_s *sem) {
  const void *address = sem;
  const SpinGuard hold{sem->lock};
  VORN_LOG(vorn::kInfo, "TBOSAX:sem %p cnt %d", address, sem->cnt);
  for (vorn_list_head_s *node = sem->wait_list.next; node != &sem->wait_list; node = node->next) {
    const Waiter *waiter = vorn_list_entry(node, Waiter, node);
    VORN_LOG(vorn::kInfo, "TBOSAX:sem %p cnt %d waiterTid %d status %d cur %p next %p pre %p",
             address, sem->cnt, static_cast<int>(waiter->waiter_tid),
             static_cast<int>(waiter->status), static_cast<void *>(node),
             static_cast<void *>(node->next), static_cast<void *>(node->prev));
  }
}
