/* One-shot timers in milliseconds. A timer is a record of the caller's that names a function; one
 * thread of the library, "vorn_run_timers", calls the function once when the time has come. Arming
 * and deleting take constant time, however many timers are pending.
 *
 *   static vorn_timer_s timer; // all zero, or vorn_timer_init
 *
 *   vorn_timer_set(&timer, 250, (uint64_t)request, expired);
 *   vorn_timer_add(&timer);         // expired(request) in 250 ms
 *   vorn_timer_modify(&timer, 500); // no: in 500 ms from now
 *   vorn_timer_delete_sync(&timer); // no longer, and it does not run now
 *
 * Time is vorn_time_getmillisec: a timer is never early by that clock. As the clock's current
 * millisecond counts as a whole one, a timer of n ms may run up to 1 ms before n ms have passed.
 *
 * A function runs without any lock of the library, one at a time: one that blocks delays the
 * others, and one of more than 300 ms is reported in the log. It may arm, delete and free any
 * timer, its own included, whose record is no longer looked at once its function has been called;
 * it must not wait for itself (vorn_timer_delete_sync). One that ends its thread by pthread_exit(3)
 * is given up, and the timers go on in another thread.
 *
 * A record belongs to the caller and must stay in place, and its func, data and texts as they are,
 * while it is pending. All functions but vorn_timer_init and vorn_timer_set_raw may be called for
 * one timer by several threads at once. None is for signal handlers, and none is a cancellation
 * point. They return 0; they log an error and return -1 otherwise.
 *
 * In a child of fork() no timer is pending: those of the parent run in the parent alone, and their
 * records may be armed in the child at once. The first timer that is armed there starts the child's
 * own thread. A function that calls fork() must not return in the child.
 *
 * With a record whose flags have VORN_TIMER_HR, which vorn_timer_add_ns sets and vorn_timer_add
 * clears, each function does what its namesake in vorn_hr_timer.h does. */
/* SPDX-License-Identifier: Apache-2.0 */
#ifndef VORN_TIMER_H
#define VORN_TIMER_H

#include "vorn_api.h"
#include "vorn_list.h"
#include "vorn_rbtree.h"

VORN_BEGIN_DECLS

/* What a timer calls with its data. */
typedef void (*vorn_timer_f)(uint64_t data);

/* A timer. Its caller sets it by vorn_timer_set and reads it at most. */
typedef struct vorn_timer {
  vorn_rb_node_s node;   /* of a pending high-resolution timer, which runs at */
  int64_t seconds;       /* this time of CLOCK_MONOTONIC */
  int64_t nanoseconds;   /* 10^9 may stand here for another second */
  vorn_list_head_s list; /* next is NULL when no timer of the wheel */
  uint64_t expirTime;    /* when it runs, in milliseconds of vorn_time_getmillisec */
  uint64_t timeOut;      /* from its arming to then: milliseconds, or nanoseconds */
  uint64_t data;         /* what func is called with */
  vorn_timer_f func;     /* NULL: not set yet */
  uint8_t isp;           /* VORN_TIMER_HR_PENDING or 0 */
  uint8_t flags;         /* VORN_TIMER_HR or 0 */
  uint32_t owner;        /* the process that armed it, by the library's count of forks */
  const char *funcName;  /* the function that set it */
  const char *file;      /* its source */
  int line;              /* and line */
} vorn_timer_s;

/* In flags: a high-resolution timer. */
#define VORN_TIMER_HR 1u

/* In isp: a high-resolution timer that is pending. */
#define VORN_TIMER_HR_PENDING 17u

/* Sets a timer in the caller's name: vorn_timer_set_raw.
 *   timer: the timer
 *   timeOut: milliseconds, or nanoseconds for vorn_timer_add_ns
 *   data: argument of func
 *   func: function to call
 * Returns what vorn_timer_set_raw returns. */
