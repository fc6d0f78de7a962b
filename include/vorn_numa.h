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
/* SPDX-License-Identifier: Apache-2.0 */
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

/* Loads the settings, once, of the file at path (NULL: "/opt/tessera/MorrowNumaConfiguration.ini").
 *   path: the file, or NULL for the node's
 * Returns 0, also when an earlier call of this function or of vorn_numam_module_init has loaded
 * them, and when path is NULL and there is no such file: no nodes then. -1 after a log message when
 * the file cannot be read or a setting is missing or wrong. The next call tries again, and adds to
 * the nodes that the failed one has read. */
VORN_API int vorn_numam_init(const char *path);

/* Loads the settings, once, of the two files.
 *   files: names of the two files
 * Returns as vorn_numam_init does. */
VORN_API int vorn_numam_module_init(const vorn_numam_files_s *files);

/* --- What was loaded --- */

/* Returns whether the process is to be bound to its nodes: 1 or 0, which it is before the load. */
VORN_API uint32_t vorn_numam_status_get(void);

/* Sets whether the process is to be bound to its nodes.
 *   status: 1 or 0
 * Returns 0; logs an error and returns -1 when status is neither 0 nor 1. */
VORN_API int vorn_numam_status_set(uint32_t status);

/* Returns the number of nodes, 0 before the load. */
VORN_API int vorn_numam_num_get(void);

/* Stores the nodes that the process uses: bit n mod 64 of *mask for node n.
 *   mask: where the nodes go
 * Returns 0; logs an error and returns -1 when mask is NULL. */
VORN_API int vorn_numam_proc_numamask_get(uint64_t *mask);

/* Stores the CPUs of a node as a set of VORN_NUMAM_CPUSET_WORDS words, in place of what that held;
 * CPUs for which there is no room are left out.
 *   node: number of the node, from 0 on
 *   cpuset: set of VORN_NUMAM_CPUSET_WORDS words
 * Returns 0, with an empty set and an error message also when there is no such node; logs an error
 * and returns -1 when the pointer is NULL or the node's list is wrong, with the CPUs before the
 * wrong item then. */
VORN_API int vorn_numam_cpuset_get(uint32_t node, uint64_t *cpuset);

/* Stores the CPUs of a node as a mask, as vorn_numam_cpuset_get does as a set.
 *   node: number of the node, from 0 on
 *   mask: mask of CPUs
 * Returns as vorn_numam_cpuset_get does. */
VORN_API int vorn_numam_cpumask_get(uint32_t node, cpumask *mask);

/* --- Lists of CPUs --- */

/* Adds the CPUs of list to a set. Items are separated by commas; each is a decimal CPU number or a
 * range "8-11", blanks may precede a number, and what follows is not looked at. CPUs for which
 * there is no room are left out.
 *   list: list of CPUs
 *   cpuset: set of VORN_NUMAM_CPUSET_WORDS words
 * Returns 0, for a NULL list too; logs an error and returns -1 at the first item that has another
 * form (it is empty, a number is negative) or ends before it starts, with the items before it
 * added, and when the set is NULL. */
VORN_API int vorn_numam_parse_cpuset(const char *list, uint64_t *cpuset);

/* Adds the CPUs of list to a mask, as vorn_numam_parse_cpuset does to a set.
 *   list: list of CPUs
 *   mask: mask of CPUs
 * Returns as vorn_numam_parse_cpuset does. */
VORN_API int vorn_numam_parse_cpumask(const char *list, cpumask *mask);

/* Adds the CPUs of a single item to a set, as vorn_numam_parse_cpuset does.
 *   item: item of a list
 *   cpuset: set of VORN_NUMAM_CPUSET_WORDS words
 * Returns as vorn_numam_parse_cpuset does. */
VORN_API int vorn_numam_parse_cpuset_as_list(const char *item, uint64_t *cpuset);

/* Adds the CPUs of a single item to a mask, as vorn_numam_parse_cpuset does to a set.
 *   item: item of a list
 *   mask: mask of CPUs
 * Returns as vorn_numam_parse_cpuset does. */
VORN_API int vorn_numam_parse_cpumask_as_list(const char *item, cpumask *mask);

/* Stores the first and the last CPU of an item, the same where it is a number.
 *   item: item of a list
 *   start: where the first CPU goes
 *   end: where the last CPU goes
 * Returns 0; logs an error and returns -1, with both left alone, when the item is wrong or a
 * pointer is NULL. */
VORN_API int vorn_numam_parse_cpustr(const char *item, unsigned int *start, unsigned int *end);

/* --- The steps of a load ---
 *
 * vorn_numam_init and vorn_numam_module_init call these under their lock. A caller of a single one
 * sees to it that no other thread loads meanwhile. They return 0; -1 after a log message, unless
 * they say otherwise. */

/* Does what vorn_numam_init does, each time that it is called.
 *   path: the file, or NULL for the node's
 * Returns 0; -1 after a log message. */
VORN_API int vorn_numam_init_inner(const char *path);

/* Checks that files is not NULL and each name has 1 to 255 characters.
 *   files: names of the two files
 * Returns 0; -1 after a log message. */
VORN_API int vorn_numam_cfg_check(const vorn_numam_files_s *files);

/* Does what vorn_numam_module_init does, each time that it is called.
 *   files: names of the two files
 * Returns 0; -1 after a log message. */
VORN_API int vorn_numam_cfg_init(const vorn_numam_files_s *files);

/* --- Steps that read the INI files that are registered --- */

/* Reads both sections.
 * Returns 0; -1 after a log message. */
VORN_API int vorn_numam_cfg_parse(void);

/* Reads section "NUMA_PARTITION".
 * Returns 0; -1 after a log message. */
VORN_API int vorn_numam_parse_numa_partition(void);

/* Reads the list of one node.
 *   node: number of the node, from 0 on
 * Returns 0; -1 without a log message when the list is missing, after one otherwise. */
VORN_API int vorn_numam_parse_per_numa(uint32_t node);

/* Reads section "PROC_PARTITION".
 * Returns 0; -1 after a log message. */
VORN_API int vorn_numam_parse_proc_partition(void);

/* Reads "numa_enable".
 * Returns 0; -1 without a log message when it is missing, after one otherwise. */
VORN_API int vorn_numam_parse_proc_numa_switch(void);

/* Reads "proc_numa_info", which may be missing.
 * Returns 0; -1 after a log message. */
VORN_API int vorn_numam_parse_proc_numa_info(void);

/* Marks the nodes of a list of numbers as used by the process, up to the first number that is
 * negative or not below the number of nodes.
 *   list: numbers between commas
 * Returns 0; -1 without a log message at such a number, and for NULL. */
VORN_API int vorn_numam_parse_proc_numa_set(const char *list);

/* Returns the decimal number that an item holds; -1 without a log message when it is missing or no
 * int.
 *   section: name of the section
 *   item: name of the item */
VORN_API int vorn_numam_parse_digit_item(const char *section, const char *item);

VORN_END_DECLS

#endif
