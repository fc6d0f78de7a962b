// Declares the functions of GLib's thread pool, whose headers are not in the compiler's include
// path.
// SPDX-License-Identifier: Apache-2.0
#ifndef VORN_BENCH_GLIB_POOL_HPP
#define VORN_BENCH_GLIB_POOL_HPP

extern "C" {
struct GThreadPool;
GThreadPool *g_thread_pool_new(void (*function)(void *, void *), void *user_data, int max_threads,
                               int exclusive, void **error);
int g_thread_pool_push(GThreadPool *, void *data, void **error);
}

#endif
