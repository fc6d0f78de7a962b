/* The time base: nanoseconds and milliseconds from the processor's counter, read in user space. The
 * time of day on the clock of the kernel module. No function here is a cancellation point. */
/* SPDX-License-Identifier: Apache-2.0 */
#ifndef VORN_TIME_H
#define VORN_TIME_H

#include "vorn_api.h"

VORN_BEGIN_DECLS

/* The processor's nominal frequency in GHz, for information: 2.6 from start-up on, what
 * /proc/cpuinfo tells after vorn_get_tsc_freq, the measured frequency of the counter after
 * vorn_estimate_tsc_freq. Written without a lock: a concurrent reader sees the old or the new
 * value. */
VORN_API extern double currCpuGHz;

/* Starts the time base, once per process; vorn_Init calls it.
 * Returns 0, also when it had been started. Any thread; blocks on another caller's start; not
 * signal-safe. */
VORN_API uint64_t vorn_gettime_init(void);

/* Sets currCpuGHz to 2.6 and takes the nanoseconds of a counter tick from the counter's frequency:
 * 10^9 / frequency, truncated, so that a frequency which does not divide 10^9 makes every
 * conversion slightly slow; 0 when the frequency is 0.
 * Returns 0. The step that vorn_gettime_init makes. */
VORN_API int vorn_CheckCurrCpu(void);

/* Returns nanoseconds of the counter, from an arbitrary origin; 0 until the time base has been
 * started. The counter is one for all CPUs and never goes back. Its read is not ordered against
 * neighbouring memory accesses: a thread that compares with another's reading synchronises first.
 * Neither locks nor enters the kernel (x86-64: where the kernel trusts the time-stamp counter). Any
 * thread, signal-safe. */
VORN_API uint64_t vorn_time_getnanosec(void);

/* Returns milliseconds of the counter, as vorn_time_getnanosec, rounded down. Any thread,
 * signal-safe. */
VORN_API uint64_t vorn_time_getmillisec(void);

/* Returns the nanoseconds of that many counter ticks; 0 until the time base has been started. Any
 * thread, signal-safe.
 *   cycles: number of counter ticks */
VORN_API uint64_t vorn_time_cycles2ns(uint64_t cycles);

/* Takes currCpuGHz from /proc/cpuinfo, which it has the shell search: the number that the last word
 * of the first line with an "@" begins with (a model name may end in "@ 2.60GHz"). Where no line
 * has one, vorn_estimate_tsc_freq measures.
 * Returns 0; -1 after an error message, with currCpuGHz as it was, when the processor has no flag
 * constant_tsc, as no AArch64 has, or no shell can be started. Any thread; blocks for as long as
 * the shell takes; not signal-safe. */
VORN_API int vorn_get_tsc_freq(void);

/* Measures the counter's frequency against CLOCK_MONOTONIC_RAW over a sleep of 50 ms, rounds it to
 * the nearest 10 MHz (a tie goes up), stores it in currCpuGHz and logs it. Any thread; not
 * signal-safe. */
VORN_API void vorn_estimate_tsc_freq(void);

/* --- The time of day ---
 *
 * Each of these asks the node's kernel module, and answers from the system's clock (CLOCK_REALTIME)
 * and zone (tzset(3), localtime_r(3)) where there is no module. A time of UTC is in seconds since
 * 1970-01-01 00:00 UTC; a local one in seconds since the local clock showed that date, so that
 * gmtime_r(3) takes it apart. Any thread; not signal-safe. They return 0 with the answer stored; -1
 * after an error message when a pointer is NULL or the system's zone does not reach so far; else
 * what the module returned when it refused, -1 with errno. */

/* Stores the time of UTC, with the nanoseconds of the second.
 *   seconds: where the seconds go
 *   nanoseconds: where the nanoseconds of the second go
 * Returns 0; logs an error and returns -1 when a pointer is NULL or the system's zone does not
 * reach so far; else what the module returned when it refused, -1 with errno. */
VORN_API int vorn_time_gettime(int64_t *seconds, uint32_t *nanoseconds);

/* Stores the local time, with the nanoseconds of the second.
 *   seconds: where the seconds go
 *   nanoseconds: where the nanoseconds of the second go
 * Returns 0; logs an error and returns -1 when a pointer is NULL or the system's zone does not
 * reach so far; else what the module returned when it refused, -1 with errno. */
VORN_API int vorn_time_getlocaltime(int64_t *seconds, uint32_t *nanoseconds);

/* Stores the local time at a time of UTC.
 *   utc: time of UTC in seconds
 *   local: where the local time goes
 * Returns 0; logs an error and returns -1 when a pointer is NULL or the system's zone does not
 * reach so far; else what the module returned when it refused, -1 with errno. */
VORN_API int vorn_time_getlocal_fromutc(int64_t utc, int64_t *local);

/* Stores in *dst whether daylight-saving time applies at a time of UTC: 1 or 0.
 *   utc: time of UTC in seconds
 *   dst: where 1 or 0 goes
 * Returns 0; logs an error and returns -1 when a pointer is NULL or the system's zone does not
 * reach so far; else what the module returned when it refused, -1 with errno. */
VORN_API int vorn_time_getdst_fromutc(int64_t utc, int32_t *dst);

/* Stores whether daylight-saving time applies now, and the local clock's offset from UTC in
 * seconds, positive in the east.
 *   dst: where 1 or 0 goes
 *   offset: where the offset from UTC goes
 * Returns 0; logs an error and returns -1 when a pointer is NULL or the system's zone does not
 * reach so far; else what the module returned when it refused, -1 with errno. */
VORN_API int vorn_time_getdsttime(int32_t *dst, int32_t *offset);

/* The most characters of a zone's name. */
#define VORN_TIME_ZONE_NAME_LENGTH 63u

/* Keeps the zone's name, length characters at name, in the process. It changes no clock.
 *   name: name of the zone
 *   length: characters of the name
 * Returns 0; -1 after an error message when name is NULL or longer than VORN_TIME_ZONE_NAME_LENGTH.
 * Any thread; not signal-safe. */
VORN_API int vorn_time_zone_name_set(const char *name, unsigned int length);

VORN_END_DECLS

#endif
