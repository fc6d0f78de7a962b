/* The version of Vorn: of these headers by macros, of the loaded library by a function. What may
 * change from one version to the next is promised in docs/compatibility.md. No function here is a
 * cancellation point. */
/* SPDX-License-Identifier: Apache-2.0 */
#ifndef VORN_VERSION_H
#define VORN_VERSION_H

#include "vorn_api.h"

VORN_BEGIN_DECLS

/* The version of these headers; the build, the packages and the documents take theirs from here. */
#define VORN_VERSION_MAJOR 0
#define VORN_VERSION_MINOR 1
#define VORN_VERSION_PATCH 0
#define VORN_VERSION_STRING "0.1.0"

/* True when these headers are of version major.minor.patch or later; usable in #if. */
#define VORN_VERSION_AT_LEAST(major, minor, patch)                                                 \
  (VORN_VERSION_MAJOR > (major) ||                                                                 \
   (VORN_VERSION_MAJOR == (major) &&                                                               \
    (VORN_VERSION_MINOR > (minor) ||                                                               \
     (VORN_VERSION_MINOR == (minor) && VORN_VERSION_PATCH >= (patch)))))

/* The version of the loaded library: the VORN_VERSION_STRING that it was built with, newer than the
 * caller's after an upgrade. Any thread, before vorn_Init too; signal-safe.
 * Returns a text such as "0.1.0", valid until the process ends. */
VORN_API const char *vorn_version(void);

VORN_END_DECLS

#endif
