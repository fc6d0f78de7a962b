/* The enhanced semaphore: a count of units, which threads take (down) and give back (up). A unit
 * that is given back goes to the thread that has waited longest, without being counted: no thread
 * overtakes a waiter. Threads sleep as vorn_sched.h describes, and what is said there of SIGWAKEUP
 * holds.
 *
 * Any thread may call, also up without a down before. None is a cancellation point, however long it
 * waits: a cancellation stays pending until the call is over, and a unit that the thread was
 * granted by then is its own to give back. None is for signal handlers. If no thread has to wait
 * the spin lock is taken and nothing else done. */
/* SPDX-License-Identifier: Apache-2.0 */
#ifndef VORN_SEM_ENHANCE_H
#define VORN_SEM_ENHANCE_H

#include "vorn_api.h"
#include "vorn_list.h"
#include "vorn_spinlock.h"

VORN_BEGIN_DECLS

/* A semaphore. It must outlive every call, those that have not returned by then included. */
typedef struct vorn_sem_enhance {
  vorn_spinlock_s lock;       /* guards the other fields, and the waiters */
  int32_t cnt;                /* free units; below 0, those owed by ups that find no waiter */
  vorn_list_head_s wait_list; /* the waiters, the longest waiting first */
} vorn_sem_enhance_s;

/* What a down returns that got no unit in time. */
#define VORN_SEM_TIMED_OUT (-61)

/* What a down returns whose wait a signal ended. */
#define VORN_SEM_INTERRUPTED (-4)

/* Makes *sem a semaphore of count units, while no thread uses it.
 *   sem: the semaphore
 *   count: number of free units
 * Returns 0. */
VORN_API int vorn_sem_enhance_init(vorn_sem_enhance_s *sem, int count);

/* Takes a unit; waits for it forever, whatever signals come.
 *   sem: the semaphore */
VORN_API void vorn_sem_enhance_down(vorn_sem_enhance_s *sem);

/* Takes a unit.
 *   sem: the semaphore
 * Returns 0, or VORN_SEM_INTERRUPTED when a signal ended the wait. */
VORN_API int vorn_sem_enhance_down_interruptible(vorn_sem_enhance_s *sem);

/* Takes a unit, and waits for it at most timeout milliseconds, rounded down to ticks of 4 ms: below
 * 4 it does not wait.
 *   sem: the semaphore
 *   timeout: most milliseconds to wait
 * Returns 0; VORN_SEM_TIMED_OUT when the time ran out; VORN_SEM_INTERRUPTED when a signal ended the
 * wait. */
VORN_API int vorn_sem_enhance_down_timeout(vorn_sem_enhance_s *sem, int64_t timeout);

/* Gives a unit back: to the longest waiting thread, which it wakes, else to the count, which must
 * stay below 2^31.
 *   sem: the semaphore
 * Returns 0, or the positive errno of vorn_wake_up_process, after information messages: the unit is
 * the waiter's all the same, which has ended by now where that is ESRCH. While the system's queue
 * of signals is full it tries again every microsecond. */
VORN_API int vorn_sem_enhance_up(vorn_sem_enhance_s *sem);

/* There is nothing to release.
 *   sem: the semaphore
 * Returns 0. */
VORN_API int vorn_sem_enhance_destroy(vorn_sem_enhance_s *sem);

/* Writes the count and each waiter to the log, as information messages.
 *   sem: the semaphore */
VORN_API void vorn_sem_enhance_show(vorn_sem_enhance_s *sem);

VORN_END_DECLS

#endif
