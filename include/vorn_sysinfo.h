/* The machine's CPUs, how busy they are, and its memory. One process of the machine, the one that
 * got the lock, samples the CPUs once a second, and all processes read its figures from shared
 * memory. Any thread may call; what is called signal-safe may be called in a signal handler. No
 * function here is a cancellation point. */
/* SPDX-License-Identifier: Apache-2.0 */
#ifndef VORN_SYSINFO_H
#define VORN_SYSINFO_H

#include "vorn_api.h"
#include "vorn_fileops.h"

VORN_BEGIN_DECLS

/* Attaches to the shared figures, made where they are missing, and starts the thread that takes
 * samples, unless this process takes them already; vorn_Init makes this call. The thread ends at
 * once, with two error messages, where another process samples: that one's successor is a process
 * that makes this call after its end. The item SYSINFO_CPUUSAGE_THREAD_FLAG of section VORN in the
 * registered INI files, where its value is 0, keeps this process from taking samples.
 *
 * Does nothing once it has succeeded.
 * Returns 0; -1 after an error message when the figures cannot be shared, as where the process may
 * not write to those that exist, or the thread not started. */
VORN_API int sysinfo_init(void);

/* Has the next sysinfo_init do its work again; vorn_destory makes this call. A process that takes
 * samples goes on, and the figures can be read as before. */
VORN_API void sysinfo_exit(void);

/* Returns how many CPUs are online (sysconf(3)), as they were when it was first known: CPUs that
 * are plugged later are not seen. 0 after an error message when the system does not tell. The first
 * call may block. */
VORN_API uint32_t vorn_sysinfo_cpu_num(void);

/* Returns how many CPUs are configured, online or not, as vorn_sysinfo_cpu_num does; without a log
 * message. */
VORN_API uint32_t vorn_sysinfo_present_cpu_num(void);

/* Returns how busy the whole machine was in the second before the last sample, in percent, waiting
 * for I/O included. 0 before sysinfo_init. The figures stay as they were while no process samples.
 * Signal-safe, and no lock is taken. */
VORN_API uint32_t vorn_sysinfo_cpu_usage(void);

/* Returns how busy the CPU *cpu was, as vorn_sysinfo_cpu_usage does; the whole machine where cpu is
 * NULL or there is no such CPU. Signal-safe, and no lock is taken.
 *   cpu: number of the CPU, or NULL for the whole machine */
VORN_API uint32_t vorn_sysinfo_core_usage(const uint32_t *cpu);

/* Copies the figures of the first count CPUs, of all where there are fewer, to data.
 *   data: where the figures go
 *   count: room at data
 * Returns how many, 0 before sysinfo_init; -1 after an error message when data is NULL. Signal-safe
 * with a data that is not NULL, and no lock is taken. */
VORN_API int vorn_get_cpu_usage_array(uint32_t *data, uint32_t count);

/* Returns how much of the machine's memory is not free, in percent; buffers and caches count as
 * used. 0 when the system does not tell. Signal-safe. */
VORN_API uint32_t vorn_sysinfo_mem_usage(void);

/* Returns the size of a cache line in bytes: 128. Signal-safe. */
VORN_API uint32_t vorn_get_cache_line_size(void);

/* --- Steps of sysinfo_init and of its thread --- */

/* Returns what vorn_sysinfo_present_cpu_num returns. */
VORN_API uint32_t sysinfo_get_cpu_num(void);

/* Maps the shared figures, once per process.
 * Returns 0; -1 after an error message. */
VORN_API int sysinfo_alloc_mem(void);

/* Does nothing: the figures outlive the process. */
VORN_API void sysinfo_free_mem(void);

/* Takes the lock of the one process that samples, without waiting.
 *   fd: where the descriptor goes
 *   lock: where the range goes
 * Returns 0 with the file's descriptor in *fd and what was locked in *lock; -1 after an error
 * message when the file cannot be opened, any process, this one included, has the lock (EAGAIN),
 * sysinfo_alloc_mem has not succeeded (ENXIO), or fd or lock is NULL. */
VORN_API int sysinfo_lock(int *fd, vorn_file_lock_s *lock);

/* Gives that lock back and closes fd.
 *   fd: descriptor that sysinfo_lock stored
 *   lock: range that sysinfo_lock stored
 * Returns 0; -1 when the system refuses, or after an error message when lock is NULL. */
VORN_API int sysinfo_unlock(int fd, const vorn_file_lock_s *lock);

/* Takes one sample. For the process that holds the lock.
 * Returns 0; -1 after an error message when /proc/stat cannot be read, or without one when its
 * first line or the shared figures are missing. */
VORN_API int sysinfo_update_all_cpu_usage(void);

/* The entry of the thread: takes the lock, then a sample a second until the process ends.
 *   unused: not used
 * Returns NULL, after an error message, where it does not get the lock. */
VORN_API void *sysinfo_calc_cpu_usage_thrd(void *unused);

VORN_END_DECLS

#endif
