/* The logging library libevlog.so, as far as Vorn relies on it: ten functions. A node has its own
 * library of this name; the one built here is the default that takes its place where there is none.
 * Whatever is marked "default" below is how this one behaves, and nothing in Vorn depends on it.
 *
 * Records go, by default, to <directory>/<program>.log, which is rotated, and to standard error
 * when their level is EVLOG_WARNING or more urgent. Until evlog_init there is no file, only the
 * console.
 *
 * Any thread may call any function. Only evlog_original, evlog_vraw and evlog_level_check may be
 * called in a signal handler. */
#ifndef EVLOG_H
#define EVLOG_H

#include <stdarg.h>

#define EVLOG_API __attribute__((visibility("default")))
#define EVLOG_PRINTF(at, first) __attribute__((format(printf, at, first)))

/* Levels, the more urgent the lower. */
#define EVLOG_ERROR 3
#define EVLOG_WARNING 4
#define EVLOG_INFO 6
#define EVLOG_DEBUG 7

#ifdef __cplusplus
extern "C" {
#endif

/* Opens the log file program + ".log" in directory (made if missing, one level). Default: the file
 * is rotated at 8 MiB and three old files are kept; program NULL is the process's own name,
 * directory NULL the working directory. A second call moves the log to the new place. Returns 0, or
 * -1 with errno when the file cannot be opened; records then go on as before the call. May block on
 * the file system. */
EVLOG_API int evlog_init(const char *program, const char *directory);

/* Writes out and closes the log file; later records go to the console alone. Returns 0. */
EVLOG_API int evlog_destroy(void);

/* 0 when a record of module at level is wanted, else non-zero. Default: one load; a module above
 * 1023 is taken as module 0. Signal-safe. */
EVLOG_API int evlog_level_check(unsigned int module, int level);

/* Writes a record without checking its level: callers ask evlog_level_check first. file is the base
 * name of the source, line and function the place in it, flags 0. Returns 0, or non-zero when the
 * record was not written (default: 1 when the group's rate limit dropped it, -1 when it could not
 * be formatted). May block on the file system. */
EVLOG_API int evlog(unsigned int module, int level, const char *file, unsigned int line,
                    const char *function, unsigned int flags, const char *format, ...)
    EVLOG_PRINTF(7, 8);

/* Writes a text that has neither module, level nor position. Default: at most 1023 bytes, cut
 * there, in one write to the log file (standard error where there is none); a newline is added
 * where the text does not end in one. Neither locks nor allocates, keeps errno: signal-safe.
 * Returns the number of bytes written, or -1. */
EVLOG_API int evlog_original(const char *format, ...) EVLOG_PRINTF(1, 2);

/* The same with the values as a va_list, and nothing added to the text. */
EVLOG_API int evlog_vraw(const char *format, va_list args) EVLOG_PRINTF(1, 0);

/* The group that a module's records are rate-limited with. Default: module / 16, for modules up to
 * 1023; a module above that is in group 0. */
EVLOG_API int evlog_get_group_id(unsigned int module);

/* The level of a module: it and the more urgent ones are wanted. Default: EVLOG_INFO at the start;
 * -1 for a module above 1023. */
EVLOG_API int evlog_loglevel_get(unsigned int module);

/* Sets the level of a module. Returns 0; default: -1 for a module above 1023 or a level outside 0
 * to 7. */
EVLOG_API int evlog_loglevel_set(unsigned int module, int level);

/* Limits the records of a group. Default: at most burst records in each interval of interval_ms
 * milliseconds, the dropped ones counted in one record when the next interval begins; either 0
 * lifts the limit, which is the state at the start. Returns 0, or -1 for a group that does not
 * exist. */
EVLOG_API int evlog_ratelimit_set(int group, unsigned int burst, unsigned int interval_ms);

#ifdef __cplusplus
}
#endif

#endif
