/* Guarded execution of shell commands: a check for characters that turn one command into several,
 * streams to and from a shell, and functions that run a command and wait for it.
 *
 * The shell is /bin/sh with the option -c; it takes a command that begins with "-" for an option.
 * The library does not track the processes that the shell starts. The shell inherits the caller's
 * environment, working directory, signal mask and ignored signals, and every descriptor that is not
 * close-on-exec. All pipes of this library are close-on-exec: a child never holds an end of another
 * child's stream. The caller may have closed descriptors 0, 1 and 2; the library never uses them
 * for a stream of its shells. If a shell or a program cannot be executed, the only sign is the exit
 * code 127.
 *
 * The library starts a shell with vfork(2), which does not copy the caller's memory. Until the
 * child executes the shell, it runs in the caller's memory with the caller's signal handlers: a
 * handler that a signal to the whole process group may start there must return.
 *
 * A wait status is the status of waitpid(2), for WIFEXITED and the other macros. If the process
 * ignores SIGCHLD there is no status, and the functions return -1 after the command has ended.
 *
 * Unless a function says otherwise, any thread may call it at any time. Only the character checks
 * are safe in a signal handler. No function that starts or waits for a shell is a cancellation
 * point, except popen_s and system_s, which behave as the system's functions. A function that
 * starts a shell blocks until the child executes the shell. */
/* SPDX-License-Identifier: Apache-2.0 */
#ifndef VORN_CMD_H
#define VORN_CMD_H

#include <stdio.h>

#include "vorn_api.h"

VORN_BEGIN_DECLS

/* Returns 1 if *character is one of | ; & $ < > ! newline and backquote; otherwise, or if character
 * is NULL, 0. The terminating NUL is none of them. Signal-safe.
 *   character: address of one character */
VORN_API int isBlackChar(const char *character);

/* Returns 1 if whitelist, a string that may be NULL, contains *character; otherwise, or if
 * character is NULL, 0. No whitelist contains the terminating NUL. Signal-safe.
 *   character: address of one character
 *   whitelist: characters that the caller permits, or NULL */
VORN_API int isWhiteChar(const char *character, const char *whitelist);

/* Returns 1 if command is dangerous: if it has a character for which isBlackChar returns 1 and
 * isWhiteChar returns 0. Otherwise, or if command is NULL, the result is 0. Logs nothing.
 * Signal-safe.
 *   command: command for the shell
 *   whitelist: characters that the caller permits, or NULL */
VORN_API int isDangerousCmd(const char *command, const char *whitelist);

/* Starts command in a shell and returns a stream that reads the command's standard output (mode
 * "r") or writes its standard input (mode "w"), fully buffered and close-on-exec, as popen() of
 * POSIX does. The caller must close the stream with vorn_pclose. Does not check the command.
 *   command: command for the shell
 *   mode: "r" to read its output, "w" to write its input
 * Returns the stream. Returns NULL for another mode or a NULL argument, if memory, descriptors or
 * processes run out, or, with EMFILE, for a descriptor above the limit at the first call (at most
 * 1048575). If no stream can be made from the pipe, logs information and returns NULL; the command
 * then continues to run, with its pipe open. */
VORN_API FILE *vorn_popen(const char *command, const char *mode);

/* Checks command, and then does what vorn_popen does.
 *   command: command for the shell
 *   mode: "r" to read its output, "w" to write its input
 *   whitelist: characters that the caller permits, or NULL
 * Returns what vorn_popen returns; NULL without a log message if command is NULL or dangerous. */
VORN_API FILE *vorn_popen_s(const char *command, const char *mode, const char *whitelist);

/* Starts command as vorn_popen does, and stores the shell's process id in *pid. The caller closes
 * the stream with fclose(3) and waits for the process itself: vorn_pclose does not know this
 * stream. The mode is passed to fdopen(3) unchanged; a mode that begins with "r" reads, any other
 * mode writes.
 *   command: command for the shell
 *   mode: "r" to read its output, "w" to write its input
 *   pid: where the process id of the shell goes
 * Returns the stream; NULL on failure, which leaves *pid unchanged. */
VORN_API FILE *vorn_popen_with_pid(const char *command, const char *mode, int *pid);

/* Checks command, and then does what vorn_popen_with_pid does.
 *   command: command for the shell
 *   mode: "r" to read its output, "w" to write its input
 *   whitelist: characters that the caller permits, or NULL
 *   pid: where the process id of the shell goes
 * Returns what vorn_popen_with_pid returns; NULL without a log message if command is dangerous, an
 * argument other than whitelist is NULL, or mode is neither "r" nor "w". */
