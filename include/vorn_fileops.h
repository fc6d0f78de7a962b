/* File operations: system calls with checked arguments, reading of lines, copying and record locks.
 *
 * If a pointer argument is NULL, a function logs an error that names it and returns -1; errno then
 * has no meaning. Otherwise, each function returns the result of the system call, with its errno.
 * Any thread may call these functions, and they block as the system calls do. With pointers that
 * are not NULL, these are safe in a signal handler: vorn_access, vorn_open, vorn_read, vorn_write,
 * vorn_lseek, vorn_sync, vorn_close, vorn_stat, vorn_readline, vorn_lockfile, vorn_unlockfile.
 *
 * All functions except vorn_readline and vorn_copy behave as the system calls do: vorn_open returns
 * the lowest free descriptor, which may be 0 to 2, and vorn_open, vorn_read, vorn_write, vorn_sync,
 * vorn_close, vorn_readdir_new and vorn_lockfile are cancellation points. A cancelled
 * vorn_readdir_new leaves the directory open. vorn_readline and vorn_copy are not cancellation
 * points: a cancellation stays pending until the thread's next cancellation point. */
/* SPDX-License-Identifier: Apache-2.0 */
#ifndef VORN_FILEOPS_H
#define VORN_FILEOPS_H

#include <dirent.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/types.h>

#include "vorn_api.h"

VORN_BEGIN_DECLS

/* Checks whether the process may access path as mode says: access(2).
 *   path: path of the file or the directory
 *   mode: R_OK, W_OK, X_OK or F_OK
 * Returns 0; -1 on failure. */
VORN_API int vorn_access(const char *path, int mode);

/* Opens path: open(2) with flags and mode. Add O_CLOEXEC to flags if needed; mode is used only if
 * the call creates a file.
 *   path: path of the file or the directory
 *   flags: O_RDONLY or another access mode, with other flags
 *   mode: mode of a new file
 * Returns the descriptor, which the caller closes; -1 on failure. */
VORN_API int vorn_open(const char *path, int flags, mode_t mode);

/* Reads up to count bytes: read(2). Does not repeat an interrupted call.
 *   fd: descriptor of the file
 *   buf: where the bytes go
 *   count: maximum number of bytes
 * Returns the number of bytes, which may be less than count; 0 at the end of the file; -1 on
 * failure. */
VORN_API ssize_t vorn_read(int fd, void *buf, size_t count);

/* Writes up to count bytes: write(2). Does not repeat an interrupted call.
 *   fd: descriptor of the file
 *   buf: bytes to write
 *   count: maximum number of bytes
 * Returns the number of bytes, which may be less than count; -1 on failure. */
VORN_API ssize_t vorn_write(int fd, const void *buf, size_t count);

/* Moves the file position: lseek(2).
 *   fd: descriptor of the file
 *   offset: offset in bytes
 *   whence: SEEK_SET, SEEK_CUR or SEEK_END
 * Returns the new position in bytes; -1 on failure. */
VORN_API off_t vorn_lseek(int fd, off_t offset, int whence);

/* Waits until all data written to the file is on its device: fsync(2).
 *   fd: descriptor of the file
 * Returns 0; -1 on failure. */
VORN_API int vorn_sync(int fd);

/* Closes a descriptor: close(2).
 *   fd: descriptor of the file
 * Returns 0; -1 on failure. The descriptor is closed in both cases, unless errno is EBADF. */
VORN_API int vorn_close(int fd);

/* Stores information about the file at path in *buf: stat(2).
 *   path: path of the file or the directory
 *   buf: where the information goes
 * Returns 0; -1 on failure. */
VORN_API int vorn_stat(const char *path, struct stat *buf);

/* Stores information about the file system of the file at path in *buf: statfs(2).
 *   path: path of the file or the directory
 *   buf: where the information goes
 * Returns 0; -1 on failure. */
VORN_API int vorn_statfs(const char *path, struct statfs *buf);

