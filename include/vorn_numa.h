/* The machine's NUMA nodes as a configuration file describes them, and the nodes that the process
 * uses:
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
 * with "tru" or "fals". "proc_numa_info" is optional; it lists the nodes that the process uses. In
 * that list, an empty item is ignored and an item that is not a number is 0. Values have at most
 * 255 characters.
 *
 * Any thread may call these functions. None is safe in a signal handler, and none is a cancellation
 * point. Only the loading functions block, on the file system and on each other. The getters take
 * no lock; during a load they return what it has read so far. */
/* SPDX-License-Identifier: Apache-2.0 */
#ifndef VORN_NUMA_H
#define VORN_NUMA_H

#include "vorn_api.h"
#include "vorn_cpumask.h"

VORN_BEGIN_DECLS

/* 64-bit words of a CPU set: CPU n is bit n mod 64 of word n / 64. A set has the size of the
 * system's cpu_set_t. */
#define VORN_NUMAM_CPUSET_WORDS 16

/* Size of a file name in bytes, with its NUL. */
#define VORN_NUMAM_PATH_SIZE 256

/* Two files that together hold the settings. A lookup searches the second one first. */
typedef struct vorn_numam_files {
  char numa_info[VORN_NUMAM_PATH_SIZE]; /* the first file's name */
  char node_numa[VORN_NUMAM_PATH_SIZE]; /* the second file's name */
} vorn_numam_files_s;

/* --- Loading --- */

/* Loads the settings, once, from the file at path ("/opt/tessera/MorrowNumaConfiguration.ini" if
 * path is NULL).
 *   path: the file, or NULL for the node's
 * Returns 0, also if an earlier call of this function or of vorn_numam_module_init has loaded the
 * settings. If path is NULL and the file does not exist, loads no nodes and returns 0. Logs a
 * message and returns -1 if the file cannot be read or a setting is missing or wrong; the next call
 * tries again, and adds to the nodes that the failed call has read. */
VORN_API int vorn_numam_init(const char *path);

/* Loads the settings, once, from the two files.
 *   files: names of the two files
 * Returns what vorn_numam_init returns. */
VORN_API int vorn_numam_module_init(const vorn_numam_files_s *files);

/* --- What was loaded --- */

/* Returns 1 if the process should be bound to its nodes; otherwise, and before the load, 0. */
VORN_API uint32_t vorn_numam_status_get(void);

/* Sets whether the process should be bound to its nodes.
 *   status: 1 or 0
 * Returns 0; logs an error and returns -1 if status is neither 0 nor 1. */
VORN_API int vorn_numam_status_set(uint32_t status);

/* Returns the number of nodes; 0 before the load. */
VORN_API int vorn_numam_num_get(void);

/* Stores the nodes that the process uses in *mask: node n is bit n mod 64.
 *   mask: where the nodes go
 * Returns 0; logs an error and returns -1 if mask is NULL. */
VORN_API int vorn_numam_proc_numamask_get(uint64_t *mask);

/* Stores the CPUs of a node as a set of VORN_NUMAM_CPUSET_WORDS words. Replaces the previous
 * content, and leaves out CPUs for which the set has no room.
 *   node: number of the node, from 0 on
 *   cpuset: set of VORN_NUMAM_CPUSET_WORDS words
 * Returns 0. If there is no such node, logs an error, stores an empty set and returns 0. Logs an
 * error and returns -1 if the pointer is NULL or the node's list is wrong; in the last case stores
 * the CPUs before the wrong item. */
VORN_API int vorn_numam_cpuset_get(uint32_t node, uint64_t *cpuset);

/* Does what vorn_numam_cpuset_get does, for a mask.
 *   node: number of the node, from 0 on
 *   mask: mask of CPUs
 * Returns what vorn_numam_cpuset_get returns. */
VORN_API int vorn_numam_cpumask_get(uint32_t node, cpumask *mask);

/* --- Lists of CPUs --- */

/* Adds the CPUs of list to a set. Commas separate the items of list. Each item is a decimal CPU
 * number or a range such as "8-11"; blanks may precede a number, and text after the item is
 * ignored. Leaves out CPUs for which the set has no room.
 *   list: list of CPUs
 *   cpuset: set of VORN_NUMAM_CPUSET_WORDS words
 * Returns 0, also if list is NULL. Logs an error and returns -1 if the set is NULL, or at the first
 * item that has another form (is empty or has a negative number) or ends before it starts; adds the
 * items before it. */
