/* Sleeps, yields, and the wait that everything else here builds on: a thread sleeps on a word of
 * its own until another makes that word 0 and sends it the wake-up signal. The tick is 4 ms.
 *
 * A thread that another is to wake sets its word to 1 before it can be found, and calls
 * vorn_wait_comm. The other makes the word 0, and then calls vorn_wake_up_process. In that order no
 * wake-up is lost, wherever the waiter is at that moment. Wait queues (vorn_wait.h) and semaphores
 * (vorn_sem_enhance.h) do just that.
 *
 * The signal is SIGWAKEUP, which the library reserves. Its handler does nothing, and restarts what
 * it interrupts (SA_RESTART) as far as the system can: select(2), nanosleep(2) and others end early
 * with EINTR all the same. A thread that saw its word become 0 before it slept gets the signal
 * later, when it may end a sleep, or the next interruptible wait. So that the signal arrives, the
 * first wait of a thread takes it out of the thread's signal mask.
 *
 * Any thread may call. The sleeps are cancellation points, as those of the system are; nothing else
 * here is: a cancellation that arrives during a wait stays pending until the wait is over. Sleeps
 * and yields are safe in a signal handler, errno apart; vorn_mdelay is once the time base has been
 * started. */
/* SPDX-License-Identifier: Apache-2.0 */
#ifndef VORN_SCHED_H
#define VORN_SCHED_H

#include <signal.h>

#include "vorn_api.h"

VORN_BEGIN_DECLS

/* --- Sleeps: none goes on after a signal has ended it, none reports a failure, all are
 * cancellation points --- */

/* Sleeps for that many units of 10 ms (select(2)); returns at once for 0.
 *   count: units of 10 ms */
VORN_API void vorn_10msleep(unsigned int count);

/* Sleeps for that many milliseconds (select(2)); returns at once for 0.
 *   milliseconds: the time in milliseconds */
VORN_API void vorn_msleep(unsigned int milliseconds);

/* Sleeps for that many microseconds (select(2)); returns at once for 0.
 *   microseconds: the time in microseconds */
VORN_API void vorn_usleep(unsigned int microseconds);

/* Gives the processor away for one millisecond (nanosleep(2)), so that also a thread of lower
 * priority can run. */
VORN_API void vorn_schedule(void);

/* Lets the threads of the same priority that wait for this CPU run first: sched_yield(2).
 * Returns 0. */
VORN_API int vorn_yield(void);

/* Keeps the processor busy for more than that many milliseconds, by vorn_time_getnanosec.
 *   milliseconds: the time in milliseconds
 * Returns the nanoseconds that it took. Starts the time base, if no thread has, and may block on
 * that. */
VORN_API uint64_t vorn_mdelay(unsigned int milliseconds);

/* --- Of the calling thread --- */

/* Names the calling thread: vorn_thrd_setname with name as the text, not as a format.
 *   name: the name
 * Returns 0. */
VORN_API int vorn_set_process_name(const char *name);

/* Binds the calling thread to one CPU (sched_setaffinity(2)), which smp_processor_id tells from
 * then on.
 *   cpu: number of the CPU
 * Returns 0; logs an error and returns -1 when cpu is not below the number of configured CPUs or
 * the system refuses. */
VORN_API int vorn_sched_setaffinity(unsigned long cpu);

/* --- Wait and wake-up --- */

/* The wake-up signal. */
#define SIGWAKEUP (SIGRTMAX - 4)

/* A time-out in ticks that never comes. */
#define VORN_WAIT_FOREVER INT64_MAX

/* Sleeps while *word is not 0, for at most timeout ticks from now, and until a handler of any
 * signal has run in the thread. A word that is 0 already ends the wait at once, a handler that ran
 * before the thread slept does not. The kernel module does the waiting; where it is absent, which
 * the first wait of the process finds out, futex(2) does.
 *   word: word that another thread makes 0
 *   timeout: most ticks to wait, VORN_WAIT_FOREVER for no limit
 * Returns the ticks that were left, rounded up: at least 1 for a wait that was ended. 0 when the
 * time has run out, the kernel module could not wait, or timeout is 0 or less, which does not wait.
 * word must be aligned; it is read only and belongs to the process. No cancellation point, however
 * long the wait. Not signal-safe. */
VORN_API uint64_t vorn_wait_comm(uint32_t *word, int64_t timeout);

/* Sleeps as vorn_wait_comm does, for at most 250 ticks.
 *   word: word that another thread makes 0
 * Returns -1 when the wait was ended, 0 when the time ran out. */
VORN_API int vorn_wait_interruptible(uint32_t *word);

/* Sends the wake-up signal to the thread of this process whose kernel id is tid (tgkill(2)). It is
 * a wake-up only for a thread whose word is 0 by now. A thread that has taken over the id of one
 * that ended gets a signal that does it no harm.
 *   tid: kernel id of the thread
 * Returns 0 or a positive errno: ESRCH when there is no such thread, EAGAIN when the queue of
 * signals is full, and that of sigaction(2), after an error message, while the handler cannot be
 * installed: nothing is sent then, for the signal would end the process. Signal-safe, errno apart,
 * once the handler is installed. */
VORN_API int vorn_wake_up_process(uint32_t tid);

/* Installs the handler of the wake-up signal; vorn_Init calls it.
 * Returns 0; -1 after an error message when the first call of the process could not. A later wait
 * or wake-up tries again, this function does not. Not signal-safe. */
VORN_API int vorn_sched_init(void);

VORN_END_DECLS

#endif
