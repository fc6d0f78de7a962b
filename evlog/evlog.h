/* The logging library libevlog.so, as far as Vorn relies on it: ten functions. A node has its own
 * library of this name; the one built here is the default that takes its place where there is none.
 * Whatever is marked "default" below is how this one behaves, and nothing in Vorn depends on it.
 *
 * Default. Log messages go to <directory>/<program>.log. While no log file is open, before
 * evlog_init and after evlog_destroy, and where the file refuses one, those at level EVLOG_WARNING
 * or more urgent go to the console instead, the others nowhere: a service that logs to a file
 * leaves its standard error alone. A message is one line (a text may hold newlines of its own):
 *
 *   2024-05-06T07:08:09.123456+02:00 E 381 4711 vorn_init.c:120 vorn_Init: Vorn init failed.
 *
 * that is local time with its offset from UTC, level (C critical, E error, W warning, I
 * information, D debug), module, kernel thread id, file:line, function and text. Each line is one
 * write; the lines of a thread are in order, those of two threads can stand in the other order than
 * their times. A file of 8 MiB or more becomes <program>.log.1 before the next text, the older ones
 * .2 and .3, and a new one is begun. Where the directory does not
 * permit the renaming, the file grows to 32 MiB and is then emptied.
 *
 * The console is descriptor 2, if it was open when this library was loaded, and for as long as it
 * is the same file. A descriptor 2 that appears later, or in the place of the first, may be any
 * file that the process opened after it had closed its standard descriptors, and a log message
 * would become part of its content. Therefore evlog_init does not look at it anew: a service that
 * wants its console elsewhere redirects it before exec(3). A process replaces descriptor 2 while no
 * thread of it logs. A text that has no console, or that the console refuses, is dropped and
 * counted, raw texts as well. The count (a child of fork() goes on from its parent's) is told in
 * the file, at level EVLOG_INFO under module 0: "%lu texts for the console were dropped so far.",
 * after the first message in the file that finds a text dropped, then each time that the count is
 * ten times that of the last report, and by evlog_destroy.
 *
 * Pipes and SIGPIPE: a console or log file that is a pipe or a socket without a reader refuses the
 * text; no SIGPIPE comes of it, and one that the process has pending stays pending. A console that
 * is full holds up the threads that write to it, and nothing else: neither a thread whose message
 * is for the file, nor fork().
 *
 * Descriptors: the library holds one, made by the first evlog_init and kept until the process ends:
 * a process that closes descriptors it does not know does so before that. It never makes descriptor
 * 0, 1 or 2.
 *
 * Threads: any thread may call any function. Signal handlers may call evlog_level_check,
 * evlog_original and evlog_vraw, and on a signal stack (sigaltstack(2)) evlog as well: there it
 * takes no lock, shows the time in UTC and heeds no rate limit.
 *
 * Cancellation: no function is a cancellation point. A cancellation that arrives in one, also while
 * the thread waits for a full console, acts at the thread's next cancellation point after it.
 *
 * fork(): a child may go on calling all functions (evlog itself unless a thread was in the C
 * library's time zone conversion for a purpose of its own at the fork), and shares the file with
 * its parent. fork() waits for threads that are in these functions, but not for what they write;
 * therefore fork() is not to be called in a signal handler (_Fork() and vfork() are). */
/* SPDX-License-Identifier: Apache-2.0 */
#ifndef EVLOG_H
#define EVLOG_H

#include <stdarg.h>

/* Marks what libevlog.so exports. */
#define EVLOG_API __attribute__((visibility("default")))

/* The argument at position at is a printf format, those from position first are its values; first
 * is 0 where the values come as a va_list. */
#define EVLOG_PRINTF(at, first) __attribute__((format(printf, at, first)))

/* The level of errors. Levels are the more urgent the lower. */
#define EVLOG_ERROR 3

/* The level of warnings. */
#define EVLOG_WARNING 4

/* The level of information. */
#define EVLOG_INFO 6

/* The level of what helps to find a fault. */
#define EVLOG_DEBUG 7