VORN_API int vorn_numam_parse_cpuset(const char *list, uint64_t *cpuset);

/* Does what vorn_numam_parse_cpuset does, for a mask.
 *   list: list of CPUs
 *   mask: mask of CPUs
 * Returns what vorn_numam_parse_cpuset returns. */
VORN_API int vorn_numam_parse_cpumask(const char *list, cpumask *mask);

/* Adds the CPUs of a single item to a set, as vorn_numam_parse_cpuset does.
 *   item: item of a list
 *   cpuset: set of VORN_NUMAM_CPUSET_WORDS words
 * Returns what vorn_numam_parse_cpuset returns. */
VORN_API int vorn_numam_parse_cpuset_as_list(const char *item, uint64_t *cpuset);

/* Does what vorn_numam_parse_cpuset_as_list does, for a mask.
 *   item: item of a list
 *   mask: mask of CPUs
 * Returns what vorn_numam_parse_cpuset returns. */
VORN_API int vorn_numam_parse_cpumask_as_list(const char *item, cpumask *mask);

/* Stores the first and the last CPU of an item. The two are the same if the item is a single
 * number.
 *   item: item of a list
 *   start: where the first CPU goes
 *   end: where the last CPU goes
 * Returns 0. If the item is wrong or a pointer is NULL, logs an error, leaves both unchanged and
 * returns -1. */
VORN_API int vorn_numam_parse_cpustr(const char *item, unsigned int *start, unsigned int *end);

/* --- The steps of a load ---
 *
 * vorn_numam_init and vorn_numam_module_init call these functions with their lock held. Another
 * caller must ensure that no other thread loads the settings at the same time. Unless they say
 * otherwise, these functions return 0, or log a message and return -1. */

/* Does what vorn_numam_init does, at every call.
 *   path: the file, or NULL for the node's
 * Returns 0; on failure, logs a message and returns -1. */
VORN_API int vorn_numam_init_inner(const char *path);

/* Checks that files is not NULL and each name has 1 to 255 characters.
 *   files: names of the two files
 * Returns 0; on failure, logs a message and returns -1. */
VORN_API int vorn_numam_cfg_check(const vorn_numam_files_s *files);

/* Does what vorn_numam_module_init does, at every call.
 *   files: names of the two files
 * Returns 0; on failure, logs a message and returns -1. */
VORN_API int vorn_numam_cfg_init(const vorn_numam_files_s *files);

/* --- Steps that read the registered INI files --- */

/* Reads both sections.
 * Returns 0; on failure, logs a message and returns -1. */
VORN_API int vorn_numam_cfg_parse(void);

/* Reads section "NUMA_PARTITION".
 * Returns 0; on failure, logs a message and returns -1. */
VORN_API int vorn_numam_parse_numa_partition(void);

/* Reads the CPU list of one node.
 *   node: number of the node, from 0 on
 * Returns 0; -1 without a log message if the list is missing; on another failure, logs a message
 * and returns -1. */
VORN_API int vorn_numam_parse_per_numa(uint32_t node);

/* Reads section "PROC_PARTITION".
 * Returns 0; on failure, logs a message and returns -1. */
VORN_API int vorn_numam_parse_proc_partition(void);

/* Reads "numa_enable".
 * Returns 0; -1 without a log message if it is missing; on another failure, logs a message and
 * returns -1. */
VORN_API int vorn_numam_parse_proc_numa_switch(void);

/* Reads "proc_numa_info", which is optional.
 * Returns 0; on failure, logs a message and returns -1. */
VORN_API int vorn_numam_parse_proc_numa_info(void);

/* Marks the nodes of a list as used by the process. Stops at the first number that is negative or
 * not below the number of nodes.
 *   list: node numbers separated by commas
 * Returns 0; -1 without a log message if it stops at such a number or list is NULL. */
VORN_API int vorn_numam_parse_proc_numa_set(const char *list);

/* Returns the decimal number that an item holds; -1 without a log message if the item is missing or
 * not an int.
 *   section: name of the section
 *   item: name of the item */
VORN_API int vorn_numam_parse_digit_item(const char *section, const char *item);

VORN_END_DECLS

#endif
