/* The dynamic loader's functions, passed through: dlopen(3), dlsym(3), dlerror(3), dlclose(3). Any
 * thread may call; they take the loader's lock, run the constructors and destructors of the objects
 * and are not safe in a signal handler.
 *
 * The loader takes libvorn.so for the caller: RTLD_NEXT searches after it, and a name without a
 * slash is searched by its run path. What they run may hold cancellation points. */
/* SPDX-License-Identifier: Apache-2.0 */
#ifndef VORN_DL_H
#define VORN_DL_H

#include "vorn_api.h"

VORN_BEGIN_DECLS

/* Loads the object called path, or gives the program itself when path is NULL. flags are RTLD_LAZY
 * or RTLD_NOW, with others.
 *   path: path of the object, or NULL for the program
 *   flags: RTLD_LAZY or RTLD_NOW, with others
 * Returns the object's handle, which the caller closes; or NULL. */
VORN_API void *vorn_dlopen(const char *path, int flags);

/* Returns the address of symbol in the object of handle (or RTLD_DEFAULT, RTLD_NEXT); NULL when
 * there is none, or it is NULL: vorn_dlerror tells the two apart.
 *   handle: handle that vorn_dlopen returned
 *   symbol: name to look up */
VORN_API void *vorn_dlsym(void *handle, const char *symbol);

/* Returns a text about what failed last in the calling thread; NULL when nothing has since the last
 * call. The text is the loader's and holds until the thread's next call of one of these functions.
 */
VORN_API char *vorn_dlerror(void);

/* Gives a handle back; the object goes with its last handle.
 *   handle: handle that vorn_dlopen returned
 * Returns 0, or another value. */
VORN_API int vorn_dlclose(void *handle);

VORN_END_DECLS

#endif
