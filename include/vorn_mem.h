/* The accounting allocator and the system's memory figures.
 *
 * Every block from the allocator is charged to the module id of the code that asked for it. The
 * counters live in a table that the node's kernel module hands out; where there is no such module
 * the allocator works all the same and counts nothing. Any thread may call; nothing here is safe in
 * a signal handler unless it says so. No function here is a cancellation point. */
/* SPDX-License-Identifier: Apache-2.0 */
#ifndef VORN_MEM_H
#define VORN_MEM_H

#include "vorn_api.h"

VORN_BEGIN_DECLS

/* Stands before each block: the caller's address is 16 bytes after it. */
typedef struct vorn_mem_head {
  uint32_t magic;    /* VORN_MEM_MAGIC while the allocator owns the block */
  uint32_t size;     /* bytes that the caller asked for */
  uint32_t pid;      /* module id as the caller gave it, out of range or not */
  uint32_t reserved; /* 0 */
} vorn_mem_head_s;

/* What vorn_mem_head_s::magic holds. */
#define VORN_MEM_MAGIC 0xF5F5F5F5u

/* The type of memory that vorn_mallocsubproc reports: the system's heap. */
#define VORN_MEM_TYPE_HEAP 1u

/* The system's page size in bytes, 0 until vorn_get_current_page_size has read it. */
VORN_API extern uint64_t g_CurSysPageSize;

/* Allocates a block in the caller's name: vorn_mallocsubstandard.
 *   pid: module id that the block is charged to
 *   size: number of bytes
 * Returns the block, which vorn_free frees; NULL when size is 0, and after an error message when
 * memory runs out. */
#define vorn_malloc(pid, size) vorn_mallocsubstandard((pid), (size), 0, __func__, __LINE__)

/* Frees a block in the caller's name: vorn_freesub.
 *   ptr: block that vorn_malloc returned */
#define vorn_free(ptr) vorn_freesub((ptr), __func__, __LINE__)

/* Returns a block of size bytes that belongs to the caller, aligned to 16 bytes and charged to
 * module pid (above 1023: to 0). NULL without a log message when size is 0; NULL after an error
 * message when memory runs out, or size is so large that its header does not fit beside it in 32
 * bits. flags is 0 and not used; function and line name the caller. Free it with vorn_freesub.
 *   pid: a module id
 *   size: number of bytes
 *   flags: 0
 *   function: name of the calling function
 *   line: line of the caller */
VORN_API void *vorn_mallocsubstandard(unsigned int pid, unsigned int size, unsigned long flags,
                                      const char *function, unsigned int line)
    __attribute__((malloc, alloc_size(2)));

/* Allocates as vorn_mallocsubstandard does, without a log message and without the test of size 0.
 * Stores VORN_MEM_TYPE_HEAP in *type on success and leaves it alone otherwise.
 *   size: number of bytes
 *   type: where the type of memory goes
 *   flags: 0
 *   pid: a module id
 *   function: name of the calling function
 *   line: line of the caller
 * Returns the block, or NULL. */
VORN_API void *vorn_mallocsubproc(unsigned int size, unsigned int *type, unsigned long flags,
                                  unsigned int pid, const char *function, unsigned int line)
    __attribute__((malloc, alloc_size(1)));

/* Fills a block header.
 *   header: block header to fill
 *   size: number of bytes
 *   pid: a module id */
VORN_API void vorn_mem_init_head(vorn_mem_head_s *header, unsigned int size, unsigned int pid);

/* Frees a block and takes it off its module's account. NULL is reported, at a limited rate, and
 * nothing is freed. A pointer without the allocator's header in front is reported and freed as the
 * system allocator's own; the 16 bytes in front of it are read. function and line name the caller.
 *   ptr: block to free
 *   function: name of the calling function
 *   line: line of the caller */
VORN_API void vorn_freesub(void *ptr, const char *function, unsigned int line);

