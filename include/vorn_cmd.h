/* Guarded execution of shell commands: a check for characters that let one command become several,
 * streams to and from a shell, and commands that are waited for.
 *
 * The shell is /bin/sh with the option -c; a command that begins with "-" is taken by it for an
 * option. What the shell itself starts is its own. It inherits the caller's environment, working
 * directory, signal mask and ignored signals; of descriptors all that are not close-on-exec, which
 * no pipe of this library is: a child never holds an end of another's stream. Descriptors 0, 1 and
 * 2 may be closed in the caller; no stream of this library's own shells is one of them. A shell or
 * a program that cannot be executed shows as exit code 127 alone.
 *
 * A shell is started with vfork(2), without a copy of the caller's memory. Until it is executed,
 * the child lives in the caller's memory and has the caller's signal handlers: a handler that a
 * signal to the whole process group may start there must return.
 *
 * A wait status is the raw one of waitpid(2), for WIFEXITED and the like. Where the process ignores
 * SIGCHLD there is none, and the result is -1 after the command has ended.
 *
 * Any thread may call anything here at any time, except where it says otherwise. Nothing is safe in
 * a signal handler but the character checks. No function that starts or waits for a shell is a
 * cancellation point, except popen_s and system_s, which are what the system's functions are.
 * A function that starts a shell blocks until the shell is executed. */
/* SPDX-License-Identifier: Apache-2.0 */
#ifndef VORN_CMD_H
#define VORN_CMD_H

#include <stdio.h>

#include "vorn_api.h"

VORN_BEGIN_DECLS

/* Returns 1 when *character is one of | ; & $ < > ! newline and backquote, 0 otherwise and for
 * NULL. The terminating NUL is none of them. Signal-safe.
 *   character: address of one character */
VORN_API int isBlackChar(const char *character);

/* Returns 1 when whitelist, a string that may be NULL, contains *character, 0 otherwise and for
 * NULL. The terminating NUL is in no whitelist. Signal-safe.
 *   character: address of one character
 *   whitelist: characters that the caller permits, or NULL */
VORN_API int isWhiteChar(const char *character, const char *whitelist);

/* Returns 1 when command has a character for which isBlackChar gives 1 and isWhiteChar 0, that is,
 * when it is dangerous; 0 otherwise, also for NULL. It logs nothing. Signal-safe.
 *   command: command for the shell
 *   whitelist: characters that the caller permits, or NULL */
VORN_API int isDangerousCmd(const char *command, const char *whitelist);

/* Starts command in a shell and returns a stream that reads its standard output (mode "r") or
 * writes its standard input (mode "w"), fully buffered and close-on-exec, as popen() of POSIX does.
 * The caller closes it with vorn_pclose and nothing else. The command is not checked.
 *   command: command for the shell
 *   mode: "r" to read its output, "w" to write its input
 * Returns the stream; NULL for another mode, a NULL argument, where memory, descriptors or
 * processes run out, and with EMFILE for a descriptor above those that the limit allowed at the
 * first call (at most 1048575). NULL too, after an information message, when no stream can be made
 * of the pipe: the command runs on then, with its pipe open. */
VORN_API FILE *vorn_popen(const char *command, const char *mode);

/* Checks command, and then does what vorn_popen does.
 *   command: command for the shell
 *   mode: "r" to read its output, "w" to write its input
 *   whitelist: characters that the caller permits, or NULL
 * Returns what vorn_popen returns; NULL without a log message when command is NULL or dangerous. */
VORN_API FILE *vorn_popen_s(const char *command, const char *mode, const char *whitelist);

/* Starts command as vorn_popen does, but stores the shell's process id in *pid, and the caller ends
 * the stream by fclose() and waits for the process itself: vorn_pclose does not know it. The mode
 * goes to fdopen() as it is; one that begins with "r" reads, any other writes.
 *   command: command for the shell
 *   mode: "r" to read its output, "w" to write its input
 *   pid: where the process id of the shell goes
 * Returns the stream; NULL on failure, which leaves *pid alone. */
VORN_API FILE *vorn_popen_with_pid(const char *command, const char *mode, int *pid);

/* Checks command, and then does what vorn_popen_with_pid does.
 *   command: command for the shell
 *   mode: "r" to read its output, "w" to write its input
 *   whitelist: characters that the caller permits, or NULL
 *   pid: where the process id of the shell goes
 * Returns what vorn_popen_with_pid returns; NULL without a log message when command is dangerous,
 * an argument but whitelist is NULL, or mode is neither "r" nor "w". */
