/* Sleeps, yields, and the basic wait of the library: a thread sleeps on its own word until another
 * thread sets the word to 0 and sends it the wake-up signal. A tick is 4 ms.
 *
 * A waiter sets its word to 1 before another thread can find it, and then calls vorn_wait_comm. The
 * waker sets the word to 0, and then calls vorn_wake_up_process. In this order no wake-up is lost,
 * whatever the waiter is doing at that moment. Wait queues (vorn_wait.h) and semaphores
 * (vorn_sem_enhance.h) use this scheme.
 *
 * The library reserves the signal SIGWAKEUP for this. Its handler does nothing. The system restarts
 * interrupted calls (SA_RESTART) if it can, but select(2), nanosleep(2) and others still end early
 * with EINTR. If a thread sees that its word is 0 before it sleeps, the signal arrives later and
 * may end a sleep or the next interruptible wait. The first wait of a thread unblocks the signal in
 * the thread's signal mask.
 *
 * Any thread may call these functions. The sleeps are cancellation points, as the system's sleeps
 * are; no other function is, and a cancellation that arrives during a wait stays pending until the
 * wait ends. Sleeps and yields are safe in a signal handler but may change errno; vorn_mdelay is
 * safe there once the time base has been started. */
/* SPDX-License-Identifier: Apache-2.0 */
#ifndef VORN_SCHED_H
#define VORN_SCHED_H

#include <signal.h>

#include "vorn_api.h"

VORN_BEGIN_DECLS

/* --- Sleeps: a signal ends each early, none reports a failure, all are cancellation points --- */

/* Sleeps for count units of 10 ms (select(2)). Returns immediately if count is 0.
 *   count: units of 10 ms */
VORN_API void vorn_10msleep(unsigned int count);

/* Sleeps for that many milliseconds (select(2)). Returns immediately if the time is 0.
 *   milliseconds: the time in milliseconds */
VORN_API void vorn_msleep(unsigned int milliseconds);

/* Sleeps for that many microseconds (select(2)). Returns immediately if the time is 0.
 *   microseconds: the time in microseconds */
VORN_API void vorn_usleep(unsigned int microseconds);

/* Sleeps for one millisecond (nanosleep(2)), so that threads of lower priority can run too. */
VORN_API void vorn_schedule(void);

/* Lets the other threads of the same priority that wait for this CPU run first: sched_yield(2).
 * Returns 0. */
VORN_API int vorn_yield(void);

/* Keeps the processor busy for more than that many milliseconds, by vorn_time_getnanosec.
 *   milliseconds: the time in milliseconds
 * Returns the time that it took in nanoseconds. Starts the time base if necessary, and may block on
 * that. */
VORN_API uint64_t vorn_mdelay(unsigned int milliseconds);

/* --- The calling thread --- */

/* Sets the name of the calling thread with vorn_thrd_setname. name is a text, not a format.
 *   name: the name
 * Returns 0. */
VORN_API int vorn_set_process_name(const char *name);

/* Binds the calling thread to one CPU (sched_setaffinity(2)). smp_processor_id returns that CPU
 * from then on.
 *   cpu: number of the CPU
 * Returns 0; logs an error and returns -1 if cpu is not below the number of configured CPUs or the
 * system refuses. */
VORN_API int vorn_sched_setaffinity(unsigned long cpu);

/* --- Wait and wake-up --- */

/* The wake-up signal. */
#define SIGWAKEUP (SIGRTMAX - 4)

/* The time-out in ticks that means no time limit. */
#define VORN_WAIT_FOREVER INT64_MAX

/* Sleeps while *word is not 0, for at most timeout ticks. A signal handler that runs in the thread
 * also ends the wait, but not if it ran before the thread slept. If the word is already 0, returns
 * immediately. Waits in the kernel module; if the first wait of the process finds that the module
 * is missing, waits with futex(2).
 *   word: word that another thread sets to 0
 *   timeout: maximum number of ticks to wait, VORN_WAIT_FOREVER for no limit
 * Returns the number of ticks left, rounded up: at least 1 if the wait was ended. Returns 0 if the
 * time ran out or the kernel module could not wait; if timeout is 0 or less, returns 0 without
 * waiting. word must be aligned. The function only reads it, and it must not be shared between
 * processes. Not a cancellation point, however long the wait. Not signal-safe. */
VORN_API uint64_t vorn_wait_comm(uint32_t *word, int64_t timeout);

/* Sleeps as vorn_wait_comm does, for at most 250 ticks.
 *   word: word that another thread sets to 0
 * Returns -1 if the wait was ended, 0 if the time ran out. */
VORN_API int vorn_wait_interruptible(uint32_t *word);

/* Sends the wake-up signal to the thread of this process whose kernel id is tid (tgkill(2)). The
 * caller must first set the word of that thread to 0. If the thread has ended and another thread
 * has its id, that thread gets a harmless signal.
 *   tid: kernel id of the thread
 * Returns 0 or a positive errno: ESRCH if there is no such thread, EAGAIN if the signal queue is
 * full. If the handler cannot be installed, logs an error, sends nothing, because the signal would
 * end the process, and returns the errno of sigaction(2). Signal-safe once the handler is
 * installed, but may change errno. */
VORN_API int vorn_wake_up_process(uint32_t tid);

/* Installs the handler of the wake-up signal. vorn_Init calls this function.
 * Returns 0; logs an error and returns -1 if the first call in the process could not install it. A
 * later wait or wake-up tries again; a later call of this function does not. Not signal-safe. */
VORN_API int vorn_sched_init(void);

VORN_END_DECLS

#endif
