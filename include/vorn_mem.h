/* The accounting allocator and the system's memory figures.
 *
 * Every block from the allocator is charged to the module id of the code that asked for it. The
 * counters live in a table that the node's kernel module hands out; where there is no such module
 * the allocator works all the same and counts nothing. Any thread may call; nothing here is safe in
 * a signal handler unless it says so. No function here is a cancellation point. */
#ifndef VORN_MEM_H
#define VORN_MEM_H

#include "vorn_api.h"

VORN_BEGIN_DECLS

/* Stands in front of each block: the caller's address is 16 bytes behind it. */
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

/* Allocate and free in the caller's name. */
#define vorn_malloc(pid, size) vorn_mallocsubstandard((pid), (size), 0, __func__, __LINE__)
#define vorn_free(ptr) vorn_freesub((ptr), __func__, __LINE__)

/* Returns a block of size bytes that belongs to the caller, aligned to 16 bytes and charged to
 * module pid (above 1023: to 0). NULL without a record when size is 0; NULL after an error record
 * when memory runs out, or size is so large that its header does not fit beside it in 32 bits.
 * flags is 0 and not used; function and line name the caller. Free it with vorn_freesub. */
VORN_API void *vorn_mallocsubstandard(unsigned int pid, unsigned int size, unsigned long flags,
                                      const char *function, unsigned int line)
    __attribute__((malloc, alloc_size(2)));

/* The same without a record and without the test of size 0. Stores VORN_MEM_TYPE_HEAP in *type on
 * success and leaves it alone otherwise. */
VORN_API void *vorn_mallocsubproc(unsigned int size, unsigned int *type, unsigned long flags,
                                  unsigned int pid, const char *function, unsigned int line)
    __attribute__((malloc, alloc_size(1)));

/* Fills a block header. */
VORN_API void vorn_mem_init_head(vorn_mem_head_s *header, unsigned int size, unsigned int pid);

/* Frees a block and takes it off its module's account. NULL is reported, at a limited rate, and
 * nothing is freed. A pointer without the allocator's header in front is reported and freed as the
 * system allocator's own; the 16 bytes in front of it are read. function and line name the caller.
 */
VORN_API void vorn_freesub(void *ptr, const char *function, unsigned int line);

/* Returns ptr to the system allocator, as free() does. type is not used. */
VORN_API void vorn_freesubproc(void *ptr, int type);

/* Charge size bytes to module pid (above 1023: to 0), or take them off. Nothing happens while there
 * is no table. Blocks that are older than the table may drive a counter below zero. Signal-safe
 * once the table is known. */
VORN_API void vorn_mem_stat_add(unsigned int pid, unsigned int size);
VORN_API void vorn_mem_stat_sub(unsigned int pid, unsigned int size);

/* Shows every module whose counter is not zero, and the total, through print; NULL shows nothing.
 */
VORN_API void vorn_mem_show(vorn_print_f print);

/* Has the kernel module print its table. Returns what it answers; -1 with errno when it
 * does not. */
VORN_API int vorn_mem_stat_dump(void);

/* Fills size bytes at dest with value and returns dest. A NULL dest is returned as it is.
 * Signal-safe. */
VORN_API void *vorn_memset(void *dest, int value, unsigned int size);

/* The free memory as the kernel module reports it, in its unit. Returns 0; -1 after an error record
 * when out is NULL or the request fails. */
VORN_API int vorn_get_free_mem(unsigned long *out);

/* The machine's memory in kB (MemTotal of /proc/meminfo), read once. Returns 0; -1 when out is
 * NULL, after an error record, or the figure cannot be read. */
VORN_API int vorn_get_total_mem(unsigned long *out);

/* The used share of the machine's memory in percent, rounded down, from MemTotal and MemAvailable
 * read afresh; 0 when they cannot be read. */
VORN_API unsigned long vorn_get_available_usage(void);

/* Asks for the page cache to be dropped, by a shell command that the library's guard against
 * command separators refuses. It therefore always returns -1 and runs nothing; it stays for those
 * who link it. */
VORN_API int vorn_release_mem(void);

/* Reads the page size into g_CurSysPageSize. Returns 0; -1 after a record when it cannot be read.
 */
VORN_API int vorn_get_current_page_size_inner(void);

/* The same once per process; a failed read is tried again by the next call. Returns 0 or -1. */
VORN_API int vorn_get_current_page_size(void);

/* The page size in bytes in *out. Returns 0; -1 when out is NULL, after an error record, or when it
 * cannot be read (*out is 0 then). */
VORN_API int vorn_get_sys_page_size(unsigned long *out);

/* Make numpages units of 4096 bytes at addr read-only, or writable (PROT_WRITE alone): mprotect(2).
 * The unit is 4096 bytes whatever the page size. Returns 0; -1 after an error record when addr is
 * NULL or numpages 0 or the page size is unknown; the positive errno of a failed mprotect after an
 * error record. Where pages are not 4096 bytes, an addr or a length that is not a multiple of a
 * page is reported, nothing is changed, and the result is 0. */
VORN_API int vorn_setmemory_ro(void *addr, unsigned int numpages);
VORN_API int vorn_setmemory_rw(void *addr, unsigned int numpages);

VORN_END_DECLS

#endif
