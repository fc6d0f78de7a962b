/* CPU partitions, the lists of CPUs that settings use, and what the kernel module knows about
 * single CPUs.
 *
 * A product file divides a node's CPUs into groups of named partitions:
 *
 *   [CPU_PARTITION]
 *   group_num=1
 *   [GROUP_0]
 *   partition_num=2
 *   partition_0=IOD_NORMAL:1:4-11
 *   partition_1=BACKGROUND:0:0-3,12
 *
 * Each partition has a name, a type and a list of CPUs. The load skips a group without a positive
 * "partition_num", and a partition that is missing, has fewer than two ":" or has more than 255
 * characters. Fields may be empty, and a longer name is cut to 31 characters. vorn_cpum_init loads
 * the file; otherwise, the first function here that needs the partitions loads it. The partitions
 * never change after that. The load looks for every group and partition up to the counts: with
 * counts of many millions it takes minutes or hours.
 *
 * Any thread may call these functions. None is safe in a signal handler, and none is a cancellation
 * point. A function that may be the first to load blocks on the file system and on the script that
 * creates a product file. A fork() during the load does not wait for it, and the child loads the
 * file again. */
/* SPDX-License-Identifier: Apache-2.0 */
#ifndef VORN_CPU_H
#define VORN_CPU_H

#include "vorn_api.h"
#include "vorn_list.h"

VORN_BEGIN_DECLS

/* Number of CPUs that a set has room for: as many as the system's cpu_set_t. */
#define VORN_CPUM_CPU_COUNT 1024u

/* 64-bit words of a set: CPU n is bit n mod 64 of word n / 64. */
#define VORN_CPUM_MASK_WORDS 16

/* Size of a group or partition name in bytes, with its NUL. */
#define VORN_CPUM_NAME_SIZE 32

/* Size of a list of CPUs in bytes, with its NUL. */
#define VORN_CPUM_LIST_SIZE 256

/* A partition. */
typedef struct vorn_cpum_partition {
  vorn_list_head_s link;             /* in its group */
  uint32_t type;                     /* the product defines its meaning */
  uint32_t state;                    /* 0 */
  char name[VORN_CPUM_NAME_SIZE];    /* unique in its group if the file is correct */
  char cpubind[VORN_CPUM_LIST_SIZE]; /* its CPUs, for vorn_cpum_parse_cpumask */
} vorn_cpum_partition_s;

/* Loads the product file at path. If path is NULL, loads "/WRK/conf/app_data/kelp/product.ini",
 * which the script "/WRK/component/pyr/script/gen_product_ini.sh" creates if it is missing.
 *   path: product file, or NULL for the node's
 * Returns 0; logs information and returns -1 if there is no such file or it has no positive
 * "group_num". Only the first call loads, whatever it returns: later calls return 0, and after a
 * failure there are no partitions. */
VORN_API int vorn_cpum_init(const char *path);

/* Returns the first partition called name in the group called group, such as "GROUP_0". The library
 * owns it; it is valid until the process ends. The result is NULL if there is none, or if this call
 * was the first to load and failed. If a name is NULL, logs an error and returns NULL.
 *   group: name of the group
 *   name: name of the partition */
VORN_API const vorn_cpum_partition_s *vorn_cpum_get_partition(const char *group, const char *name);

/* Adds the CPUs of text to mask, a set of VORN_CPUM_MASK_WORDS words. Commas separate the items of
 * text. Each item is
 *
 * - a decimal CPU number or a range such as "8-11"; blanks may precede a number, and text after the
 *   item is ignored. Numbers above VORN_CPUM_CPU_COUNT - 1 add nothing.
 * - a reference such as "GROUP_0/IOD_NORMAL" to the CPUs of a partition. The group "*" means all
 *   groups. A reference is valid even if there is no such partition. The list of a partition may
 *   itself refer to other partitions, up to 128 levels deep. If it refers back to itself, the
 *   function logs an error and adds the rest.
 *
 * The function logs an error and adds nothing for an item of any other form, for an empty item, for
 * a negative number, and for a range that ends before it starts. It does the same for a reference
 * if this call is the first to load the partitions and the load fails.
 *   text: list of CPUs
 *   mask: set of VORN_CPUM_MASK_WORDS words
 * Returns 0 if at least one item was valid; otherwise, -1. Returns -1 without a log message if a
 * pointer is NULL. */
VORN_API int vorn_cpum_parse_cpumask(const char *text, uint64_t *mask);

/* Removes the CPUs that poll for I/O from mask: the first two of every partition called
 * "IOD_NORMAL" whose list begins with a range of three or more CPUs. Never removes CPU 1023.
 *   mask: set of VORN_CPUM_MASK_WORDS words
 * Returns 0; -1 if this call was the first to load and failed; logs an error and returns -1 if mask
 * is NULL. */
VORN_API int vorn_cpum_clear_cpumask_of_iod_poll(uint64_t *mask);

/* Writes the partitions through print, one line for each, with group, name, type and CPUs.
 *   print: function that each line goes through
 * Returns 0; if the partitions are not loaded yet, says so through print and returns -1; if print
 * is NULL, logs an error and returns -1. */
VORN_API int vorn_cpum_dbg_show(vorn_print_f print);

/* Reads from the kernel module whether the idle CPU cpu stays out of its sleep states. The module
 * defines the values. Blocks as the module does.
 *   cpu: number of the CPU
 *   value: where the value goes
 * Returns the answer of the kernel module; if the call fails, -1 with errno (ENOSYS if there is no
 * such module). Logs an error and returns -1 if value is NULL. */
VORN_API int vorn_get_idle_no_cstates(unsigned int cpu, uint32_t *value);

/* Tells the kernel module whether the idle CPU cpu stays out of its sleep states. Blocks as the
 * module does.
 *   cpu: number of the CPU
 *   value: the new value
 * Returns the answer of the kernel module; if the call fails, logs an error and returns -1 with
 * errno (ENOSYS if there is no such module). */
VORN_API int vorn_set_idle_no_cstates(unsigned int cpu, uint32_t value);

/* Reads what CPU cpu runs. The kernel module fills *record and defines its size and layout.
 *   cpu: number of the CPU
 *   record: where the kernel module writes
 * Returns 0; -1 with errno if the module refuses or is missing; logs an error and returns -1 if
 * record is NULL. Blocks as the module does. */
VORN_API int vorn_get_cpu_task_info(unsigned int cpu, void *record);

VORN_END_DECLS

#endif
