/* CPU masks: sets of CPUs, with the machine's possible, online and present ones.
 *
 * Any thread may call. The functions that only search are signal-safe and never block, fail or log;
 * they may run beside a setting of bits in the same mask. No function here is a cancellation point.
 * */
/* SPDX-License-Identifier: Apache-2.0 */
#ifndef VORN_CPUMASK_H
#define VORN_CPUMASK_H

#include "vorn_api.h"

VORN_BEGIN_DECLS

/* CPUs that a mask has room for, and what a search answers where there is none. */
#define VORN_CPUMASK_CPU_COUNT 256u

/* 64-bit words of a mask. */
#define VORN_CPUMASK_WORDS 4u

/* A set of CPUs. */
typedef struct cpumask {
  uint64_t words[VORN_CPUMASK_WORDS]; /* CPU n is bit n mod 64 of word n / 64 */
} cpumask;

/* The CPUs that the kernel could ever have. Empty until cpumask_init, and not changed after it:
 * plugging a CPU later does not show. */
VORN_API extern cpumask *cpu_possible_mask;

/* The CPUs that the kernel runs on, as they were at cpumask_init. */
VORN_API extern cpumask *cpu_online_mask;

/* The CPUs that the machine holds, as they were at cpumask_init. */
VORN_API extern cpumask *cpu_present_mask;

/* Fills these three from the kernel's lists in /sys/devices/system/cpu, once: where a list cannot
 * be read the others are filled all the same, and the next call begins again by clearing all three.
 * vorn_Init makes this call.
 * Returns 0, also when they are filled already; -1 after an error message. Blocks on the file
 * system. */
VORN_API int cpumask_init(void);

/* Adds the CPUs of a list file such as "0-3,8-11" to mask, which must not be NULL. Of its first
 * line 255 characters count; each item is read by vorn_set_cpumask_bit. path_length is not looked
 * at.
 *   mask: the mask
 *   path: list file of the kernel
 *   path_length: not used
 * Returns the highest CPU number in the list, 0 for an empty line; -1, without a log message and
 * with mask untouched, when the file cannot be opened or holds no line. Blocks on the file system.
 */
VORN_API int load_cpumask(cpumask *mask, const char *path, size_t path_length);

/* Clears the first words 64-bit words of mask, which must have as many.
 *   mask: the mask
 *   words: number of 64-bit words to clear */
VORN_API void init_cpumask_bit(cpumask *mask, unsigned int words);

/* Adds the CPUs of one item of a list to mask: "5", or "8-11"; a first above the last adds none,
 * and what lies outside 0 to VORN_CPUMASK_CPU_COUNT - 1 is left out. Neither pointer may be NULL.
 *   mask: the mask
 *   item: item of a list, "5" or "8-11"
 * Returns the last CPU number as it was read; 0 when the item holds no such numbers, which is an
 * error message where it holds nothing at all. */
VORN_API int vorn_set_cpumask_bit(cpumask *mask, const char *item);

/* Returns the lowest CPU of mask; VORN_CPUMASK_CPU_COUNT when there is none or mask is NULL.
 *   mask: the mask */
VORN_API unsigned int vorn_first_cpu(const cpumask *mask);

/* Returns the lowest CPU of mask above cpu; VORN_CPUMASK_CPU_COUNT when there is none or mask is
 * NULL. Above ~0u, the number before the first, comes CPU 0. A walk over a mask:
 *   cpu: CPU to begin after
 *   mask: the mask
 *
 *   for (unsigned int cpu = vorn_first_cpu(mask); cpu < VORN_CPUMASK_CPU_COUNT;
 *        cpu = vorn_next_cpu(cpu, mask))
 *     serve_cpu(cpu); */
VORN_API unsigned int vorn_next_cpu(unsigned int cpu, const cpumask *mask);

VORN_END_DECLS

#endif
