/* The system's timers of a process (timer_create(2) and its family) with checked arguments. Each
 * returns the system's result, -1 with errno on failure; -22 after an error in the log for an
 * argument that is refused. Any thread; none blocks or is a cancellation point. */
#ifndef VORN_TIMER_POSIX_H
#define VORN_TIMER_POSIX_H

#include <sys/types.h>

#include "vorn_api.h"

VORN_BEGIN_DECLS

struct sigevent;   /* of <signal.h> */
struct itimerspec; /* of <time.h> */

/* What a refused argument gives. */
#define VORN_TIMER_POSIX_REFUSED (-22)

/* timer_create(2) on one of the clocks 0 to 3: CLOCK_REALTIME, CLOCK_MONOTONIC, and those of the
 * CPU time of the process and the thread. evp and timerid must not be NULL. */
VORN_API int vorn_timer_create_posix(clockid_t clockid, struct sigevent *evp, timer_t *timerid);

/* timer_settime(2). new_value must not be NULL; old_value may be. */
VORN_API int vorn_timer_settime_posix(timer_t timerid, int flags,
                                      const struct itimerspec *new_value,
                                      struct itimerspec *old_value);

/* timer_gettime(2). curr_value must not be NULL. */
VORN_API int vorn_timer_gettime_posix(timer_t timerid, struct itimerspec *curr_value);

/* timer_delete(2) and timer_getoverrun(2). Signal-safe, the latter. */
VORN_API int vorn_timer_delete_posix(timer_t timerid);
VORN_API int vorn_timer_getoverrun_posix(timer_t timerid);

VORN_END_DECLS

#endif
