/* The log set-up of the process: functions that call the logging library libevlog.so. None is a
 * cancellation point with the default library. */
/* SPDX-License-Identifier: Apache-2.0 */
#ifndef VORN_LOG_H
#define VORN_LOG_H

#include "vorn_api.h"

VORN_BEGIN_DECLS

/* --- The log ---
 *
 * The four functions below pass all their arguments, unchanged, to a function of the logging
 * library and return its result. That library defines the arguments, results and errors; evlog.h
 * describes the default library. Any thread may call these functions. They may block as the logging
 * library does and are not signal-safe. */

/* Opens the log of a service, as in vorn_log_init("scrub", "/var/log/scrub"): evlog_init.
 *   first: first argument for the logging library
 *   ...: further arguments for the logging library
 * Returns what evlog_init returns. */
VORN_API int vorn_log_init(const char *first, ...);

/* Closes the log, as in vorn_log_destroy(0): evlog_destroy.
 *   first: first argument for the logging library
 *   ...: further arguments for the logging library
 * Returns what evlog_destroy returns. */
VORN_API int vorn_log_destroy(uintptr_t first, ...);

/* Sets the level of a module: evlog_loglevel_set. vorn_log_level_set(381, 7) lets the library's own
 * log messages of all levels pass.
 *   first: first argument for the logging library
 *   ...: further arguments for the logging library
 * Returns what evlog_loglevel_set returns. */
VORN_API int vorn_log_level_set(uintptr_t first, ...);

/* Reads the level of a module: evlog_loglevel_get. vorn_log_level_get(381) is the level of the
 * library's own log messages.
 *   first: first argument for the logging library
 *   ...: further arguments for the logging library
 * Returns what evlog_loglevel_get returns. */
VORN_API int vorn_log_level_get(uintptr_t first, ...);

/* Limits the rate of log messages of the group of module: evlog_ratelimit_set(group, a, b). The
 * logging library defines a and b (the default library: at most a messages in b milliseconds). Any
 * thread; not signal-safe.
 *   module: a module id
 *   a: second argument of evlog_ratelimit_set
 *   b: third argument of evlog_ratelimit_set
 * Returns what evlog_ratelimit_set returns. */
VORN_API int vorn_ratelimit_set(unsigned int module, unsigned int a, unsigned int b);

VORN_END_DECLS

#endif
