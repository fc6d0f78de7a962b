/* The logging library libevlog.so: the ten functions that Vorn uses. A node may have its own
 * library of this name; this one is the default for nodes that have none. "Default" below marks how
 * the default library behaves; Vorn does not depend on that.
 *
 * Default. Log messages go to <directory>/<program>.log. If no log file is open (before evlog_init
 * and after evlog_destroy), or the file refuses a message, messages at level EVLOG_WARNING or more
 * urgent go to the console, and the library drops the others: a service that logs to a file leaves
 * its standard error alone. A message is one line (unless its text contains newlines):
 *
 *   2024-05-06T07:08:09.123456+02:00 E 381 4711 vorn_init.c:120 vorn_Init: Vorn init failed.
 *
 * The parts are: local time with its offset from UTC, level (C critical, E error, W warning, I
 * information, D debug), module, kernel thread id, file:line, function and text. The library writes
 * each line with one write(2). The lines of one thread are in order; the lines of different threads
 * may be out of the order of their times. Before it writes to a file of 8 MiB or more, the library
 * renames it to <program>.log.1, the older ones to .2 and .3, and begins a new file. If the
 * directory does not permit this, the file grows to 32 MiB, and the library then truncates it.
 *
 * The console is descriptor 2, if it was open when the library was loaded, and as long as it refers
 * to the same file. A later descriptor 2 may be any file that the process opened after it closed
 * its standard descriptors, and log messages would become part of its content. Therefore evlog_init
 * does not check descriptor 2 again: to redirect the console, redirect it before exec(3). A process
 * may replace descriptor 2 only while none of its threads logs. If there is no console, or the
 * console refuses a text (a raw text or a log message), the library drops and counts the text. A
 * child of fork() continues the count of its parent. The library reports the count in the file, at
 * level EVLOG_INFO under module 0: "%lu texts for the console were dropped so far." It does so
 * after the first message in the file that follows a dropped text, each time the count has grown
 * tenfold since the last report, and in evlog_destroy.
 *
 * Pipes and SIGPIPE: a console or log file that is a pipe or a socket without a reader refuses the
 * text. This causes no SIGPIPE, and a SIGPIPE that is already pending stays pending. A full console
 * blocks only the threads that write to it; it blocks neither threads that write to the file nor
 * fork().
 *
 * Descriptors: the first evlog_init opens one descriptor, which the library keeps until the process
 * ends. A process that closes unknown descriptors must do so before evlog_init. The library never
 * creates descriptor 0, 1 or 2.
 *
 * Threads: any thread may call any function. Signal handlers may call evlog_level_check,
 * evlog_original and evlog_vraw, and on a signal stack (sigaltstack(2)) evlog as well: there it
 * takes no lock, shows the time in UTC and applies no rate limit.
 *
 * Cancellation: no function is a cancellation point. A cancellation that arrives during a call,
 * even while the thread waits for a full console, acts at the thread's next cancellation point.
 *
 * fork(): a child may call all functions and shares the file with its parent. It must not call
 * evlog if at the fork another thread was in the C library's time zone conversion, outside this
 * library. fork() waits for threads that are in these functions, but not for their writes; so a
 * signal handler must not call fork() (it may call _Fork() and vfork()). */
/* SPDX-License-Identifier: Apache-2.0 */
#ifndef EVLOG_H
#define EVLOG_H

#include <stdarg.h>

/* Marks a name that libevlog.so exports. */
#define EVLOG_API __attribute__((visibility("default")))

/* Declares that the argument at position at is a printf format and that the arguments from position
 * first on are its values; first is 0 if the values are a va_list. */
#define EVLOG_PRINTF(at, first) __attribute__((format(printf, at, first)))

/* The level of errors. A lower level is more urgent. */
#define EVLOG_ERROR 3

/* The level of warnings. */
#define EVLOG_WARNING 4

/* The level of information. */
#define EVLOG_INFO 6

/* The level of messages that help to find a fault. */
#define EVLOG_DEBUG 7

