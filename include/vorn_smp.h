/* The number of CPUs of the machine. Any thread may call these functions. None is a cancellation
 * point. */
/* SPDX-License-Identifier: Apache-2.0 */
#ifndef VORN_SMP_H
#define VORN_SMP_H

#include "vorn_api.h"

VORN_BEGIN_DECLS

/* The number of configured CPUs; 0 if not yet known. The library writes it as a whole word. */
VORN_API extern uint32_t g_configCpuNum;

/* The number of online CPUs; 0 if not yet known. The library writes it as a whole word. */
VORN_API extern uint32_t g_onlineCpuNum;

/* Reads both counts from the system. Does nothing if they are known: it does not notice CPUs that
 * are plugged in later. vorn_Init calls this function.
 * Returns 0; if it cannot read a count, logs an error and returns 0. May block. */
VORN_API int globalCpuNum_init(void);

/* Returns what vorn_sysinfo_cpu_num returns. */
VORN_API uint32_t num_online_cpus(void);

/* Returns the number of configured CPUs: g_configCpuNum if it is known; otherwise, the count from
 * sysconf(3). Stores a count of 1 to 256 in g_configCpuNum; for any other count, logs an error and
 * returns 0. May block. */
VORN_API uint32_t num_config_cpus(void);

VORN_END_DECLS

#endif
