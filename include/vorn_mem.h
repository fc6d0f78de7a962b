/* The accounting allocator and the system's memory figures.
 *
 * The allocator charges every block to the module id of its caller. The counters are in a table of
 * the node's kernel module; without that module the allocator works but counts nothing. Any thread
 * may call these functions; none is safe in a signal handler unless it says so. No function here is
 * a cancellation point. */
/* SPDX-License-Identifier: Apache-2.0 */
#ifndef VORN_MEM_H
#define VORN_MEM_H

#include "vorn_api.h"

VORN_BEGIN_DECLS

/* The header of a block. The block itself starts 16 bytes after the start of its header. */
typedef struct vorn_mem_head {
  uint32_t magic;    /* VORN_MEM_MAGIC while the allocator owns the block */
  uint32_t size;     /* requested size in bytes */
  uint32_t pid;      /* module id as the caller passed it, also if out of range */
  uint32_t reserved; /* 0 */
} vorn_mem_head_s;

/* The value of vorn_mem_head_s::magic. */
#define VORN_MEM_MAGIC 0xF5F5F5F5u

/* The type of memory that vorn_mallocsubproc stores: the system's heap. */
#define VORN_MEM_TYPE_HEAP 1u

/* The system's page size in bytes, 0 until vorn_get_current_page_size has read it. */
VORN_API extern uint64_t g_CurSysPageSize;

/* Allocates a block with vorn_mallocsubstandard, with the function and source line of the caller.
 *   pid: module id that the block is charged to
 *   size: number of bytes
 * Returns the block, which the caller frees with vorn_free; NULL if size is 0; logs an error and
 * returns NULL if memory runs out. */
#define vorn_malloc(pid, size) vorn_mallocsubstandard((pid), (size), 0, __func__, __LINE__)

/* Frees a block with vorn_freesub, with the function and source line of the caller.
 *   ptr: block that vorn_malloc returned */
#define vorn_free(ptr) vorn_freesub((ptr), __func__, __LINE__)

/* Returns a block of size bytes, aligned to 16 bytes and charged to module pid (to module 0 if pid
 * is above 1023). The caller frees it with vorn_freesub. If size is 0, the result is NULL without a
 * log message. Logs an error and returns NULL if memory runs out, or if size plus the size of the
 * header exceeds 32 bits. flags is 0 and not used; function and line name the caller.
 *   pid: a module id
 *   size: number of bytes
 *   flags: 0
 *   function: name of the calling function
 *   line: source line of the caller */
VORN_API void *vorn_mallocsubstandard(unsigned int pid, unsigned int size, unsigned long flags,
                                      const char *function, unsigned int line)
    __attribute__((malloc, alloc_size(2)));

/* Allocates as vorn_mallocsubstandard does, but never logs, and does not refuse a size of 0. Stores
 * VORN_MEM_TYPE_HEAP in *type on success; otherwise, leaves *type unchanged.
 *   size: number of bytes
 *   type: where the type of memory goes
 *   flags: 0
 *   pid: a module id
 *   function: name of the calling function
 *   line: source line of the caller
 * Returns the block; NULL on failure. */
VORN_API void *vorn_mallocsubproc(unsigned int size, unsigned int *type, unsigned long flags,
                                  unsigned int pid, const char *function, unsigned int line)
    __attribute__((malloc, alloc_size(1)));

/* Fills a block header.
 *   header: block header to fill
 *   size: number of bytes
 *   pid: a module id */
VORN_API void vorn_mem_init_head(vorn_mem_head_s *header, unsigned int size, unsigned int pid);

/* Frees a block and subtracts its size from the counter of its module. Logs a rate-limited message
 * if ptr is NULL. If ptr does not follow a header of this allocator, logs that and frees ptr with
 * free(3); it reads the 16 bytes before ptr. function and line name the caller.
 *   ptr: block to free
 *   function: name of the calling function
 *   line: source line of the caller */
VORN_API void vorn_freesub(void *ptr, const char *function, unsigned int line);

/* Frees ptr with free(3). type is not used.
 *   ptr: block to free
 *   type: not used */
VORN_API void vorn_freesubproc(void *ptr, int type);

/* Adds size bytes to the counter of module pid (of module 0 if pid is above 1023). Does nothing
 * while there is no table. Signal-safe once the table is known.
 *   pid: a module id
 *   size: number of bytes */
VORN_API void vorn_mem_stat_add(unsigned int pid, unsigned int size);

