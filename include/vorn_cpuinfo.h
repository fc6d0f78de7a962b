/* The machine's packages, CPUs and NUMA nodes, and its processor's model: found once on a machine,
 * by running system tools, and shared between its processes in the object "cpuinfo_shm". Until
 * cpuinfo_init has succeeded all counts are 0 and the model is empty. Any thread may call; nothing
 * here is safe in a signal handler, nor a cancellation point. */
/* SPDX-License-Identifier: Apache-2.0 */
#ifndef VORN_CPUINFO_H
#define VORN_CPUINFO_H

#include "vorn_api.h"
#include "vorn_cpumask.h"

VORN_BEGIN_DECLS

#define VORN_CPUMODEL_SIZE 64u /* bytes of the model's text with its NUL */

/* Finds the machine's figures, once per process; vorn_Init makes this call. It runs `uname -p`, and
 * lscpu and others only where no process of the machine has done so: it waits up to a second for
 * one that is doing it, and blocks on the tools for as long as they take. The process's umask is 0
 * for a moment.
 *
 * Where there are fewer NUMA nodes than packages, half the nodes count as packages of two nodes
 * each; a machine of one node has one package.
 * Returns 0, also when the record cannot be shared; -1 after error messages when the nodes, the
 * model or the counts cannot be found: the next call tries again. */
VORN_API int cpuinfo_init(void);

/* Stores the record of the process in the shared object, unless that holds a valid one by now.
 * Waits for other processes that are storing theirs. Logs an error when the object cannot be
 * locked. A step of cpuinfo_init; does nothing before that has succeeded. */
VORN_API void save_cpuinfo_to_shm(void);

/* Stores the number of packages in *out.
 *   out: where the number goes
 * Returns 0; logs an error and returns -1 when out is NULL. */
VORN_API int vorn_get_phycpu_num(uint32_t *out);

/* Stores the number of logical CPUs in *out.
 *   out: where the number goes
 * Returns 0; logs an error and returns -1 when out is NULL. */
VORN_API int vorn_get_logic_cpu_num(uint32_t *out);

/* Stores the model, as `uname -p` tells it, in the VORN_CPUMODEL_SIZE bytes at out.
 *   out: where the model goes, VORN_CPUMODEL_SIZE bytes
 * Returns 0; logs an error and returns -1 when out is NULL. */
VORN_API int vorn_get_cpumodel_info(char *out);

/* Sets *mask to the CPUs of a package, those of its NUMA nodes.
 *   mask: where the CPUs go
 *   package: number of the package, from 0 on
 * Returns 0; -1 after an error message when mask is NULL, there is no such package, or the CPUs of
 * a node cannot be read, with those of the nodes before it in *mask then. Reads /sys. */
VORN_API int vorn_get_cpumask_by_phycpu(cpumask *mask, uint32_t package);

VORN_END_DECLS

#endif