/* Gives ptr back to the system allocator, as free() does. type is not used.
 *   ptr: block to free
 *   type: not used */
VORN_API void vorn_freesubproc(void *ptr, int type);

/* Charges size bytes to module pid (above 1023: to 0). Nothing happens while there is no table.
 * Signal-safe once the table is known.
 *   pid: a module id
 *   size: number of bytes */
VORN_API void vorn_mem_stat_add(unsigned int pid, unsigned int size);

/* Takes size bytes off the account of module pid (above 1023: of 0). Nothing happens while there is
 * no table. Blocks that are older than the table may drive a counter below zero. Signal-safe once
 * the table is known.
 *   pid: a module id
 *   size: number of bytes */
VORN_API void vorn_mem_stat_sub(unsigned int pid, unsigned int size);

/* Shows every module whose counter is not zero, and the total, through print; NULL shows nothing.
 *   print: function that each line goes through */
VORN_API void vorn_mem_show(vorn_print_f print);

/* Has the kernel module print its table.
 * Returns what it answers; -1 with errno when it does not. */
VORN_API int vorn_mem_stat_dump(void);

/* Fills size bytes at dest with value. Signal-safe.
 *   dest: first byte to fill
 *   value: value of each byte
 *   size: number of bytes
 * Returns dest; a NULL dest is returned as it is. */
VORN_API void *vorn_memset(void *dest, int value, unsigned int size);

/* The free memory as the kernel module reports it, in its unit.
 *   out: where the figure goes
 * Returns 0; -1 after an error message when out is NULL or the request fails. */
VORN_API int vorn_get_free_mem(unsigned long *out);

/* The machine's memory in kB (MemTotal of /proc/meminfo), read once.
 *   out: where the figure goes
 * Returns 0; -1 when out is NULL, after an error message, or the figure cannot be read. */
VORN_API int vorn_get_total_mem(unsigned long *out);

/* Returns the used share of the machine's memory in percent, rounded down, from MemTotal and
 * MemAvailable read afresh; 0 when they cannot be read. */
VORN_API unsigned long vorn_get_available_usage(void);

/* Asks for the page cache to be dropped, by a shell command that the library's guard against
 * command separators refuses: it runs nothing, and stays for the programs that link it.
 * Returns -1. */
VORN_API int vorn_release_mem(void);

/* Reads the page size into g_CurSysPageSize.
 * Returns 0; -1 after a log message when it cannot be read. */
VORN_API int vorn_get_current_page_size_inner(void);

/* Reads the page size into g_CurSysPageSize, once per process; a failed read is tried again by the
 * next call.
 * Returns 0 or -1. */
VORN_API int vorn_get_current_page_size(void);

/* The page size in bytes in *out.
 *   out: where the figure goes
 * Returns 0; -1 when out is NULL, after an error message, or when it cannot be read (*out is 0
 * then). */
VORN_API int vorn_get_sys_page_size(unsigned long *out);

/* Makes numpages units of 4096 bytes at addr read-only: mprotect(2). The unit is 4096 bytes
 * whatever the page size.
 *   addr: first byte, at the start of a page
 *   numpages: number of units of 4096 bytes
 * Returns 0; logs an error and returns -1 when addr is NULL or numpages 0 or the page size is
 * unknown; logs an error and returns the positive errno of a failed mprotect. Where pages are not
 * 4096 bytes, an addr or a length that is not a multiple of a page is reported, nothing is changed,
 * and the result is 0. */
VORN_API int vorn_setmemory_ro(void *addr, unsigned int numpages);

/* Makes numpages units of 4096 bytes at addr writable (PROT_WRITE alone), as vorn_setmemory_ro
 * makes them read-only.
 *   addr: first byte, at the start of a page
 *   numpages: number of units of 4096 bytes
 * Returns as vorn_setmemory_ro does. */
VORN_API int vorn_setmemory_rw(void *addr, unsigned int numpages);

VORN_END_DECLS

#endif
