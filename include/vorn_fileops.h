/* Files: checked calls of the system, reading by lines, copying and record locks.
 *
 * A NULL pointer argument is refused with -1 after an error message that names it, and nothing is
 * done; errno is of no meaning then. Otherwise each call gives the result of the system's, with its
 * errno. Any thread may call and they block as the system's calls do. Safe in a signal handler,
 * with pointers that are not NULL, are vorn_access, vorn_open, vorn_read, vorn_write, vorn_lseek,
 * vorn_sync, vorn_close, vorn_stat, vorn_readline, vorn_lockfile and vorn_unlockfile.
 *
 * All but vorn_readline and vorn_copy are the system's calls also in this: vorn_open gives the
 * lowest descriptor that is free, 0 to 2 included, and vorn_open, vorn_read, vorn_write, vorn_sync,
 * vorn_close, vorn_readdir_new and vorn_lockfile are cancellation points as the system's are; a
 * cancelled vorn_readdir_new leaves the folder open. vorn_readline and vorn_copy are no
 * cancellation points: a cancellation stays pending until the thread's next one. */
/* SPDX-License-Identifier: Apache-2.0 */
#ifndef VORN_FILEOPS_H
#define VORN_FILEOPS_H

#include <dirent.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/types.h>

#include "vorn_api.h"

VORN_BEGIN_DECLS

/* Whether the process may use path in the ways of mode: access(2).
 *   path: path of the file or the folder
 *   mode: R_OK, W_OK, X_OK or F_OK
 * Returns 0, or -1. */
VORN_API int vorn_access(const char *path, int mode);

/* Opens path: open(2) with flags, O_CLOEXEC among them where it is wanted, and mode, which counts
 * only where a file is created.
 *   path: path of the file or the folder
 *   flags: O_RDONLY and the like
 *   mode: mode of a file that is created
 * Returns the descriptor, which the caller closes; or -1. */
VORN_API int vorn_open(const char *path, int flags, mode_t mode);

/* Reads up to count bytes: read(2). An interrupted call is not repeated.
 *   fd: descriptor of the file
 *   buf: where the bytes go
 *   count: most bytes to move
 * Returns the number of bytes, which may be less than count, 0 at the end of the file; or -1. */
VORN_API ssize_t vorn_read(int fd, void *buf, size_t count);

/* Writes up to count bytes: write(2). An interrupted call is not repeated.
 *   fd: descriptor of the file
 *   buf: bytes to write
 *   count: most bytes to move
 * Returns the number of bytes, which may be less than count; or -1. */
VORN_API ssize_t vorn_write(int fd, const void *buf, size_t count);

/* Moves the file position: lseek(2).
 *   fd: descriptor of the file
 *   offset: offset in bytes
 *   whence: SEEK_SET, SEEK_CUR or SEEK_END
 * Returns the new position in bytes, or -1. */
VORN_API off_t vorn_lseek(int fd, off_t offset, int whence);

/* Waits until what was written to the one file is on its device: fsync(2).
 *   fd: descriptor of the file
 * Returns 0, or -1. */
VORN_API int vorn_sync(int fd);

/* Closes a descriptor: close(2).
 *   fd: descriptor of the file
 * Returns 0, or -1; the descriptor is gone in either case, unless errno is EBADF. */
VORN_API int vorn_close(int fd);

/* Stores what is known of the file that path leads to in *buf: stat(2).
 *   path: path of the file or the folder
 *   buf: where the answer goes
 * Returns 0, or -1. */
VORN_API int vorn_stat(const char *path, struct stat *buf);

/* Stores what is known of the file system that the file at path lies on in *buf: statfs(2).
 *   path: path of the file or the folder
 *   buf: where the answer goes
 * Returns 0, or -1. */
VORN_API int vorn_statfs(const char *path, struct statfs *buf);

/* Reads the folder at path: scandir(3). *namelist receives an array of the entries that filter
 * returns non-zero for (NULL takes all), in the order of compar (NULL: none).
 *   path: path of the file or the folder
 *   namelist: where the address of the array goes
 *   filter: function that chooses entries, or NULL
 *   compar: function that orders entries, or NULL
 * Returns the number of entries; or -1. The caller releases each entry, then the array, with
 * free(). */
VORN_API int vorn_readdir_new(const char *path, struct dirent ***namelist,
                              int (*filter)(const struct dirent *),
                              int (*compar)(const struct dirent **, const struct dirent **));

/* Reads the next line of fd into the size bytes at buf: the bytes from the file position up to and
 * with the line feed, without those that are carriage returns, and a zero after them. It stops
 * before the line feed at the end of the file, at a failed read, or when size - 1 bytes are stored;
 * the next call goes on from there. The last byte at buf is set to zero in any case; bytes between
 * the two zeros are left as they are. A zero byte of the file is stored as any other.
 *   fd: descriptor of the file
 *   buf: where the line goes
 *   size: bytes at buf
 * Returns buf, or NULL when nothing was stored: at the end of the file, when the first read failed
 * (errno tells), with a size of 1, and without a log message when buf is NULL or size below 1,
 * which touches nothing. An interrupted read is repeated.
 *
 * The file position is left after the last byte that was taken, as if each had been read alone; so
 * it is where a stored file is read in larger pieces. Nothing is kept between calls. A thread that
 * shares the position (a duplicate of fd, a child) must not move it during the call. */
VORN_API char *vorn_readline(int fd, char *buf, int size);

/* Copies the contents of src to dest, which is created with mode 0600 or emptied first. Where both
 * are one file nothing is done.
 *   src: file to copy
 *   dest: file to make
 * Returns 0; -125 after an error message when src cannot be opened; another non-zero value after an
 * error message when a path is NULL, dest cannot be opened, reading or writing fails (dest then
 * holds a part of src), or memory runs out. errno is that of the failed call. */
VORN_API int vorn_copy(const char *src, const char *dest);

/* A range of a file to lock. */
typedef struct vorn_file_lock {
  uint64_t type;  /* VORN_FILE_LOCK_* combined; other bits do not count */
  int64_t start;  /* its first byte, counted from the start of the file */
  int64_t length; /* in bytes; 0: to the end, however far the file grows; negative: before start */
} vorn_file_lock_s;

/* The bits of vorn_file_lock_s::type. */
#define VORN_FILE_LOCK_READ 0u    /* shared with other read locks; fd must be open for reading */
#define VORN_FILE_LOCK_WRITE 1u   /* exclusive; fd must be open for writing */
#define VORN_FILE_LOCK_NO_WAIT 2u /* fail rather than wait for another process */

/* Takes a POSIX record lock (fcntl(2): F_SETLKW, or F_SETLK with VORN_FILE_LOCK_NO_WAIT). It is the
 * process's: its threads do not exclude each other, a child does not inherit it, and it goes when
 * the process closes any descriptor of the file. A wait that a signal interrupts goes on.
 *   fd: descriptor of the file
 *   lock: range to lock or to release
 * Returns 0; -1 when the lock cannot be had (errno EAGAIN or EACCES: another process holds it;
 * EDEADLK: waiting would never end); -22 after an error message when lock is NULL. */
VORN_API int vorn_lockfile(int fd, const vorn_file_lock_s *lock);

/* Releases what the process has locked of the range; type does not count.
 *   fd: descriptor of the file
 *   lock: range to lock or to release
 * Returns 0, also where nothing was locked; -1; or -22 after an error message when lock is NULL. */
VORN_API int vorn_unlockfile(int fd, const vorn_file_lock_s *lock);

VORN_END_DECLS

#endif
