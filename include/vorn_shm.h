/* Shared memory: POSIX objects, found by name, and System V segments, found by key. Any thread may
 * call these functions. None is safe in a signal handler, and none is a cancellation point. errno
 * is that of the failed call. */
/* SPDX-License-Identifier: Apache-2.0 */
#ifndef VORN_SHM_H
#define VORN_SHM_H

#include <sys/types.h>

#include "vorn_api.h"

VORN_BEGIN_DECLS

/* Opens the object called name, for example "/segment" (shm_open(3) with oflag and mode, less the
 * umask), sets its size, reserves its memory and maps all of it shared.
 *   name: name of the object, such as "/segment"
 *   oflag: O_RDWR or O_RDONLY, with O_CREAT and O_EXCL
 *   mode: mode of a new object
 *   size: size in bytes
 * Returns the address, which the caller unmaps with munmap(2) and the same size. No descriptor
 * stays open.
 *
 * The access mode in oflag selects the protection: O_RDONLY, O_WRONLY (which the system cannot map)
 * or O_RDWR. For another value the function logs an error and maps the object without access. It
 * shortens a longer object to size, even if another process uses it. If it cannot set the size, or
 * cannot reserve the memory for another reason than a lack of memory, it maps the object unchanged,
 * so that a read-only attach works; an access to a page after the end of the object is then fatal
 * (SIGBUS).
 *
 * The result is NULL without a log message if name is NULL, or if the object exists and oflag has
 * O_EXCL (errno EEXIST); a caller that is not the creator attaches without O_EXCL. The function
 * logs information and returns NULL if the object cannot be opened, if memory runs out (ENOSPC; the
 * object stays), or if the object cannot be mapped, for example because size is 0. */
VORN_API void *vorn_shm_create_ext(const char *name, int oflag, mode_t mode, size_t size);

/* Opens an object as vorn_shm_create_ext does with O_CREAT | O_RDWR and mode 0600.
 *   name: name of the object, such as "/segment"
 *   size: size in bytes
 * Returns what vorn_shm_create_ext returns. */
VORN_API void *vorn_shm_create(const char *name, size_t size);

/* Removes the name (shm_unlink(3)). The system frees the memory after the last mapping is gone.
 *   name: name of the object, such as "/segment"
 * Returns 0; on failure, or if name is NULL, logs information and returns -1. */
VORN_API int vorn_shm_destroy(const char *name);

/* Returns the id of the System V segment with this key, size bytes long (shmget(2)); -1 on failure.
 *   key: key of the segment (a key_t)
 *   size: size in bytes
 *   flags: flags of the system call */
VORN_API int vorn_shmget_ex(int key, size_t size, int flags);

/* Returns the id of the segment, as vorn_shmget_ex does. Creates the segment with mode 0600 if
 * there is none.
 *   key: key of the segment (a key_t)
 *   size: size in bytes */
VORN_API int vorn_shmget(int key, size_t size);

/* Attaches segment id at addr, or at an address that the system chooses if addr is NULL: shmat(2).
 *   id: id of the segment
 *   addr: address to attach at, or NULL
 *   flags: flags of the system call
 * Returns the address; (void *)-1 on failure. */
VORN_API void *vorn_shmat(int id, const void *addr, int flags);

/* Marks segment id for removal after its last user has detached (shmctl(2), IPC_RMID).
 *   id: id of the segment
 * Returns 0; -1 on failure. */
VORN_API int vorn_shmdel(int id);

VORN_END_DECLS

#endif
