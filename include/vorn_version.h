/* The version of Vorn: macros for the version of these headers, and a function for the version of
 * the loaded library. docs/compatibility.md says what may change between versions. No function here
 * is a cancellation point. */
/* SPDX-License-Identifier: Apache-2.0 */
#ifndef VORN_VERSION_H
#define VORN_VERSION_H

#include "vorn_api.h"

VORN_BEGIN_DECLS

/* The version of these headers. The build, the packages and the documents take their version from
 * here. */
#define VORN_VERSION_MAJOR 0
#define VORN_VERSION_MINOR 1
#define VORN_VERSION_PATCH 0
#define VORN_VERSION_STRING "0.1.0"

/* True if the version of these headers is major.minor.patch or later. Usable in #if. */
#define VORN_VERSION_AT_LEAST(major, minor, patch)                                                 \
  (VORN_VERSION_MAJOR > (major) ||                                                                 \
   (VORN_VERSION_MAJOR == (major) &&                                                               \
    (VORN_VERSION_MINOR > (minor) ||                                                               \
     (VORN_VERSION_MINOR == (minor) && VORN_VERSION_PATCH >= (patch)))))

/* Gets the version of the loaded library: the VORN_VERSION_STRING with which it was built, which
 * after an upgrade is newer than that of the caller. Any thread, also before vorn_Init;
 * signal-safe.
 * Returns a text such as "0.1.0", valid until the process ends. */
VORN_API const char *vorn_version(void);

VORN_END_DECLS

#endif