#ifdef __cplusplus
extern "C" {
#endif

/* Opens the log file program + ".log" in directory. Creates the last component of directory if it
 * is missing. Default: if program is NULL, uses the name of the process; if directory is NULL, uses
 * the working directory. A relative directory does not change when the process changes its working
 * directory. A second call moves the log to the new place.
 *   program: name of the log file without ".log", or NULL
 *   directory: directory of the log file, or NULL
 * Returns 0; -1 with errno if the file cannot be opened (EINVAL if program is empty or contains a
 * slash). After a failure, log messages go to the same place as before the call. May block on the
 * file system. */
EVLOG_API int evlog_init(const char *program, const char *directory);

/* Closes the log file. Default: later warnings and errors go to the console.
 * Returns 0. */
EVLOG_API int evlog_destroy(void);

/* Checks whether log messages of module at level are enabled. Default: takes one load. Signal-safe.
 *   module: a module id
 *   level: EVLOG_ERROR, EVLOG_WARNING, EVLOG_INFO or EVLOG_DEBUG
 * Returns 0 if they are enabled; otherwise, a non-zero value. */
EVLOG_API int evlog_level_check(unsigned int module, int level);

/* Writes a log message without checking its level: callers must call evlog_level_check first. file
 * is the base name of the source, line and function are the place in it, and flags is 0.
 *   module: a module id
 *   level: EVLOG_ERROR, EVLOG_WARNING, EVLOG_INFO or EVLOG_DEBUG
 *   file: base name of the source
 *   line: line in the source
 *   function: name of the function
 *   flags: 0
 *   format: printf format
 *   ...: values of the format
 * Returns 0; a non-zero value if no message was written. Default: cuts place and text to 4095 bytes
 * together, drops a newline at the end, shows a NULL file, function or format as "(null)", and
 * keeps errno; the result is 1 if the rate limit of the group dropped the message, -1 if the
 * message could not be formatted. May block on the file system and the console. */
EVLOG_API int evlog(unsigned int module, int level, const char *file, unsigned int line,
                    const char *function, unsigned int flags, const char *format, ...)
    EVLOG_PRINTF(7, 8);

/* Writes a text without module, level or position. Default: cuts the text to 1023 bytes and writes
 * it to the log file (to the console if there is no file or it fails) in one write(2); adds a
 * newline if the text does not end in one. Neither locks nor allocates, keeps errno, and is
 * signal-safe if no width or precision in the format exceeds 500 and no conversion uses wide
 * characters, a numbered value (%1$d) or the text of errno (%m).
 *   format: printf format
 *   ...: values of the format
 * Returns the number of bytes written; -1 if format is NULL or nothing could be written. */
EVLOG_API int evlog_original(const char *format, ...) EVLOG_PRINTF(1, 2);

/* Writes a text as evlog_original does, but takes the values as a va_list and adds no newline.
 *   format: printf format
 *   args: values of the format
 * Returns what evlog_original returns. */
EVLOG_API int evlog_vraw(const char *format, va_list args) EVLOG_PRINTF(1, 0);

/* Returns the rate-limit group of a module. Default: module / 16 for modules up to 1023; 0 for
 * higher modules.
 *   module: a module id */
EVLOG_API int evlog_get_group_id(unsigned int module);

/* Returns the level of a module: messages at this level or more urgent are enabled. Default:
 * EVLOG_INFO until it is set, and always for a module above 1023.
 *   module: a module id */
EVLOG_API int evlog_loglevel_get(unsigned int module);

/* Sets the level of a module.
 *   module: a module id
 *   level: EVLOG_ERROR, EVLOG_WARNING, EVLOG_INFO or EVLOG_DEBUG
 * Returns 0. Default: -1 if module is above 1023 or level is outside 0 to 7. */
EVLOG_API int evlog_loglevel_set(unsigned int module, int level);

/* Limits the rate of the log messages of a group. Default: at most burst messages in an interval of
 * interval_ms milliseconds, which begins with a message. If either is 0, there is no limit, as at
 * the start. The library reports the number of dropped messages in one warning, "%lu log messages
 * of group %d were dropped by the rate limit.", before the message that begins the next interval,
 * or immediately if the limit is set again.
 *   group: number of the group
 *   burst: maximum number of messages in an interval
 *   interval_ms: length of the interval in milliseconds
 * Returns 0; -1 if there is no such group. */
EVLOG_API int evlog_ratelimit_set(int group, unsigned int burst, unsigned int interval_ms);

#ifdef __cplusplus
}
#endif

#endif
