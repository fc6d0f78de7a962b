/* Frequency control of CPUs. No function here is a cancellation point. */
/* SPDX-License-Identifier: Apache-2.0 */
#ifndef VORN_CPUFREQ_H
#define VORN_CPUFREQ_H

#include "vorn_api.h"

VORN_BEGIN_DECLS

/* Reads which frequency policies the machine offers (/sys/devices/system/cpu/cpufreq) and their
 * ranges, and logs them. It is not an error if the machine offers none, as most virtual machines
 * do.
 * Returns 0. vorn_Init calls this function. Any thread; blocks on the file system; not
 * signal-safe. */
VORN_API int vorn_cpufreq_init(void);

/* Asks the kernel module to set all CPUs to their lowest frequency. This function and those below
 * pass the two words on unchanged; the module defines their meaning. Any thread; blocks as the
 * module does.
 *   argument1: first word for the kernel module
 *   argument2: second word for the kernel module
 * Returns the answer of the module; if the call fails, -1 with errno (ENOSYS if there is no such
 * module). */
VORN_API int vorn_cpufreq_set_low_all(unsigned long argument1, unsigned long argument2);

/* Asks the kernel module to set all CPUs to their highest frequency.
 *   argument1: first word for the kernel module
 *   argument2: second word for the kernel module
 * Returns what vorn_cpufreq_set_low_all returns. */
VORN_API int vorn_cpufreq_set_high_all(unsigned long argument1, unsigned long argument2);

/* Asks the kernel module to raise the frequency of all CPUs by one step.
 *   argument1: first word for the kernel module
 *   argument2: second word for the kernel module
 * Returns what vorn_cpufreq_set_low_all returns. */
VORN_API int vorn_cpufreq_up_allcpu_freq_by_step(unsigned long argument1, unsigned long argument2);

/* Asks the kernel module to lower the frequency of all CPUs by one step.
 *   argument1: first word for the kernel module
 *   argument2: second word for the kernel module
 * Returns what vorn_cpufreq_set_low_all returns. */
VORN_API int vorn_cpufreq_down_allcpu_freq_by_step(unsigned long argument1,
                                                   unsigned long argument2);

/* Asks the kernel module to read the frequency.
 *   argument1: first word for the kernel module
 *   argument2: second word for the kernel module
 * Returns what vorn_cpufreq_set_low_all returns. */
VORN_API int vorn_get_local_cpufreq(unsigned long argument1, unsigned long argument2);

VORN_END_DECLS

#endif
