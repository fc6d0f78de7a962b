/* Frequency control of the CPUs. */
#ifndef VORN_CPUFREQ_H
#define VORN_CPUFREQ_H

#include "vorn_api.h"

VORN_BEGIN_DECLS

/* Reads which frequency policies the machine offers (/sys/devices/system/cpu/cpufreq) and their
 * ranges, and logs what it found. A machine that offers none, as most virtual ones do, is no
 * failure. Returns 0. vorn_Init makes this call. Any thread; blocks on the file system; not
 * signal-safe. */
VORN_API int vorn_cpufreq_init(void);

VORN_END_DECLS

#endif