#ifdef __cplusplus
extern "C" {
#endif

/* Opens the log file program + ".log" in directory (made if missing, one level). Default: program
 * NULL is the process's own name, directory NULL the working directory; a directory that is given
 * relative stays the same when the process changes its working directory. A second call moves the
 * log to the new place.
 *   program: name of the log file without ".log", or NULL
 *   directory: directory of the log file, or NULL
 * Returns 0, or -1 with errno when the file cannot be opened (EINVAL for a program that is empty or
 * holds a slash); log messages then go on as before the call. May block on the file system. */
EVLOG_API int evlog_init(const char *program, const char *directory);

/* Closes the log file. Default: later warnings and errors go to the console.
 * Returns 0. */
EVLOG_API int evlog_destroy(void);

/* Tells whether a message of module at level is wanted. Default: one load. Signal-safe.
 *   module: a module id
 *   level: EVLOG_ERROR, EVLOG_WARNING, EVLOG_INFO or EVLOG_DEBUG
 * Returns 0 when it is wanted, else non-zero. */
EVLOG_API int evlog_level_check(unsigned int module, int level);

/* Writes a log message without checking its level: callers ask evlog_level_check first. file is the
 * base name of the source, line and function the place in it, flags 0.
 *   module: a module id
 *   level: EVLOG_ERROR, EVLOG_WARNING, EVLOG_INFO or EVLOG_DEBUG
 *   file: base name of the source
 *   line: line in the source
 *   function: name of the function
 *   flags: 0
 *   format: printf format
 *   ...: values of the format
 * Returns 0, or non-zero when there is no such message. Default: place and text take at most 4095
 * bytes and are cut there, a newline at their end is dropped, a NULL file, function or format is
 * shown as such, and errno is kept; the result is 1 when the group's rate limit dropped the
 * message, -1 when it could not be formatted. May block on the file system and the console. */
EVLOG_API int evlog(unsigned int module, int level, const char *file, unsigned int line,
                    const char *function, unsigned int flags, const char *format, ...)
    EVLOG_PRINTF(7, 8);

/* Writes a text that has neither module, level nor position. Default: at most 1023 bytes, cut
 * there, to the log file (the console where there is none or it fails) in one write; a newline is
 * added where the text does not end in one. Neither locks nor allocates, keeps errno: signal-safe,
 * as long as no width or precision in the format exceeds 500 and no conversion takes wide
 * characters, a numbered value (%1$d) or the errno's text (%m).
 *   format: printf format
 *   ...: values of the format
 * Returns the number of bytes written; -1 for a NULL format and when nothing could be written. */
EVLOG_API int evlog_original(const char *format, ...) EVLOG_PRINTF(1, 2);

/* Writes a text as evlog_original does, with the values as a va_list, and nothing added to the
 * text.
 *   format: printf format
 *   args: values of the format
 * Returns what evlog_original returns. */
EVLOG_API int evlog_vraw(const char *format, va_list args) EVLOG_PRINTF(1, 0);

/* Returns the group that a module's messages are rate-limited with. Default: module / 16, for
 * modules up to 1023; a module above that is in group 0.
 *   module: a module id */
EVLOG_API int evlog_get_group_id(unsigned int module);

/* Returns the level of a module: it and the more urgent ones are wanted. Default: EVLOG_INFO at the
 * start, and always for a module above 1023.
 *   module: a module id */
EVLOG_API int evlog_loglevel_get(unsigned int module);

/* Sets the level of a module.
 *   module: a module id
 *   level: EVLOG_ERROR, EVLOG_WARNING, EVLOG_INFO or EVLOG_DEBUG
 * Returns 0; default: -1 for a module above 1023 or a level outside 0 to 7. */
EVLOG_API int evlog_loglevel_set(unsigned int module, int level);

/* Limits the messages of a group. Default: at most burst messages in an interval of interval_ms
 * milliseconds, which begins with a message; either 0 lifts the limit, which is the state at the
 * start. The dropped ones are counted in one warning, "%lu log messages of group %d were dropped by
 * the rate limit.", before the message that begins the next interval, or at once when the limit is
 * set anew.
 *   group: number of the group
 *   burst: most messages in an interval
 *   interval_ms: length of the interval in milliseconds
 * Returns 0, or -1 for a group that does not exist. */
EVLOG_API int evlog_ratelimit_set(int group, unsigned int burst, unsigned int interval_ms);

#ifdef __cplusplus
}
#endif

#endif
