/* CPU partitions, lists of CPUs as settings write them, and what the kernel module knows of single
 * CPUs.
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
 * with a name, a type and a list of CPUs in each partition. A group without a positive
 * "partition_num", and a partition that is missing, has fewer than two ":" or more than 255
 * characters, are passed over; fields may be empty, and a longer name is cut to 31 characters. The
 * file is loaded by vorn_cpum_init, or else by the first function here that needs the partitions;
 * they never change after that. The load looks for each group and partition up to the counts: a
 * file with counts of many millions takes it minutes or hours.
 *
 * Any thread may call; nothing here is for signal handlers. No function here is a cancellation
 * point. Those that may be the first to load block on the file system, and on the script that makes
 * a product file; a fork() meanwhile does not wait, and the child loads anew. */
/* SPDX-License-Identifier: Apache-2.0 */
#ifndef VORN_CPU_H
#define VORN_CPU_H

#include "vorn_api.h"
#include "vorn_list.h"

VORN_BEGIN_DECLS

/* CPUs that a set has room for: as many as the system's cpu_set_t. */
#define VORN_CPUM_CPU_COUNT 1024u

/* 64-bit words of a set: CPU n is bit n mod 64 of word n / 64. */
#define VORN_CPUM_MASK_WORDS 16

/* Bytes of a group's or a partition's name with its NUL. */
#define VORN_CPUM_NAME_SIZE 32

/* Bytes of a list of CPUs with its NUL. */
#define VORN_CPUM_LIST_SIZE 256

/* A partition. */
typedef struct vorn_cpum_partition {
  vorn_list_head_s link;             /* in its group */
  uint32_t type;                     /* whose meaning is the product's */
  uint32_t state;                    /* 0 */
  char name[VORN_CPUM_NAME_SIZE];    /* unique in its group, if the file is sound */
  char cpubind[VORN_CPUM_LIST_SIZE]; /* its CPUs, for vorn_cpum_parse_cpumask */
} vorn_cpum_partition_s;

/* Loads the product file at path; for NULL "/WRK/conf/app_data/kelp/product.ini", which
 * "/WRK/component/pyr/script/gen_product_ini.sh" makes where it is missing.
 *   path: product file, or NULL for the node's
 * Returns 0; -1 after an information message when there is no such file or it has no positive
 * "group_num". Only the first call counts, whatever it returns: later ones return 0, with no
 * partitions after a failure. */
VORN_API int vorn_cpum_init(const char *path);

/* Returns the first partition called name in the group called group, such as "GROUP_0"; borrowed
 * until the process ends. NULL when there is none or this call was the first to load and failed,
 * and after an error message when a name is NULL.
 *   group: name of the group
 *   name: name of the partition */
VORN_API const vorn_cpum_partition_s *vorn_cpum_get_partition(const char *group, const char *name);

/* Adds the CPUs of text to mask, a set of VORN_CPUM_MASK_WORDS words. Items are separated by
 * commas. Each is
 *
 * - a decimal CPU number or a range "8-11"; blanks may precede a number, and what follows is not
 *   looked at. Numbers above VORN_CPUM_CPU_COUNT - 1 add nothing.
 * - a reference "GROUP_0/IOD_NORMAL" to the CPUs of a partition, where the group "*" stands for all
 *   groups; it is good also when there is no such partition. A partition's own list may refer to
 *   others, 128 deep; where it comes to itself again there is an error message, and the rest is
 *   added.
 *
 * An item of any other form, also an empty one and a negative number, and a range that ends before
 * it starts give an error message and add nothing; so does a reference in the item with which this
 * call is the first to load the partitions, and fails.
 *   text: list of CPUs
 *   mask: set of VORN_CPUM_MASK_WORDS words
 * Returns 0 when there was one good item at least, else -1, also when a pointer is NULL (without a
 * log message). */
VORN_API int vorn_cpum_parse_cpumask(const char *text, uint64_t *mask);

/* Takes the CPUs that poll for input and output out of mask: the first two of every partition
 * called "IOD_NORMAL" whose list begins with a range of three CPUs or more. CPU 1023 stays.
 *   mask: set of VORN_CPUM_MASK_WORDS words
 * Returns 0; -1 when this call was the first to load and failed, and after an error message when
 * mask is NULL. */
VORN_API int vorn_cpum_clear_cpumask_of_iod_poll(uint64_t *mask);

/* Writes the partitions through print, a line each with group, name, type and CPUs.
 *   print: function that each line goes through
 * Returns 0; -1 when they are not loaded yet, which print is told, and after an error message when
 * print is NULL. */
VORN_API int vorn_cpum_dbg_show(vorn_print_f print);

/* Reads whether the idle CPU cpu stays out of its sleep states, as the kernel module has it and
 * means it. Blocks as the module does.
 *   cpu: number of the CPU
 *   value: where the value goes
 * Returns what the kernel module answers; -1 when it does not, with errno (ENOSYS where there is no
 * such module); logs an error and returns -1 when value is NULL. */
VORN_API int vorn_get_idle_no_cstates(unsigned int cpu, uint32_t *value);

/* Sets whether the idle CPU cpu stays out of its sleep states. Blocks as the module does.
 *   cpu: number of the CPU
 *   value: the new value
 * Returns what the kernel module answers; logs an error and returns -1 when it does not, with errno
 * (ENOSYS where there is no such module). */
VORN_API int vorn_set_idle_no_cstates(unsigned int cpu, uint32_t value);

/* What CPU cpu works at: fills *record, whose size and layout are the kernel module's.
 *   cpu: number of the CPU
 *   record: where the kernel module writes
 * Returns 0; -1 when the module refuses or is not there, with its errno, and after an error message
 * when record is NULL. Blocks as the module does. */
VORN_API int vorn_get_cpu_task_info(unsigned int cpu, void *record);

VORN_END_DECLS

#endif
