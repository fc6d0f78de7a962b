/* The machine's packages, CPUs and NUMA nodes, and the model of its processor. One process of the
 * machine finds these figures with system tools and shares them with the others in the shared
 * memory object "cpuinfo_shm". Until cpuinfo_init has succeeded, all counts are 0 and the model is
 * empty. Any thread may call these functions. None is safe in a signal handler, and none is a
 * cancellation point. */
/* SPDX-License-Identifier: Apache-2.0 */
#ifndef VORN_CPUINFO_H
#define VORN_CPUINFO_H

#include "vorn_api.h"
#include "vorn_cpumask.h"

VORN_BEGIN_DECLS

#define VORN_CPUMODEL_SIZE 64u /* size of the model text in bytes, with its NUL */

/* Finds the machine's figures, once per process; vorn_Init calls this function. Runs `uname -p`.
 * Runs lscpu and other tools only if no process of the machine has done so yet: it waits up to a
 * second for a process that is doing it, and blocks until its tools end. Sets the process's umask
 * to 0 for a moment.
 *
 * If there are fewer NUMA nodes than packages, the number of packages is half the number of nodes,
 * with two nodes in each; a machine with one node has one package.
 * Returns 0, also if the figures cannot be shared. Logs errors and returns -1 if the nodes, the
 * model or the counts cannot be found; the next call tries again. */
VORN_API int cpuinfo_init(void);

/* Stores the figures of the process in the shared object, unless the object already holds valid
 * ones. Waits while another process stores its figures. Logs an error if the object cannot be
 * locked. This is a step of cpuinfo_init; before that has succeeded, it does nothing. */
VORN_API void save_cpuinfo_to_shm(void);

/* Stores the number of packages in *out.
 *   out: where the number goes
 * Returns 0; logs an error and returns -1 if out is NULL. */
VORN_API int vorn_get_phycpu_num(uint32_t *out);

/* Stores the number of logical CPUs in *out.
 *   out: where the number goes
 * Returns 0; logs an error and returns -1 if out is NULL. */
VORN_API int vorn_get_logic_cpu_num(uint32_t *out);

/* Stores the model, as `uname -p` prints it, in the VORN_CPUMODEL_SIZE bytes at out.
 *   out: where the model goes, VORN_CPUMODEL_SIZE bytes
 * Returns 0; logs an error and returns -1 if out is NULL. */
VORN_API int vorn_get_cpumodel_info(char *out);

/* Sets *mask to the CPUs of the NUMA nodes of a package.
 *   mask: where the CPUs go
 *   package: number of the package, from 0 on
 * Returns 0; logs an error and returns -1 if mask is NULL, there is no such package, or the CPUs of
 * a node cannot be read; in the last case *mask holds the CPUs of the nodes before it. Reads
 * /sys. */
VORN_API int vorn_get_cpumask_by_phycpu(cpumask *mask, uint32_t package);

VORN_END_DECLS

#endif
