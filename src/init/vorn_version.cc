// Returns the version of the library.
// SPDX-License-Identifier: Apache-2.0
#include "vorn_version.h"

const char *vorn_version() { return VORN_VERSION_STRING; }
