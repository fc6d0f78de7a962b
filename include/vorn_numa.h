/* The machine's NUMA nodes as a configuration file has them, and which of them the process uses:
 *
 *   [NUMA_PARTITION]
 *   cpu_num=16
 *   numa_num=2
 *   numa_0=0-3,8-11
 *   numa_1=4-7,12-15
 *   [PROC_PARTITION]
 *   numa_enable=true
 *   proc_numa_info=0
 *
 * "cpu_num" and "numa_num" are at least 1, and each node has its list of CPUs. "numa_enable" begins
 * with "tru" or "fals". "proc_numa_info" may be missing; it lists the nodes that the process uses,
 * where an empty item counts for nothing and what is no number is 0. Values have at most 255
 * characters.
 *
 * Any thread may call; nothing here is for signal handlers. No function here is a cancellation
 * point. Only the loading functions block, on the file system and on each other. The getters take
 * no lock; beside a load they answer from what it has read so far. */
#ifndef VORN_NUMA_H
#define VORN_NUMA_H

#include "vorn_api.h"
#include "vorn_cpumask.h"

VORN_BEGIN_DECLS

/* 64-bit words of a CPU set: CPU n is bit n mod 64 of word n / 64. It has the size of the system's
 * cpu_set_t. */
#define VORN_NUMAM_CPUSET_WORDS 16

/* Bytes of a file name with its NUL. */
#define VORN_NUMAM_PATH_SIZE 256

/* Two files that have the settings between them; the second is asked first. */
typedef struct vorn_numam_files {
  char numa_info[VORN_NUMAM_PATH_SIZE]; /* the first file's name */
  char node_numa[VORN_NUMAM_PATH_SIZE]; /* the second file's name */
} vorn_numam_files_s;

/* --- Loading --- */

/* Load the settings, once: of the file at path (NULL: "/opt/tessera/MorrowNumaConfiguration.ini"),
 * or of the two files. Return 0, also when an earlier call of either has loaded them, and when path
 * is NULL and there is no such file: no nodes then. Return -1 after a log message when a file
 * cannot be read or a setting is missing or wrong. The next call tries again, and adds to the nodes
 * that the failed one has read. */
VORN_API int vorn_numam_init(const char *path);
VORN_API int vorn_numam_module_init(const vorn_numam_files_s *files);

/* --- What was loaded --- */

/* Whether the process is to be bound to its nodes: 1 or 0, which it is before the load. */
VORN_API uint32_t vorn_numam_status_get(void);

/* Sets that. Returns 0; -1 after an error message when status is neither 0 nor 1. */
VORN_API int vorn_numam_status_set(uint32_t status);

/* The number of nodes, 0 before the load. */
VORN_API int vorn_numam_num_get(void);

/* The nodes that the process uses: bit n mod 64 of *mask for node n. Returns 0; -1 after an error
 * message when mask is NULL. */
VORN_API int vorn_numam_proc_numamask_get(uint64_t *mask);

/* The CPUs of a node, as a set of VORN_NUMAM_CPUSET_WORDS words and as a mask, in place of what
 * that held; CPUs for which there is no room are left out. Return 0, with an empty set and an error
 * message also when there is no such node; -1 after an error message when the pointer is NULL or
 * the node's list is wrong, with the CPUs before the wrong item then. */
VORN_API int vorn_numam_cpuset_get(uint32_t node, uint64_t *cpuset);
VORN_API int vorn_numam_cpumask_get(uint32_t node, cpumask *mask);

/* --- Lists of CPUs --- */

/* Add the CPUs of list to a set or mask, as above. Items are separated by commas; each is a decimal
 * CPU number or a range "8-11", blanks may precede a number, and what follows is not looked at.
 * Return 0, for a NULL list too; -1 after an error message at the first item that has another form
 * (it is empty, a number is negative) or ends before it starts, with the items before it added, and
 * when the set or mask is NULL. */
VORN_API int vorn_numam_parse_cpuset(const char *list, uint64_t *cpuset);
VORN_API int vorn_numam_parse_cpumask(const char *list, cpumask *mask);

/* The same for a single item. */
VORN_API int vorn_numam_parse_cpuset_as_list(const char *item, uint64_t *cpuset);
VORN_API int vorn_numam_parse_cpumask_as_list(const char *item, cpumask *mask);

/* The first and the last CPU of an item, the same where it is a number. Returns 0; -1 after an
 * error message, with both left alone, when the item is wrong or a pointer is NULL. */
VORN_API int vorn_numam_parse_cpustr(const char *item, unsigned int *start, unsigned int *end);

/* --- The steps of a load ---
 *
 * vorn_numam_init and vorn_numam_module_init call these under their lock. A caller of a single one
 * sees to it that no other thread loads meanwhile. They return 0; -1 after a log message, unless
 * they say otherwise. */

/* vorn_numam_init without the memory that it was done. */
VORN_API int vorn_numam_init_inner(const char *path);

/* Whether files is not NULL and each name has 1 to 255 characters. */
VORN_API int vorn_numam_cfg_check(const vorn_numam_files_s *files);

/* vorn_numam_module_init without the memory that it was done. */
VORN_API int vorn_numam_cfg_init(const vorn_numam_files_s *files);

/* The following read the INI files that are registered (vorn_cfg_init). */

/* Both sections. */
VORN_API int vorn_numam_cfg_parse(void);

/* Section "NUMA_PARTITION"; of it the list of one node, -1 without a message when that is missing.
 */
VORN_API int vorn_numam_parse_numa_partition(void);
VORN_API int vorn_numam_parse_per_numa(uint32_t node);

/* Section "PROC_PARTITION"; of it "numa_enable", -1 without a message when that is missing; and
 * "proc_numa_info", which may be missing. */
VORN_API int vorn_numam_parse_proc_partition(void);
VORN_API int vorn_numam_parse_proc_numa_switch(void);
VORN_API int vorn_numam_parse_proc_numa_info(void);

/* Marks the nodes of a list of numbers as used by the process, up to the first number that is
 * negative or not below the number of nodes: -1 without a message then, and for NULL. */
VORN_API int vorn_numam_parse_proc_numa_set(const char *list);

/* The decimal number that an item holds; -1 without a message when it is missing or no int. */
VORN_API int vorn_numam_parse_digit_item(const char *section, const char *item);

VORN_END_DECLS

#endif
