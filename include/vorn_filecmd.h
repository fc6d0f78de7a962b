/* Files by the shell's own tools: each function writes one command, runs it by vorn_system_s of
 * vorn_cmd.h and waits for it to end. Any thread may call; none is safe in a signal handler.
 *
 * The command is read by /bin/sh: in a path blanks separate, wildcards and "~" are expanded, quotes
 * and backslashes are taken away, and a path that begins with "-" is taken for an option. Paths
 * from outside belong in the file calls of the system instead.
 *
 * Results: 0; -22 after an error message when a path is NULL; -36 after an error message when a
 * path has 1024 characters or more; -12 or -22 after an error message when the command cannot be
 * written; otherwise, after an error message with the command, what vorn_system_s returned: -29
 * when a path has one of the characters that its guard refuses (| ; & $ < > ! newline and
 * backquote), -1, or the command's wait status. No function here is a cancellation point. */
/* SPDX-License-Identifier: Apache-2.0 */
#ifndef VORN_FILECMD_H
#define VORN_FILECMD_H

#include "vorn_api.h"

VORN_BEGIN_DECLS

/* Copies a file or a tree with its modes, times and links: cp -af src dest.
 *   src: what to copy or to move
 *   dest: where it goes
 * Returns 0; a failure gives one of the results above. */
VORN_API int vorn_cmd_cp(const char *src, const char *dest);

/* Removes a file or a tree; one that is not there is no failure: rm -rf path.
 *   path: the file or the folder
 * Returns 0; a failure gives one of the results above. */
VORN_API int vorn_cmd_rm(const char *path);

/* Unpacks a compressed archive into the folder dir when extract is not 0 (tar -xzf archive -C dir),
 * otherwise packs dir into it (tar -czf archive dir).
 *   archive: path of the archive
 *   dir: the folder
 *   extract: 0 to pack, another value to unpack
 * Returns 0; a failure gives one of the results above. */
VORN_API int vorn_cmd_tar(const char *archive, const char *dir, int extract);

/* Creates an empty file, or gives an existing one the present time: touch path.
 *   path: the file or the folder
 * Returns 0; a failure gives one of the results above. */
VORN_API int vorn_cmd_touch(const char *path);

/* Renames or moves: mv src dest.
 *   src: what to copy or to move
 *   dest: where it goes
 * Returns 0; a failure gives one of the results above. */
VORN_API int vorn_cmd_mv(const char *src, const char *dest);

/* Makes a folder and those above it that are missing, with mode 0777 less the umask: mkdir -p path.
 * The tool's output is dropped where the shell reads "&>" as a redirection; otherwise it goes where
 * the caller's goes.
 *
 * The folder is there when the result is 0, and could not be made when it is another; it is path to
 * the letter, beside what the shell makes of a path that it reads otherwise. A shell that runs the
 * command in the background may be a moment late when the folder was there before: the folder is
 * made again if it is removed in that moment.
 *   path: the file or the folder
 * Returns 0; a failure gives one of the results above; -22 after an error message for a path that
 * the guard refuses. */
VORN_API int vorn_cmd_mkdir(const char *path);

VORN_END_DECLS

#endif