/* Reads the directory at path: scandir(3). Stores in *namelist an array of the entries for which
 * filter returns non-zero (all entries if filter is NULL), in the order of compar (unsorted if
 * compar is NULL).
 *   path: path of the file or the directory
 *   namelist: where the address of the array goes
 *   filter: function that selects entries, or NULL
 *   compar: function that compares two entries, or NULL
 * Returns the number of entries; -1 on failure. The caller frees each entry, and then the array,
 * with free(3). */
VORN_API int vorn_readdir_new(const char *path, struct dirent ***namelist,
                              int (*filter)(const struct dirent *),
                              int (*compar)(const struct dirent **, const struct dirent **));

/* Reads the next line of fd into the size bytes at buf: the bytes from the file position up to and
 * including the line feed, without carriage returns, followed by a zero. Stops before the line feed
 * at the end of the file, if a read fails, or when size - 1 bytes are stored; the next call
 * continues from there. Always sets the last byte at buf to zero, and leaves the bytes between the
 * two zeros unchanged. Stores a zero byte of the file like any other byte.
 *   fd: descriptor of the file
 *   buf: where the line goes
 *   size: bytes at buf
 * Returns buf. Returns NULL if no byte was stored: at the end of the file, if the first read failed
 * (with errno), or if size is 1. If buf is NULL or size is below 1, returns NULL without a log
 * message and does nothing. Repeats an interrupted read.
 *
 * The file position is after the last byte of the line, also if the function reads a regular file
 * in larger pieces. The function keeps nothing between calls. No other thread or process that
 * shares the position (through a duplicate of fd, or as a child) may move it during the call. */
VORN_API char *vorn_readline(int fd, char *buf, int size);

/* Copies the contents of src to dest. Creates dest with mode 0600 or truncates it first. Does
 * nothing if both are the same file.
 *   src: file to copy
 *   dest: file to write
 * Returns 0. Logs an error and returns -125 if src cannot be opened; logs an error and returns
 * another non-zero value if a path is NULL, dest cannot be opened, memory runs out, or a read or a
 * write fails (dest then holds a part of src). errno is that of the failed call. */
VORN_API int vorn_copy(const char *src, const char *dest);

/* A range of a file to lock. */
typedef struct vorn_file_lock {
  uint64_t type;  /* VORN_FILE_LOCK_* combined; other bits are ignored */
  int64_t start;  /* first byte, from the start of the file */
  int64_t length; /* in bytes; 0: to the end of the growing file; negative: before start */
} vorn_file_lock_s;

/* The bits of vorn_file_lock_s::type. */
#define VORN_FILE_LOCK_READ 0u    /* shared with other read locks; fd must be open for reading */
#define VORN_FILE_LOCK_WRITE 1u   /* exclusive; fd must be open for writing */
#define VORN_FILE_LOCK_NO_WAIT 2u /* fail rather than wait for another process */

/* Takes a POSIX record lock (fcntl(2): F_SETLKW, or F_SETLK with VORN_FILE_LOCK_NO_WAIT). The lock
 * belongs to the process: its threads do not exclude each other, a child does not inherit the lock,
 * and the system releases it when the process closes any descriptor of the file. Continues to wait
 * after a signal.
 *   fd: descriptor of the file
 *   lock: range to lock or to release
 * Returns 0; -1 if the lock cannot be taken (errno EAGAIN or EACCES: another process holds it;
 * EDEADLK: the wait would never end). Logs an error and returns -22 if lock is NULL. */
VORN_API int vorn_lockfile(int fd, const vorn_file_lock_s *lock);

/* Releases the process's locks on the range. Ignores type.
 *   fd: descriptor of the file
 *   lock: range to lock or to release
 * Returns 0, also if nothing was locked; -1 on failure; logs an error and returns -22 if lock is
 * NULL. */
VORN_API int vorn_unlockfile(int fd, const vorn_file_lock_s *lock);

VORN_END_DECLS

#endif
