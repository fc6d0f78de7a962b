/* What the machine is made of. No function here is a cancellation point. */
#ifndef VORN_SYSINFO_H
#define VORN_SYSINFO_H

#include "vorn_api.h"

VORN_BEGIN_DECLS

/* The CPUs that are online (sysconf(3)), as they were when it was first known: CPUs that are
 * plugged later are not seen. 0 after an error record when the system does not tell. Any thread;
 * the first call may block. */
VORN_API uint32_t vorn_sysinfo_cpu_num(void);

VORN_END_DECLS

#endif
