/* CPU masks: sets of CPUs, among them the machine's possible, online and present CPUs.
 *
 * Any thread may call these functions. The functions that only search are signal-safe and never
 * block, fail or log; they may run while another thread sets bits in the same mask. No function
 * here is a cancellation point. */
/* SPDX-License-Identifier: Apache-2.0 */
#ifndef VORN_CPUMASK_H
#define VORN_CPUMASK_H

#include "vorn_api.h"

VORN_BEGIN_DECLS

/* Number of CPUs that a mask has room for; also the result of a search that finds none. */
#define VORN_CPUMASK_CPU_COUNT 256u

/* 64-bit words of a mask. */
#define VORN_CPUMASK_WORDS 4u

/* A set of CPUs. */
typedef struct cpumask {
  uint64_t words[VORN_CPUMASK_WORDS]; /* CPU n is bit n mod 64 of word n / 64 */
} cpumask;

/* The CPUs that the kernel can ever have. Empty until cpumask_init and unchanged after it: a CPU
 * that is plugged in later does not appear. */
VORN_API extern cpumask *cpu_possible_mask;

/* The CPUs on which the kernel ran at the time of cpumask_init. */
VORN_API extern cpumask *cpu_online_mask;

/* The CPUs that the machine had at the time of cpumask_init. */
VORN_API extern cpumask *cpu_present_mask;

/* Fills these three masks, once, from the kernel's lists in /sys/devices/system/cpu. If a list
 * cannot be read, fills the other masks, and the next call clears all three and tries again.
 * vorn_Init calls this function.
 * Returns 0, also if the masks are already filled; on failure, logs an error and returns -1. Blocks
 * on the file system. */
VORN_API int cpumask_init(void);

/* Adds the CPUs of a file that holds a list such as "0-3,8-11" to mask, which must not be NULL.
 * Reads the first 255 characters of the first line, and each item with vorn_set_cpumask_bit.
 * Ignores path_length.
 *   mask: the mask
 *   path: list file of the kernel
 *   path_length: not used
 * Returns the highest CPU number in the list, 0 for an empty line. If the file cannot be opened or
 * has no line, returns -1 without a log message and leaves mask unchanged. Blocks on the file
 * system. */
VORN_API int load_cpumask(cpumask *mask, const char *path, size_t path_length);

/* Clears the first words 64-bit words of mask, which must have at least that many.
 *   mask: the mask
 *   words: number of 64-bit words to clear */
VORN_API void init_cpumask_bit(cpumask *mask, unsigned int words);

/* Adds the CPUs of one item of a list, "5" or "8-11", to mask. Adds nothing if the first number is
 * above the last, and ignores numbers outside 0 to VORN_CPUMASK_CPU_COUNT - 1. Neither pointer may
 * be NULL.
 *   mask: the mask
 *   item: item of a list, "5" or "8-11"
 * Returns the last CPU number of the item as read; 0 if the item has no such numbers; logs an error
 * and returns 0 if the item is empty. */
VORN_API int vorn_set_cpumask_bit(cpumask *mask, const char *item);

/* Returns the lowest CPU of mask; VORN_CPUMASK_CPU_COUNT if there is none or mask is NULL.
 *   mask: the mask */
VORN_API unsigned int vorn_first_cpu(const cpumask *mask);

/* Returns the lowest CPU of mask above cpu; VORN_CPUMASK_CPU_COUNT if there is none or mask is
 * NULL. With ~0u, the number before the first, the search begins at CPU 0.
 *   cpu: CPU to begin after
 *   mask: the mask
 *
 * A walk over a mask:
 *
 *   for (unsigned int cpu = vorn_first_cpu(mask); cpu < VORN_CPUMASK_CPU_COUNT;
 *        cpu = vorn_next_cpu(cpu, mask))
 *     serve_cpu(cpu); */
VORN_API unsigned int vorn_next_cpu(unsigned int cpu, const cpumask *mask);

VORN_END_DECLS

#endif
