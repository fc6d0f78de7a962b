/* The process's logging set-up, passed on to the logging library libevlog.so. None is a
 * cancellation point with the default library. */
#ifndef VORN_LOG_H
#define VORN_LOG_H

#include "vorn_api.h"

VORN_BEGIN_DECLS

/* The four functions below pass all their arguments, unchanged, to a function of the logging
 * library and return its result: what they mean, their results and their errors are that library's,
 * and evlog.h describes the default one's. Any thread may call; they may block as the logging
 * library does and are not signal-safe. */

/* evlog_init: vorn_log_init("scrub", "/var/log/scrub") opens the log of a service. */
VORN_API int vorn_log_init(const char *first, ...);

/* evlog_destroy: vorn_log_destroy(0) closes it. */
VORN_API int vorn_log_destroy(uintptr_t first, ...);

/* evlog_loglevel_set: vorn_log_level_set(381, 7) lets the library's own records of all levels pass.
 */
VORN_API int vorn_log_level_set(uintptr_t first, ...);

/* evlog_loglevel_get: vorn_log_level_get(381) is the level of the library's own records. */
VORN_API int vorn_log_level_get(uintptr_t first, ...);

/* Limits the records of the logging group that module belongs to: evlog_ratelimit_set(group, a, b),
 * whose result it returns. The meaning of a and b is the logging library's (the default: at most a
 * records in b milliseconds). Any thread; not signal-safe. */
VORN_API int vorn_ratelimit_set(unsigned int module, unsigned int a, unsigned int b);

VORN_END_DECLS

#endif
