/* How many CPUs the machine has. Any thread may call. No function here is a cancellation point. */
/* SPDX-License-Identifier: Apache-2.0 */
#ifndef VORN_SMP_H
#define VORN_SMP_H

#include "vorn_api.h"

VORN_BEGIN_DECLS

/* How many CPUs are configured; 0: not known yet. The library writes it as a whole word. */
VORN_API extern uint32_t g_configCpuNum;

/* How many CPUs are online; 0: not known yet. The library writes it as a whole word. */
VORN_API extern uint32_t g_onlineCpuNum;

/* Asks the system for both counts, and does nothing once it has got them; CPUs that are plugged
 * later are not seen. vorn_Init makes this call.
 * Returns 0, also after an error message of a count that it did not get. May block. */
VORN_API int globalCpuNum_init(void);

/* Returns what vorn_sysinfo_cpu_num returns. */
VORN_API uint32_t num_online_cpus(void);

/* Returns the configured CPUs: g_configCpuNum where that is known, else what sysconf(3) says. A
 * count of 1 to 256 is kept there; of any other there is an error message and the result is 0. May
 * block. */
VORN_API uint32_t num_config_cpus(void);

VORN_END_DECLS

#endif
