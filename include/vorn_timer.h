/* One-shot timers in milliseconds. The caller owns a timer, which names a function. When the timer
 * expires, a thread of the library, "vorn_run_timers", calls the function once. Arming and
 * disarming take constant time, however many timers are pending.
 *
 *   static vorn_timer_s timer; // all zero, or vorn_timer_init
 *
 *   vorn_timer_set(&timer, 250, (uint64_t)request, expired);
 *   vorn_timer_add(&timer);         // expired(request) in 250 ms
 *   vorn_timer_modify(&timer, 500); // no: in 500 ms from now
 *   vorn_timer_delete_sync(&timer); // no longer, and it does not run now
 *
 * The clock is vorn_time_getmillisec, and by that clock a timer never runs early. Because the
 * clock's current millisecond counts as a whole one, a timer of n ms may run up to 1 ms before n ms
 * have passed.
 *
 * The functions run one at a time, without any lock of the library: a function that blocks delays
 * the others, and the library logs one that takes more than 300 ms. A function may arm, delete and
 * free any timer, including its own, because the library does not use a timer after it has called
 * the function. It must not wait for itself (vorn_timer_delete_sync). If a function calls
 * pthread_exit(3), the timers continue in another thread.
 *
 * While a timer is pending, the caller must keep it in place and must not change its func, data and
 * texts. Several threads may use one timer at the same time, except with vorn_timer_init and
 * vorn_timer_set_raw. No function is safe in a signal handler, and none is a cancellation point.
 * Functions return 0, or log an error and return -1.
 *
 * In a child of fork() no timer is pending: the timers of the parent run only in the parent, and
 * the child may arm its copies immediately. The first timer that the child arms starts the child's
 * own thread. A function that calls fork() must not return in the child.
 *
 * For a timer whose flags have VORN_TIMER_HR, which vorn_timer_add_ns sets and vorn_timer_add
 * clears, each function does what the corresponding function of vorn_hr_timer.h does. */
/* SPDX-License-Identifier: Apache-2.0 */
#ifndef VORN_TIMER_H
#define VORN_TIMER_H

#include "vorn_api.h"
#include "vorn_list.h"
#include "vorn_rbtree.h"

VORN_BEGIN_DECLS

/* The function of a timer, called with its data. */
typedef void (*vorn_timer_f)(uint64_t data);

/* A timer. The caller sets it with vorn_timer_set, and must not write its fields otherwise. */
typedef struct vorn_timer {
  vorn_rb_node_s node;   /* in the tree of pending high-resolution timers */
  int64_t seconds;       /* expiry of a high-resolution timer, CLOCK_MONOTONIC */
  int64_t nanoseconds;   /* of that expiry; may be 10^9 */
  vorn_list_head_s list; /* in the timer wheel; next is NULL if not in it */
  uint64_t expirTime;    /* expiry in milliseconds of vorn_time_getmillisec */
  uint64_t timeOut;      /* time-out in milliseconds or nanoseconds */
  uint64_t data;         /* the argument of func */
  vorn_timer_f func;     /* NULL if not set yet */
  uint8_t isp;           /* VORN_TIMER_HR_PENDING or 0 */
  uint8_t flags;         /* VORN_TIMER_HR or 0 */
  uint32_t owner;        /* identifies the process that armed it, by a count of forks */
  const char *funcName;  /* name of the function that set it */
  const char *file;      /* its source */
  int line;              /* and line */
} vorn_timer_s;

/* A bit of vorn_timer_s::flags: a high-resolution timer. */
#define VORN_TIMER_HR 1u

/* The value of vorn_timer_s::isp in a pending high-resolution timer. */
#define VORN_TIMER_HR_PENDING 17u

/* Sets a timer with vorn_timer_set_raw, with the function, file and line of the caller.
 *   timer: the timer
 *   timeOut: milliseconds, or nanoseconds for vorn_timer_add_ns
 *   data: argument of func
 *   func: function to call
 * Returns what vorn_timer_set_raw returns. */
