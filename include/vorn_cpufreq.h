/* Frequency control of the CPUs. No function here is a cancellation point. */
/* SPDX-License-Identifier: Apache-2.0 */
#ifndef VORN_CPUFREQ_H
#define VORN_CPUFREQ_H

#include "vorn_api.h"

VORN_BEGIN_DECLS

/* Reads which frequency policies the machine offers (/sys/devices/system/cpu/cpufreq) and their
 * ranges, and logs what it found. A machine that offers none, as most virtual ones do, is no
 * failure.
 * Returns 0. vorn_Init makes this call. Any thread; blocks on the file system; not signal-safe. */
VORN_API int vorn_cpufreq_init(void);

/* Has the kernel module put all CPUs at their lowest frequency. This function and those below pass
 * the two words on as they are; their meaning is the module's. Any thread; blocks as the module
 * does.
 *   argument1: first word for the kernel module
 *   argument2: second word for the kernel module
 * Returns what the module answers; -1 with errno when it does not (ENOSYS where there is no such
 * module). */
VORN_API int vorn_cpufreq_set_low_all(unsigned long argument1, unsigned long argument2);

/* Has the kernel module put all CPUs at their highest frequency.
 *   argument1: first word for the kernel module
 *   argument2: second word for the kernel module
 * Returns as vorn_cpufreq_set_low_all does. */
VORN_API int vorn_cpufreq_set_high_all(unsigned long argument1, unsigned long argument2);

/* Has the kernel module take the frequency of all CPUs a step up.
 *   argument1: first word for the kernel module
 *   argument2: second word for the kernel module
 * Returns as vorn_cpufreq_set_low_all does. */
VORN_API int vorn_cpufreq_up_allcpu_freq_by_step(unsigned long argument1, unsigned long argument2);

/* Has the kernel module take the frequency of all CPUs a step down.
 *   argument1: first word for the kernel module
 *   argument2: second word for the kernel module
 * Returns as vorn_cpufreq_set_low_all does. */
VORN_API int vorn_cpufreq_down_allcpu_freq_by_step(unsigned long argument1,
                                                   unsigned long argument2);

/* Has the kernel module read the frequency.
 *   argument1: first word for the kernel module
 *   argument2: second word for the kernel module
 * Returns as vorn_cpufreq_set_low_all does. */
VORN_API int vorn_get_local_cpufreq(unsigned long argument1, unsigned long argument2);

VORN_END_DECLS

#endif