/* Subtracts size bytes from the counter of module pid (of module 0 if pid is above 1023). Does
 * nothing while there is no table. Frees of memory that was allocated before the table was known
 * may make a counter negative. Signal-safe once the table is known.
 *   pid: a module id
 *   size: number of bytes */
VORN_API void vorn_mem_stat_sub(unsigned int pid, unsigned int size);

/* Shows every module whose counter is not zero, and the total, through print. Does nothing if print
 * is NULL.
 *   print: function that each line goes through */
VORN_API void vorn_mem_show(vorn_print_f print);

/* Stores in *bytes what vorn_mem_show shows for module pid: the bytes of the blocks that the module
 * has allocated and not freed. This is negative if the module has freed more than was counted. The
 * counter changes while other threads allocate. This function is an addition
 * (docs/compatibility.md).
 *   pid: a module id, 0 to 1023
 *   bytes: where the figure goes
 * Returns 0; 1 without a log message if there is no table, because no kernel module counts the
 * memory; logs an error and returns -1 if pid is above 1023 or bytes is NULL. Leaves *bytes
 * unchanged unless it returns 0. */
VORN_API int vorn_mem_stat_get(unsigned int pid, int64_t *bytes);

/* Asks the kernel module to print its table.
 * Returns the answer of the module; if the call fails, -1 with errno. */
VORN_API int vorn_mem_stat_dump(void);

/* Fills size bytes at dest with value. Signal-safe.
 *   dest: first byte to fill
 *   value: value of each byte
 *   size: number of bytes
 * Returns dest. If dest is NULL, does nothing and returns NULL. */
VORN_API void *vorn_memset(void *dest, int value, unsigned int size);

/* Stores the amount of free memory in *out as the kernel module reports it, in the module's unit.
 *   out: where the figure goes
 * Returns 0; logs an error and returns -1 if out is NULL or the request fails. */
VORN_API int vorn_get_free_mem(unsigned long *out);

/* Stores the size of the machine's memory in kB in *out (MemTotal of /proc/meminfo). Reads it once.
 *   out: where the figure goes
 * Returns 0; -1 if the figure cannot be read; logs an error and returns -1 if out is NULL. */
VORN_API int vorn_get_total_mem(unsigned long *out);

/* Returns the used share of the machine's memory in percent, rounded down. Reads MemTotal and
 * MemAvailable at each call. The result is 0 if they cannot be read. */
VORN_API unsigned long vorn_get_available_usage(void);

/* Tries to drop the page cache with a shell command that the library's guard against command
 * separators refuses. It therefore runs nothing; it exists for programs that link it.
 * Returns -1. */
VORN_API int vorn_release_mem(void);

/* Reads the page size into g_CurSysPageSize.
 * Returns 0; logs a message and returns -1 if it cannot be read. */
VORN_API int vorn_get_current_page_size_inner(void);

/* Reads the page size into g_CurSysPageSize, once per process. After a failure the next call tries
 * again.
 * Returns 0; logs a message and returns -1 if it cannot be read. */
VORN_API int vorn_get_current_page_size(void);

/* Stores the page size in bytes in *out.
 *   out: where the figure goes
 * Returns 0; -1 with *out set to 0 if the page size cannot be read; logs an error and returns -1 if
 * out is NULL. */
VORN_API int vorn_get_sys_page_size(unsigned long *out);

/* Makes numpages units of 4096 bytes at addr read-only: mprotect(2). The unit is 4096 bytes for
 * every page size.
 *   addr: first byte, at the start of a page
 *   numpages: number of units of 4096 bytes
 * Returns 0. Logs an error and returns -1 if addr is NULL, numpages is 0 or the page size is
 * unknown; logs an error and returns the positive errno if mprotect(2) fails. If pages are not 4096
 * bytes and addr or the length is not a multiple of the page size, logs that, changes nothing and
 * returns 0. */
VORN_API int vorn_setmemory_ro(void *addr, unsigned int numpages);

/* Makes numpages units of 4096 bytes at addr writable (PROT_WRITE alone), as vorn_setmemory_ro
 * makes them read-only.
 *   addr: first byte, at the start of a page
 *   numpages: number of units of 4096 bytes
 * Returns what vorn_setmemory_ro returns. */
VORN_API int vorn_setmemory_rw(void *addr, unsigned int numpages);

VORN_END_DECLS

#endif
