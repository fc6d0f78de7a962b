/* High-resolution timers: one-shot timers of at most a millisecond, in nanoseconds, which the
 * thread "vorn_hr_timer" runs. They behave as the timers of vorn_timer.h, except that the clock is
 * CLOCK_MONOTONIC and that arming and disarming take O(log n) time. Timers with the same expiry run
 * in the order in which they were armed.
 *
 * Callers use vorn_timer_add_ns, which makes a timer a high-resolution timer, and then
 * vorn_timer_modify, vorn_timer_delete and the other functions of vorn_timer.h, which call the
 * functions below. These expect a high-resolution timer and refuse NULL. No function here is a
 * cancellation point. */
/* SPDX-License-Identifier: Apache-2.0 */
#ifndef VORN_HR_TIMER_H
#define VORN_HR_TIMER_H

#include "vorn_api.h"
#include "vorn_timer.h"

VORN_BEGIN_DECLS

/* Maximum time-out in nanoseconds. */
#define VORN_HR_TIMER_MAX 1000000u

/* Starts the high-resolution timers, once per process, and logs that. The first vorn_hr_timer_add
 * calls this function. A further call logs that they are already started.
 * Returns 0; logs an error and returns -1 if the start failed. There is no second try: after a
 * failed start, this function and vorn_hr_timer_add always fail. */
VORN_API int vorn_hr_timer_module_init(void);

/* Arms a timer to expire timeOut nanoseconds from now.
 *   timer: the timer
 * Returns 0; logs an error and returns -1 if the timers could not be started, the timer is pending,
 * timeOut is above VORN_HR_TIMER_MAX, or the clock cannot be read. */
VORN_API int vorn_hr_timer_add(vorn_timer_s *timer);

/* Arms a timer, pending or not, to expire ns nanoseconds from now, and sets its timeOut to ns.
 *   timer: the timer
 *   ns: nanoseconds from now, at most VORN_HR_TIMER_MAX
 * Returns 0; logs an error and returns -1 if the timers have not been started, ns is above
 * VORN_HR_TIMER_MAX, or the clock cannot be read. After a failure the timer is not pending. */
VORN_API int vorn_hr_timer_modify(vorn_timer_s *timer, uint64_t ns);

/* Disarms a timer.
 *   timer: the timer
 * Returns 0, also if the timer was not pending or is NULL; logs an error and returns -1 if the
 * timers have not been started. */
VORN_API int vorn_hr_timer_delete(vorn_timer_s *timer);

/* Disarms a timer and waits until its function is not running. If that call of the function arms
 * the timer again, disarms it when the function returns.
 *   timer: the timer
 * Returns what vorn_hr_timer_delete returns; if the timer's own function calls it, logs an error
 * and returns -1. */
VORN_API int vorn_hr_timer_delete_sync(vorn_timer_s *timer);

/* Returns 1 while the timer is armed; otherwise, 0.
 *   timer: the timer */
VORN_API int vorn_hr_timer_is_pending(vorn_timer_s *timer);

/* A diagnostic command. With three arguments of which the third begins with "list", writes all
 * pending timers to the log at information level, in the order of their expiry. It sleeps for a
 * second after every 50 lines, and no high-resolution timer runs until it returns.
 *   argc: number of arguments
 *   argv: arguments, the third a command
 * Returns 0. */
VORN_API int vorn_hr_timer_diagnose_func(int argc, char **argv);

VORN_END_DECLS

#endif
