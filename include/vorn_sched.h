/* Sleeps and yields. Any thread may call. None retries a sleep that a signal ended, none reports a
 * failure, and none changes what it waits for. Safe in a signal handler, errno apart. */
#ifndef VORN_SCHED_H
#define VORN_SCHED_H

#include "vorn_api.h"

VORN_BEGIN_DECLS

/* Sleeps for that many microseconds (select(2)). Returns at once for 0. */
VORN_API void vorn_usleep(unsigned int microseconds);

/* Gives the processor away for one millisecond (nanosleep(2)), so that also a thread of lower
 * priority can run. */
VORN_API void vorn_schedule(void);

/* Lets the threads of the same priority that wait for this CPU run first: sched_yield(2). Returns
 * its result, 0. */
VORN_API int vorn_yield(void);

VORN_END_DECLS

#endif
