/* Shared memory: POSIX objects by name, System V segments by key. Any thread may call; nothing here
 * is safe in a signal handler, nor a cancellation point. errno is that of the failed call. */
/* SPDX-License-Identifier: Apache-2.0 */
#ifndef VORN_SHM_H
#define VORN_SHM_H

#include <sys/types.h>

#include "vorn_api.h"

VORN_BEGIN_DECLS

/* Opens the object called name ("/segment"; shm_open(3) with oflag, and mode less the umask), sets
 * its size in bytes, reserves its memory and maps it shared, all of it.
 *   name: name of the object, such as "/segment"
 *   oflag: O_RDWR or O_RDONLY, with O_CREAT and O_EXCL
 *   mode: mode of an object that is created
 *   size: size in bytes
 * Returns the address, which the caller unmaps with munmap(2) and the same size; no descriptor
 * stays open.
 *
 * The access mode of oflag gives the protection: O_RDONLY, O_WRONLY (which the system does not map)
 * or O_RDWR; another value is reported as an error and gives no access. An object that is longer
 * becomes as short as size, whichever process uses it. Where the size cannot be set or the memory
 * cannot be reserved for another reason than its lack, the object is mapped as it is, so a
 * read-only attach works; touching a page after its end is then fatal (SIGBUS).
 *
 * NULL when name is NULL, without a log message; when the object exists and O_EXCL wants a new one
 * (errno EEXIST), without a log message: the caller is not its creator and attaches without O_EXCL;
 * when it cannot be opened, memory is short (ENOSPC: the object stays) or it cannot be mapped, size
 * 0 included, each after an information message. */
VORN_API void *vorn_shm_create_ext(const char *name, int oflag, mode_t mode, size_t size);

/* Opens an object as vorn_shm_create_ext does with O_CREAT | O_RDWR and mode 0600.
 *   name: name of the object, such as "/segment"
 *   size: size in bytes
 * Returns what vorn_shm_create_ext returns. */
VORN_API void *vorn_shm_create(const char *name, size_t size);

/* Removes the name (shm_unlink(3)); the memory goes with the last mapping.
 *   name: name of the object, such as "/segment"
 * Returns 0; -1 after an information message, also when name is NULL. */
VORN_API int vorn_shm_destroy(const char *name);

/* Returns the id of the System V segment of key (a key_t), size bytes long: shmget(2); or -1.
 *   key: key of the segment, a key_t
 *   size: size in bytes
 *   flags: flags of the system call */
VORN_API int vorn_shmget_ex(int key, size_t size, int flags);

/* Returns the id of the segment, as vorn_shmget_ex does; creates it with mode 0600 where there is
 * none.
 *   key: key of the segment, a key_t
 *   size: size in bytes */
VORN_API int vorn_shmget(int key, size_t size);

/* Attaches segment id at addr, or where the system likes when addr is NULL: shmat(2).
 *   id: id of the segment
 *   addr: address to attach at, or NULL
 *   flags: flags of the system call
 * Returns the address, or (void *)-1. */
VORN_API void *vorn_shmat(int id, const void *addr, int flags);

/* Marks segment id to be removed when its last user detaches (shmctl(2), IPC_RMID).
 *   id: id of the segment
 * Returns 0, or -1. */
VORN_API int vorn_shmdel(int id);

VORN_END_DECLS

#endif