#define vorn_timer_set(timer, timeOut, data, func)                                                 \
  vorn_timer_set_raw(timer, timeOut, data, func, __func__, __FILE__, __LINE__)

/* Starts the timers, once per process; vorn_Init makes this call. Starts the thread, with the CPUs
 * of the affinity level "affinity_level_1" where there is one.
 * Returns 0; logs an error and returns -1 on failure: a further call tries again. */
VORN_API int vorn_timer_module_init(void);

/* Makes *timer a record of zeros, whatever it held: never while it is pending.
 *   timer: the timer
 * Returns 0; logs an error and returns -1 when timer is NULL. */
VORN_API int vorn_timer_init(vorn_timer_s *timer);

/* Makes *timer a timer of timeOut milliseconds (nanoseconds for vorn_timer_add_ns) that calls
 * func(data). funcName and file must last as long as the timer; they and line are shown in the log.
 * *timer holds zeros, or has been set before.
 *   timer: the timer
 *   timeOut: milliseconds, or nanoseconds for vorn_timer_add_ns
 *   data: argument of func
 *   func: function to call
 *   funcName: name of the function that sets the timer
 *   file: its source file
 *   line: its line
 * Returns 0; logs an error and returns -1 when timer or func is NULL, or the timer is pending. */
VORN_API int vorn_timer_set_raw(vorn_timer_s *timer, uint64_t timeOut, uint64_t data,
                                vorn_timer_f func, const char *funcName, const char *file,
                                int line);

/* Arms a timer for its timeOut milliseconds from now.
 *   timer: the timer
 * Returns 0; logs an error and returns -1 when the timers have not been started, timer or its func
 * is NULL, timeOut is 0, or the timer is pending. */
VORN_API int vorn_timer_add(vorn_timer_s *timer);

/* Arms a timer for its timeOut nanoseconds from now, at most 1000000: vorn_hr_timer_add.
 *   timer: the timer
 * Returns what vorn_hr_timer_add returns; logs an error and returns -1 also when timer or its func
 * is NULL, or the timer is pending by vorn_timer_add. */
VORN_API int vorn_timer_add_ns(vorn_timer_s *timer);

/* Arms a timer, pending or not, for ms milliseconds from now, which becomes its timeOut. ms counts
 * modulo 2^61 / 125.
 *   timer: the timer
 *   ms: milliseconds from now
 * Returns 0; logs an error and returns -1 when timer or its func is NULL, ms is 0, or the timers
 * have not been started. */
VORN_API int vorn_timer_modify(vorn_timer_s *timer, uint64_t ms);

/* Disarms a timer. Its function may be running now; one that is may arm it anew.
 *   timer: the timer
 * Returns 0, also when the timer was not pending; logs an error and returns -1 when timer is NULL
 * or the timers have not been started. */
VORN_API int vorn_timer_delete(vorn_timer_s *timer);

/* Disarms a timer and waits until its function is not running; what that call of the function has
 * armed is disarmed with its end. The caller holds nothing that the function waits for.
 *   timer: the timer
 * Returns what vorn_timer_delete returns; logs an error and returns -1 also when the timer's own
 * function calls it, which would wait for itself. */
VORN_API int vorn_timer_delete_sync(vorn_timer_s *timer);

/* Does what vorn_timer_delete_sync does.
 *   timer: the timer
 * Returns what vorn_timer_delete_sync returns. */
VORN_API int vorn_timer_destroy(vorn_timer_s *timer);

/* Returns 1 while the timer is armed, 0 otherwise: also in its own function. NULL gives 0 and an
 * error in the log.
 *   timer: the timer */
VORN_API int vorn_timer_is_pending(vorn_timer_s *timer);

/* Writes the timer whose field list is *node to the log at information level. The caller sees to it
 * that nothing changes it meanwhile.
 *   node: field list of a timer */
VORN_API void vorn_timer_show(vorn_list_head_s *node);

VORN_END_DECLS

#endif
