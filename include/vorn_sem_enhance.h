/* The enhanced semaphore: a count of units, which threads take (down) and release (up). An up
 * passes its unit directly to the thread that has waited longest, without counting it: no thread
 * overtakes a waiter. Threads sleep as vorn_sched.h describes, and its notes on SIGWAKEUP apply.
 *
 * Any thread may call these functions, and may call up without an earlier down. None is a
 * cancellation point, however long it waits: a cancellation stays pending until the call returns,
 * and the thread must release a unit that the call took. None is safe in a signal handler. If no
 * thread has to wait, a call only takes the spin lock. */
/* SPDX-License-Identifier: Apache-2.0 */
#ifndef VORN_SEM_ENHANCE_H
#define VORN_SEM_ENHANCE_H

#include "vorn_api.h"
#include "vorn_list.h"
#include "vorn_spinlock.h"

VORN_BEGIN_DECLS

/* A semaphore. It must stay valid until every call on it has returned. */
typedef struct vorn_sem_enhance {
  vorn_spinlock_s lock; /* guards the other fields, and the waiters */
  int32_t cnt; /* free units; if negative, the missing units, which ups without a waiter fill */
  vorn_list_head_s wait_list; /* the waiters, the longest waiting first */
} vorn_sem_enhance_s;

/* The result of a down that got no unit in time. */
#define VORN_SEM_TIMED_OUT (-61)

/* The result of a down whose wait a signal ended. */
#define VORN_SEM_INTERRUPTED (-4)

/* Makes *sem a semaphore of count units. No thread may be using it.
 *   sem: the semaphore
 *   count: number of free units
 * Returns 0. */
VORN_API int vorn_sem_enhance_init(vorn_sem_enhance_s *sem, int count);

/* Takes a unit. Waits for it without a time limit, whatever signals arrive.
 *   sem: the semaphore */
VORN_API void vorn_sem_enhance_down(vorn_sem_enhance_s *sem);

/* Takes a unit.
 *   sem: the semaphore
 * Returns 0; VORN_SEM_INTERRUPTED if a signal ended the wait. */
VORN_API int vorn_sem_enhance_down_interruptible(vorn_sem_enhance_s *sem);

/* Takes a unit. Waits for it at most timeout milliseconds, rounded down to ticks of 4 ms; below 4
 * ms it does not wait.
 *   sem: the semaphore
 *   timeout: maximum time to wait in milliseconds
 * Returns 0; VORN_SEM_TIMED_OUT if the time ran out; VORN_SEM_INTERRUPTED if a signal ended the
 * wait. */
VORN_API int vorn_sem_enhance_down_timeout(vorn_sem_enhance_s *sem, int64_t timeout);

/* Releases a unit: passes it to the thread that has waited longest and wakes it; otherwise, adds it
 * to the count, which must stay below 2^31.
 *   sem: the semaphore
 * Returns 0; if the wake-up fails, logs information and returns the positive errno of
 * vorn_wake_up_process. The waiter has the unit even then; with ESRCH, the waiter has ended. While
 * the system's signal queue is full, the function tries again every microsecond. */
VORN_API int vorn_sem_enhance_up(vorn_sem_enhance_s *sem);

/* Does nothing: there is nothing to release.
 *   sem: the semaphore
 * Returns 0. */
VORN_API int vorn_sem_enhance_destroy(vorn_sem_enhance_s *sem);

/* Logs the count and each waiter as information.
 *   sem: the semaphore */
VORN_API void vorn_sem_enhance_show(vorn_sem_enhance_s *sem);

VORN_END_DECLS

#endif
