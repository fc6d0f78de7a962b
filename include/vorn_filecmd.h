/* File operations with shell commands: each function builds one command, runs it with vorn_system_s
 * (vorn_cmd.h) and waits for it to end. Any thread may call these functions; none is safe in a
 * signal handler.
 *
 * /bin/sh interprets the command: in a path, blanks separate words, the shell expands wildcards and
 * "~" and removes quotes and backslashes, and a path that begins with "-" is an option. For a path
 * from an untrusted source, use the system's file calls instead.
 *
 * On success, the functions return 0. Otherwise, they log an error and return -22 if a path is
 * NULL, -36 if a path has 1024 characters or more, and -12 or -22 if the command cannot be built.
 * If the command fails, they log an error with the command and return the result of vorn_system_s:
 * -29 if a path has one of the characters that it refuses (| ; & $ < > ! newline and backquote),
 * -1, or the wait status of the command. No function here is a cancellation point. */
/* SPDX-License-Identifier: Apache-2.0 */
#ifndef VORN_FILECMD_H
#define VORN_FILECMD_H

#include "vorn_api.h"

VORN_BEGIN_DECLS

/* Copies a file or a directory tree with its modes, times and links: cp -af src dest.
 *   src: file or directory to copy or to move
 *   dest: destination
 * Returns 0; on failure, one of the results above. */
VORN_API int vorn_cmd_cp(const char *src, const char *dest);

/* Removes a file or a directory tree: rm -rf path. It is not an error if the file does not exist.
 *   path: the file or the directory
 * Returns 0; on failure, one of the results above. */
VORN_API int vorn_cmd_rm(const char *path);

/* Unpacks a compressed archive into the directory dir if extract is not 0 (tar -xzf archive -C
 * dir); otherwise, packs dir into the archive (tar -czf archive dir).
 *   archive: path of the archive
 *   dir: the directory
 *   extract: 0 to pack, another value to unpack
 * Returns 0; on failure, one of the results above. */
VORN_API int vorn_cmd_tar(const char *archive, const char *dir, int extract);

/* Creates an empty file, or sets the times of an existing file to the current time: touch path.
 *   path: the file or the directory
 * Returns 0; on failure, one of the results above. */
VORN_API int vorn_cmd_touch(const char *path);

/* Renames or moves: mv src dest.
 *   src: file or directory to copy or to move
 *   dest: destination
 * Returns 0; on failure, one of the results above. */
VORN_API int vorn_cmd_mv(const char *src, const char *dest);

/* Creates a directory and its missing parents, with mode 0777 less the umask: mkdir -p path. If the
 * shell reads "&>" as a redirection, the output of mkdir is discarded; otherwise, it goes where the
 * caller's output goes.
 *
 * If the result is 0, the directory exists; otherwise, it could not be created. The library creates
 * it under the literal path, in addition to what the shell does with a path that it interprets
 * differently. A shell that runs the command in the background may finish a moment late if the
 * directory existed before: if another process removes the directory in that moment, the shell
 * creates it again.
 *   path: the file or the directory
 * Returns 0; on failure, one of the results above; logs an error and returns -22 if the guard
 * refuses the path. */
VORN_API int vorn_cmd_mkdir(const char *path);

VORN_END_DECLS

#endif