VORN_API FILE *vorn_popen_s_with_pid(const char *command, const char *mode, const char *whitelist,
                                     int *pid);

/* Closes a stream from vorn_popen and waits for its shell to end. Blocks SIGHUP, SIGINT and SIGQUIT
 * in the calling thread during the wait.
 *   stream: stream that vorn_popen returned
 * Returns the wait status; -1 if the stream is not from vorn_popen (it then stays open) or no
 * status is available. Only one thread may close a stream, and only once. */
VORN_API int vorn_pclose(FILE *stream);

/* Checks command, and then calls the system's popen() for mode "r" or "w". The stream is
 * close-on-exec. Close it with the system's pclose(), not with the pclose() of a program that is
 * linked to wrap it.
 *   command: command for the shell
 *   mode: "r" to read its output, "w" to write its input
 *   whitelist: characters that the caller permits, or NULL
 * Returns the stream; NULL without a log message for another mode, if an argument other than
 * whitelist is NULL, or if command is dangerous. */
VORN_API FILE *popen_s(const char *command, const char *mode, const char *whitelist);

/* Runs command in a shell and waits for it to end. Unlike system() of POSIX, it neither ignores nor
 * blocks signals during the wait.
 *   command: command for the shell
 * Returns the wait status; -22 if command is NULL; -1 if no shell can be started or waited for.
 *
 * If a command of two or more characters has ";" anywhere except at its end, or "||" anywhere, the
 * function returns -1 without running it. */
VORN_API int vorn_system(const char *command);

/* Does what vorn_system does.
 *   command: command for the shell
 * Returns what vorn_system returns. */
VORN_API int vorn_cmd_exec(const char *command);

/* Checks command, and then does what vorn_system does. vorn_system refuses the same commands even
 * if whitelist has ";" or "|".
 *   command: command for the shell
 *   whitelist: characters that the caller permits, or NULL
 * Returns what vorn_system returns; -29 without a log message if command is dangerous. */
VORN_API int vorn_system_s(const char *command, const char *whitelist);

/* Checks command, and then calls the system's system().
 *   command: command for the shell
 *   whitelist: characters that the caller permits, or NULL
 * Returns what system() returns; without a log message, -22 if command is NULL and -29 if it is
 * dangerous. */
VORN_API int system_s(const char *command, const char *whitelist);

/* Checks a command line before execv_s executes it. Only the low byte of the result counts: 0
 * refuses the command line. */
typedef int (*vorn_execv_checker_f)(const char *path, int count, char *const argv[]);

/* Executes path with argv (execv(3)), unless one of the first count arguments is dangerous or
 * checker is not NULL and refuses. argv has at least count entries and ends in a NULL; a NULL among
 * the first count entries is ignored. Does not check path or the arguments after the first count.
 *   path: program to execute
 *   count: number of arguments to check
 *   argv: arguments, the last followed by NULL
 *   whitelist: characters that the caller permits, or NULL
 *   checker: further check of the command line, or NULL
 * Returns only on failure: the result of execv(3), with its errno; -22 if path or argv is NULL or
 * count is negative; -29 without a log message if checker refuses. If an argument is dangerous,
 * logs an error that quotes the first such argument and returns -29. */
VORN_API int execv_s(const char *path, int count, char *const argv[], const char *whitelist,
                     vorn_execv_checker_f checker);

/* Does what vorn_popen does, without checking the command. A program that is linked with
 * -Wl,--wrap=popen,--wrap=pclose,--wrap=system calls this function as popen.
 *   command: command for the shell
 *   mode: "r" to read its output, "w" to write its input
 * Returns what vorn_popen returns. */
VORN_API FILE *__wrap_popen(const char *command, const char *mode);

/* Does what vorn_pclose does, for a program that is linked as __wrap_popen describes.
 *   stream: stream that __wrap_popen returned
 * Returns what vorn_pclose returns. */
VORN_API int __wrap_pclose(FILE *stream);

/* Does what vorn_system does, for a program that is linked as __wrap_popen describes.
 *   command: command for the shell
 * Returns what vorn_system returns. In such a program, system(NULL) therefore returns -22 instead
 * of telling whether there is a shell. */
VORN_API int __wrap_system(const char *command);

VORN_END_DECLS

#endif
