/* The CPU usage and the memory usage of the machine. One process of the machine, which holds a
 * lock, samples the CPUs once a second, and all processes read its figures from shared memory. Any
 * thread may call these functions; only those marked signal-safe are safe in a signal handler. No
 * function here is a cancellation point. */
/* SPDX-License-Identifier: Apache-2.0 */
#ifndef VORN_SYSINFO_H
#define VORN_SYSINFO_H

#include "vorn_api.h"
#include "vorn_fileops.h"

VORN_BEGIN_DECLS

/* Attaches to the shared figures, which it creates if they are missing, and starts the thread that
 * takes samples, unless this process already takes them. vorn_Init calls this function. If another
 * process takes samples, the thread logs two errors and ends immediately. When that process ends,
 * the next process that calls this function takes over. If the item SYSINFO_CPUUSAGE_THREAD_FLAG of
 * section VORN in the registered INI files is 0, this process takes no samples.
 *
 * After a success, further calls do nothing.
 * Returns 0; logs an error and returns -1 if the figures cannot be shared, for example because the
 * process may not write to them, or the thread cannot be started. */
VORN_API int sysinfo_init(void);

/* Makes the next sysinfo_init do its work again. vorn_destory calls this function. A process that
 * takes samples continues, and the figures stay readable. */
VORN_API void sysinfo_exit(void);

/* Returns the number of online CPUs (sysconf(3)) at the time when it was first read: the function
 * does not notice CPUs that are plugged in later. If the number cannot be read, logs an error and
 * returns 0. The first call may block. */
VORN_API uint32_t vorn_sysinfo_cpu_num(void);

/* Returns the number of configured CPUs, online or not, as vorn_sysinfo_cpu_num does, but without a
 * log message. */
VORN_API uint32_t vorn_sysinfo_present_cpu_num(void);

/* Returns the CPU usage of the whole machine in the second before the last sample, in percent,
 * including the wait for I/O; 0 before sysinfo_init. The figures do not change while no process
 * takes samples. Signal-safe, and takes no lock. */
VORN_API uint32_t vorn_sysinfo_cpu_usage(void);

/* Returns the usage of the CPU *cpu, as vorn_sysinfo_cpu_usage does; the usage of the whole machine
 * if cpu is NULL or there is no such CPU. Signal-safe, and takes no lock.
 *   cpu: number of the CPU, or NULL for the whole machine */
VORN_API uint32_t vorn_sysinfo_core_usage(const uint32_t *cpu);

/* Copies the usage of the first count CPUs, or of all CPUs if there are fewer, to data.
 *   data: where the figures go
 *   count: number of elements at data
 * Returns the number of figures; 0 before sysinfo_init; logs an error and returns -1 if data is
 * NULL. Signal-safe if data is not NULL, and takes no lock. */
VORN_API int vorn_get_cpu_usage_array(uint32_t *data, uint32_t count);

/* Returns the used share of the machine's memory in percent; buffers and caches count as used. The
 * result is 0 if it cannot be read. Signal-safe. */
VORN_API uint32_t vorn_sysinfo_mem_usage(void);

/* Returns the size of a cache line in bytes: 128. Signal-safe. */
VORN_API uint32_t vorn_get_cache_line_size(void);

/* --- Steps of sysinfo_init and of its thread --- */

/* Returns what vorn_sysinfo_present_cpu_num returns. */
VORN_API uint32_t sysinfo_get_cpu_num(void);

/* Maps the shared figures, once per process.
 * Returns 0; on failure, logs an error and returns -1. */
VORN_API int sysinfo_alloc_mem(void);

/* Does nothing: the figures outlive the process. */
VORN_API void sysinfo_free_mem(void);

/* Takes the lock of the process that samples, without waiting.
 *   fd: where the descriptor goes
 *   lock: where the locked range goes
 * Returns 0 and stores the file's descriptor in *fd and the locked range in *lock. Logs an error
 * and returns -1 if the file cannot be opened, if a process (this one included) holds the lock
 * (EAGAIN), if sysinfo_alloc_mem has not succeeded (ENXIO), or if fd or lock is NULL. */
VORN_API int sysinfo_lock(int *fd, vorn_file_lock_s *lock);

/* Releases the lock and closes fd.
 *   fd: descriptor that sysinfo_lock stored
 *   lock: range that sysinfo_lock stored
 * Returns 0; -1 if the system refuses; logs an error and returns -1 if lock is NULL. */
VORN_API int sysinfo_unlock(int fd, const vorn_file_lock_s *lock);

/* Takes one sample. Only the process that holds the lock may call this function.
 * Returns 0; -1 if the first line of /proc/stat or the shared figures are missing; logs an error
 * and returns -1 if /proc/stat cannot be read. */
VORN_API int sysinfo_update_all_cpu_usage(void);

/* The thread function: takes the lock, and then one sample a second until the process ends.
 *   unused: not used
 * Returns NULL, after it has logged an error, if it does not get the lock. */
VORN_API void *sysinfo_calc_cpu_usage_thrd(void *unused);

VORN_END_DECLS

#endif
