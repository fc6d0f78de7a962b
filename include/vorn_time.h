/* The time base, nanoseconds and milliseconds that the library reads from the processor's counter
 * in user space; and the time of day from the clock of the kernel module. No function here is a
 * cancellation point. */
/* SPDX-License-Identifier: Apache-2.0 */
#ifndef VORN_TIME_H
#define VORN_TIME_H

#include "vorn_api.h"

VORN_BEGIN_DECLS

/* The processor's nominal frequency in GHz, for information: 2.6 at start-up; after
 * vorn_get_tsc_freq, the value in /proc/cpuinfo; after vorn_estimate_tsc_freq, the measured
 * frequency of the counter. The library writes it without a lock: a concurrent reader sees the old
 * or the new value. */
VORN_API extern double currCpuGHz;

/* Starts the time base, once per process. vorn_Init calls this function.
 * Returns 0, also if the time base was already started. Any thread; blocks on another caller's
 * start; not signal-safe. */
VORN_API uint64_t vorn_gettime_init(void);

/* Sets currCpuGHz to 2.6 and computes the nanoseconds of a counter cycle as 10^9 / frequency,
 * truncated; 0 if the frequency is 0. If the frequency does not divide 10^9, the converted time is
 * slightly slow. This is the step of vorn_gettime_init.
 * Returns 0. */
VORN_API int vorn_CheckCurrCpu(void);

/* Returns the time of the counter in nanoseconds since an arbitrary start; 0 until the time base
 * has been started. All CPUs share the counter, which never goes back. The read is not ordered with
 * respect to neighbouring memory accesses: before a thread compares its time with that of another
 * thread, the two must synchronise. Neither locks nor enters the kernel (on x86-64, if the kernel
 * trusts the time-stamp counter). Any thread, signal-safe. */
VORN_API uint64_t vorn_time_getnanosec(void);

/* Returns the time of vorn_time_getnanosec in milliseconds, rounded down. Any thread,
 * signal-safe. */
VORN_API uint64_t vorn_time_getmillisec(void);

/* Returns that number of counter cycles in nanoseconds; 0 until the time base has been started. Any
 * thread, signal-safe.
 *   cycles: number of counter cycles */
VORN_API uint64_t vorn_time_cycles2ns(uint64_t cycles);

/* Sets currCpuGHz from /proc/cpuinfo, which it searches with a shell command: the number at the
 * start of the last word of the first line with an "@" (a model name may end in "@ 2.60GHz"). If no
 * line has an "@", calls vorn_estimate_tsc_freq.
 * Returns 0; if the processor does not have the flag constant_tsc (which no AArch64 processor has)
 * or no shell can be started, logs an error, leaves currCpuGHz unchanged and returns -1. Any
 * thread; blocks until the shell ends; not signal-safe. */
VORN_API int vorn_get_tsc_freq(void);

/* Measures the counter's frequency against CLOCK_MONOTONIC_RAW over a sleep of 50 ms, rounds it to
 * the nearest 10 MHz (a tie up), stores it in currCpuGHz and logs it. Any thread; not
 * signal-safe. */
VORN_API void vorn_estimate_tsc_freq(void);

/* --- The time of day ---
 *
 * These functions ask the node's kernel module; without the module, they use the system's clock
 * (CLOCK_REALTIME) and time zone (tzset(3), localtime_r(3)). A UTC time is in seconds since
 * 1970-01-01 00:00 UTC; a local time is in seconds since the local clock showed that date, so that
 * gmtime_r(3) can convert it. Any thread may call these functions; they are not signal-safe. They
 * return 0 and store the result. They log an error and return -1 if a pointer is NULL or the system
 * cannot convert the time. If the module refuses, they return its result, -1 with errno. */

/* Stores the current UTC time, with the nanoseconds of the second.
 *   seconds: where the seconds go
 *   nanoseconds: where the nanoseconds of the second go
 * Returns 0; logs an error and returns -1 if a pointer is NULL or the system cannot convert the
 * time; if the module refuses, its result, -1 with errno. */
VORN_API int vorn_time_gettime(int64_t *seconds, uint32_t *nanoseconds);

/* Stores the current local time, with the nanoseconds of the second.
 *   seconds: where the seconds go
 *   nanoseconds: where the nanoseconds of the second go
 * Returns 0; logs an error and returns -1 if a pointer is NULL or the system cannot convert the
 * time; if the module refuses, its result, -1 with errno. */
VORN_API int vorn_time_getlocaltime(int64_t *seconds, uint32_t *nanoseconds);

/* Converts a UTC time to local time.
 *   utc: UTC time in seconds
 *   local: where the local time goes
 * Returns 0; logs an error and returns -1 if a pointer is NULL or the system cannot convert the
 * time; if the module refuses, its result, -1 with errno. */
VORN_API int vorn_time_getlocal_fromutc(int64_t utc, int64_t *local);

/* Stores 1 in *dst if daylight-saving time applies at a UTC time; otherwise, 0.
 *   utc: UTC time in seconds
 *   dst: where 1 or 0 goes
 * Returns 0; logs an error and returns -1 if a pointer is NULL or the system cannot convert the
 * time; if the module refuses, its result, -1 with errno. */
VORN_API int vorn_time_getdst_fromutc(int64_t utc, int32_t *dst);

/* Stores 1 in *dst if daylight-saving time applies now; otherwise, 0. Stores the offset of local
 * time from UTC in seconds, positive in the east.
 *   dst: where 1 or 0 goes
 *   offset: where the offset from UTC goes
 * Returns 0; logs an error and returns -1 if a pointer is NULL or the system cannot convert the
 * time; if the module refuses, its result, -1 with errno. */
VORN_API int vorn_time_getdsttime(int32_t *dst, int32_t *offset);

/* Maximum number of characters in a zone's name. */
#define VORN_TIME_ZONE_NAME_LENGTH 63u

/* Stores the zone's name, length characters at name, in the process. Does not change a clock.
 *   name: name of the zone
 *   length: number of characters in the name
 * Returns 0; logs an error and returns -1 if name is NULL or longer than
 * VORN_TIME_ZONE_NAME_LENGTH. Any thread; not signal-safe. */
VORN_API int vorn_time_zone_name_set(const char *name, unsigned int length);

VORN_END_DECLS

#endif