VORN_API FILE *vorn_popen_s_with_pid(const char *command, const char *mode, const char *whitelist,
                                     int *pid);

/* Closes a stream of vorn_popen and waits for its shell to end, with SIGHUP, SIGINT and SIGQUIT
 * blocked in the calling thread meanwhile.
 *   stream: stream that vorn_popen returned
 * Returns the wait status; -1 when the stream is not of vorn_popen (it stays open then) or the
 * status cannot be had. One thread closes a stream, once. */
VORN_API int vorn_pclose(FILE *stream);

/* Checks command, and then calls the system's popen() for mode "r" or "w". The stream is
 * close-on-exec. Close it with the system's pclose(), which is not the one of a program linked to
 * wrap it.
 *   command: command for the shell
 *   mode: "r" to read its output, "w" to write its input
 *   whitelist: characters that the caller permits, or NULL
 * Returns the stream; NULL without a log message for another mode, for a NULL argument but
 * whitelist, and when command is dangerous. */
VORN_API FILE *popen_s(const char *command, const char *mode, const char *whitelist);

/* Runs command in a shell and waits for it to end. Unlike system() of POSIX it ignores and blocks
 * no signal meanwhile.
 *   command: command for the shell
 * Returns the wait status; -22 for NULL; -1 when no shell can be started or waited for.
 *
 * A command of two and more characters that has ";" anywhere but at its end, or "||" anywhere, is
 * not run and gives -1. */
VORN_API int vorn_system(const char *command);

/* Does what vorn_system does.
 *   command: command for the shell
 * Returns what vorn_system returns. */
VORN_API int vorn_cmd_exec(const char *command);

/* Checks command, and then does what vorn_system does. A whitelist with ";" or "|" does not make
 * vorn_system take what it refuses.
 *   command: command for the shell
 *   whitelist: characters that the caller permits, or NULL
 * Returns what vorn_system returns; -29 without a log message when command is dangerous. */
VORN_API int vorn_system_s(const char *command, const char *whitelist);

/* Checks command, and then calls the system's system().
 *   command: command for the shell
 *   whitelist: characters that the caller permits, or NULL
 * Returns what system() returns; -22 for NULL and -29 when command is dangerous, both without a log
 * message. */
VORN_API int system_s(const char *command, const char *whitelist);

/* Looks at a command line before it is executed. The low byte of the result counts: 0 refuses. */
typedef int (*vorn_execv_checker_f)(const char *path, int count, char *const argv[]);

/* execv(2) of path with argv, unless one of the first count arguments is dangerous or checker, when
 * there is one, refuses. argv has count entries at least and ends in a NULL; a NULL among the first
 * count is passed over. path is not checked, nor is an argument after the first count.
 *   path: program to execute
 *   count: number of arguments to check
 *   argv: arguments, the last followed by NULL
 *   whitelist: characters that the caller permits, or NULL
 *   checker: further check of the command line, or NULL
 * Returns on failure alone: what execv returned, with its errno; -22 when path or argv is NULL or
 * count negative; -29 after an error message that quotes the first dangerous argument; -29 without
 * a log message when checker refuses. */
VORN_API int execv_s(const char *path, int count, char *const argv[], const char *whitelist,
                     vorn_execv_checker_f checker);

/* Does what vorn_popen does, without a check of the command. A program that is linked with
 * -Wl,--wrap=popen,--wrap=pclose,--wrap=system calls this function as popen.
 *   command: command for the shell
 *   mode: "r" to read its output, "w" to write its input
 * Returns what vorn_popen returns. */
VORN_API FILE *__wrap_popen(const char *command, const char *mode);

/* Does what vorn_pclose does, for a program that is linked so.
 *   stream: stream that __wrap_popen returned
 * Returns what vorn_pclose returns. */
VORN_API int __wrap_pclose(FILE *stream);

/* Does what vorn_system does, without a check of the command, for a program that is linked so.
 *   command: command for the shell
 * Returns what vorn_system returns. Therefore system(NULL) gives -22 in such a program, not whether
 * there is a shell. */
VORN_API int __wrap_system(const char *command);

VORN_END_DECLS

#endif
