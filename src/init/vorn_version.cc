// The version of the library.
#include "vorn_version.h"

const char *vorn_version() { return VORN_VERSION_STRING; }
