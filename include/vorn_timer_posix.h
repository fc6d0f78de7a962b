/* Wrappers for the POSIX timers of a process (timer_create(2) and related calls) that check their
 * arguments. Each function returns the system's result, -1 with errno on failure; if it refuses an
 * argument, it logs an error and returns -22. Any thread may call these functions. None blocks, and
 * none is a cancellation point. */
/* SPDX-License-Identifier: Apache-2.0 */
#ifndef VORN_TIMER_POSIX_H
#define VORN_TIMER_POSIX_H

#include <sys/types.h>

#include "vorn_api.h"

VORN_BEGIN_DECLS

struct sigevent;   /* of <signal.h> */
struct itimerspec; /* of <time.h> */

/* The result for a refused argument. */
#define VORN_TIMER_POSIX_REFUSED (-22)

/* Creates a timer (timer_create(2)) on one of the clocks 0 to 3: CLOCK_REALTIME, CLOCK_MONOTONIC,
 * CLOCK_PROCESS_CPUTIME_ID or CLOCK_THREAD_CPUTIME_ID. evp and timerid must not be NULL.
 *   clockid: clock of the timer, 0 to 3
 *   evp: notification at the expiry
 *   timerid: where the timer's id goes
 * Returns what timer_create(2) returns; logs an error and returns -22 for a refused argument. */
VORN_API int vorn_timer_create_posix(clockid_t clockid, struct sigevent *evp, timer_t *timerid);

/* Arms or disarms a timer: timer_settime(2). new_value must not be NULL; old_value may be.
 *   timerid: the timer's id
 *   flags: 0 or TIMER_ABSTIME
 *   new_value: expiry and interval
 *   old_value: where the previous setting goes, or NULL
 * Returns what timer_settime(2) returns; logs an error and returns -22 for a refused argument. */
VORN_API int vorn_timer_settime_posix(timer_t timerid, int flags,
                                      const struct itimerspec *new_value,
                                      struct itimerspec *old_value);

/* Reads a timer's setting: timer_gettime(2). curr_value must not be NULL.
 *   timerid: the timer's id
 *   curr_value: where the setting goes
 * Returns what timer_gettime(2) returns; logs an error and returns -22 for a refused argument. */
VORN_API int vorn_timer_gettime_posix(timer_t timerid, struct itimerspec *curr_value);

/* Deletes a timer: timer_delete(2).
 *   timerid: the timer's id
 * Returns what timer_delete(2) returns. */
VORN_API int vorn_timer_delete_posix(timer_t timerid);

/* Reads the number of additional expiries between a signal of the timer and its delivery:
 * timer_getoverrun(2). Signal-safe.
 *   timerid: the timer's id
 * Returns what timer_getoverrun(2) returns. */
VORN_API int vorn_timer_getoverrun_posix(timer_t timerid);

VORN_END_DECLS

#endif
