/* Wrappers of the dynamic loader's functions: dlopen(3), dlsym(3), dlerror(3) and dlclose(3). Any
 * thread may call them. They take the loader's lock, run the constructors and destructors of the
 * objects, and are not safe in a signal handler.
 *
 * The loader treats libvorn.so as the caller: RTLD_NEXT searches the objects after it, and the
 * loader searches for a name without a slash with its run path. Constructors and destructors may
 * contain cancellation points. */
/* SPDX-License-Identifier: Apache-2.0 */
#ifndef VORN_DL_H
#define VORN_DL_H

#include "vorn_api.h"

VORN_BEGIN_DECLS

/* Loads the object called path; if path is NULL, opens the program itself. flags is RTLD_LAZY or
 * RTLD_NOW, combined with other flags.
 *   path: path of the object, or NULL for the program
 *   flags: RTLD_LAZY or RTLD_NOW, combined with other flags
 * Returns the object's handle, which the caller closes; NULL on failure. */
VORN_API void *vorn_dlopen(const char *path, int flags);

/* Returns the address of symbol in the object of handle (or RTLD_DEFAULT, RTLD_NEXT); NULL if there
 * is none or its address is NULL: vorn_dlerror tells which.
 *   handle: handle that vorn_dlopen returned
 *   symbol: name to look up */
VORN_API void *vorn_dlsym(void *handle, const char *symbol);

/* Returns a text that describes the last failure in the calling thread; NULL if nothing has failed
 * since the last call. The loader owns the text, which is valid until the thread's next call of one
 * of these functions. */
VORN_API char *vorn_dlerror(void);

/* Closes a handle. The loader unloads the object with its last handle.
 *   handle: handle that vorn_dlopen returned
 * Returns 0; another value on failure. */
VORN_API int vorn_dlclose(void *handle);

VORN_END_DECLS

#endif
