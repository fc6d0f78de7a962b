/* One-shot timers of at most a millisecond, to the nanosecond, run by the thread "vorn_hr_timer".
 * What vorn_timer.h says of its timers holds for these too, except that the clock is
 * CLOCK_MONOTONIC and arming and deleting take O(log n) time. Of timers with the same expiry the
 * one that was armed first runs first.
 *
 * Callers use vorn_timer_add_ns, which makes a timer one of these, and then vorn_timer_modify,
 * vorn_timer_delete and the like, which come here. The functions below expect that of their timer;
 * a NULL one is refused. No function here is a cancellation point. */
/* SPDX-License-Identifier: Apache-2.0 */
#ifndef VORN_HR_TIMER_H
#define VORN_HR_TIMER_H

#include "vorn_api.h"
#include "vorn_timer.h"

VORN_BEGIN_DECLS

/* The longest time-out, in nanoseconds. */
#define VORN_HR_TIMER_MAX 1000000u

/* Starts the high-resolution timers, once per process, and logs that; the first vorn_hr_timer_add
 * makes this call. A further call logs that they have been started.
 * Returns 0; logs an error and returns -1 when the start failed. It is not tried again: from then
 * on this function and vorn_hr_timer_add fail. */
VORN_API int vorn_hr_timer_module_init(void);

/* Arms a timer for its timeOut nanoseconds from now.
 *   timer: the timer
 * Returns 0; logs an error and returns -1 when the timers could not be started, the timer is
 * pending, timeOut is above VORN_HR_TIMER_MAX, or the clock cannot be read. */
VORN_API int vorn_hr_timer_add(vorn_timer_s *timer);

/* Arms a timer, pending or not, for ns nanoseconds from now, which becomes its timeOut.
 *   timer: the timer
 *   ns: nanoseconds from now, at most VORN_HR_TIMER_MAX
 * Returns 0; logs an error and returns -1 when the timers have not been started, ns is above
 * VORN_HR_TIMER_MAX, or the clock cannot be read: the timer is not pending then. */
VORN_API int vorn_hr_timer_modify(vorn_timer_s *timer, uint64_t ns);

/* Disarms a timer.
 *   timer: the timer
 * Returns 0, also for a timer that was not pending, and for NULL; logs an error and returns -1 when
 * the timers have not been started. */
VORN_API int vorn_hr_timer_delete(vorn_timer_s *timer);

/* Disarms a timer and waits until its function is not running; what that call of the function has
 * armed is disarmed with its end.
 *   timer: the timer
 * Returns what vorn_hr_timer_delete returns; logs an error and returns -1 also when the timer's own
 * function calls it. */
VORN_API int vorn_hr_timer_delete_sync(vorn_timer_s *timer);

/* Returns 1 while the timer is armed, 0 otherwise.
 *   timer: the timer */
VORN_API int vorn_hr_timer_is_pending(vorn_timer_s *timer);

/* A diagnostic command: three arguments of which the third begins with "list" have all pending
 * timers written to the log at information level, in the order of their expiry. While it writes,
 * and sleeps for a second after every 50 lines, no high-resolution timer runs.
 *   argc: number of arguments
 *   argv: arguments, the third a command
 * Returns 0. */
VORN_API int vorn_hr_timer_diagnose_func(int argc, char **argv);

VORN_END_DECLS

#endif