#define vorn_timer_set(timer, timeOut, data, func)                                                 \
  vorn_timer_set_raw(timer, timeOut, data, func, __func__, __FILE__, __LINE__)

/* Starts the timers, once per process. vorn_Init calls this function. Starts the thread and binds
 * it to the CPUs of the affinity level "affinity_level_1" if there is one.
 * Returns 0; on failure, logs an error and returns -1, and a further call tries again. */
VORN_API int vorn_timer_module_init(void);

/* Sets all of *timer to zero. The timer must not be pending.
 *   timer: the timer
 * Returns 0; logs an error and returns -1 if timer is NULL. */
VORN_API int vorn_timer_init(vorn_timer_s *timer);

/* Makes *timer a timer of timeOut milliseconds (nanoseconds for vorn_timer_add_ns) that calls
 * func(data). funcName and file must stay valid as long as the timer; log messages show them and
 * line. *timer must hold zeros, or must have been set before.
 *   timer: the timer
 *   timeOut: milliseconds, or nanoseconds for vorn_timer_add_ns
 *   data: argument of func
 *   func: function to call
 *   funcName: name of the function that sets the timer
 *   file: its source file
 *   line: its line
 * Returns 0; logs an error and returns -1 if timer or func is NULL, or the timer is pending. */
VORN_API int vorn_timer_set_raw(vorn_timer_s *timer, uint64_t timeOut, uint64_t data,
                                vorn_timer_f func, const char *funcName, const char *file,
                                int line);

/* Arms a timer to expire timeOut milliseconds from now.
 *   timer: the timer
 * Returns 0; logs an error and returns -1 if the timers have not been started, timer or its func is
 * NULL, timeOut is 0, or the timer is pending. */
VORN_API int vorn_timer_add(vorn_timer_s *timer);

/* Arms a timer to expire timeOut nanoseconds from now, at most 1000000, with vorn_hr_timer_add.
 *   timer: the timer
 * Returns what vorn_hr_timer_add returns; logs an error and returns -1 if timer or its func is
 * NULL, or vorn_timer_add has armed the timer and it is pending. */
VORN_API int vorn_timer_add_ns(vorn_timer_s *timer);

/* Arms a timer, pending or not, to expire ms milliseconds from now, and sets its timeOut to ms. ms
 * is taken modulo 2^61 / 125.
 *   timer: the timer
 *   ms: milliseconds from now
 * Returns 0; logs an error and returns -1 if timer or its func is NULL, ms is 0, or the timers have
 * not been started. */
VORN_API int vorn_timer_modify(vorn_timer_s *timer, uint64_t ms);

/* Disarms a timer. Its function may be running, and may then arm the timer again.
 *   timer: the timer
 * Returns 0, also if the timer was not pending; logs an error and returns -1 if timer is NULL or
 * the timers have not been started. */
VORN_API int vorn_timer_delete(vorn_timer_s *timer);

/* Disarms a timer and waits until its function is not running. If that call of the function arms
 * the timer again, disarms it when the function returns. The caller must not hold a lock for which
 * the function waits.
 *   timer: the timer
 * Returns what vorn_timer_delete returns; logs an error and returns -1 if the timer's own function
 * calls it, which would wait for itself. */
VORN_API int vorn_timer_delete_sync(vorn_timer_s *timer);

/* Does what vorn_timer_delete_sync does.
 *   timer: the timer
 * Returns what vorn_timer_delete_sync returns. */
VORN_API int vorn_timer_destroy(vorn_timer_s *timer);

/* Returns 1 while the timer is armed; otherwise, and in its own function, 0. If timer is NULL, logs
 * an error and returns 0.
 *   timer: the timer */
VORN_API int vorn_timer_is_pending(vorn_timer_s *timer);

/* Logs the timer whose field list is *node as information. The caller must ensure that no thread
 * changes the timer during the call.
 *   node: field list of a timer */
VORN_API void vorn_timer_show(vorn_list_head_s *node);

VORN_END_DECLS

#endif
