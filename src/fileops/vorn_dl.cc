// Opens shared libraries and looks their symbols up.
// SPDX-License-Identifier: Apache-2.0
#include "vorn_dl.h"

#include <dlfcn.h>

void *vorn_dlopen(const char *path, int flags) { return dlopen(path, flags); }

void *vorn_dlsym(void *handle, const char *symbol) { return dlsym(handle, symbol); }

char *vorn_dlerror() { return dlerror(); }

int vorn_dlclose(void *handle) { return dlclose(handle); }
