// Wraps the C library's once-only initialisation and thread-specific data, and logs failures.
// SPDX-License-Identifier: Apache-2.0
#include "vorn_percpu_posix.h"

#include "base/log.hpp"

int vorn_pthread_init_once(pthread_once_t *once, void (*init)(void)) {
  const int result = pthread_once(once, init);
  return result == 0 ? 0 : VORN_FAIL(result, "pthread_once failed!\n");
}

int vorn_key_create(pthread_key_t *key, void (*destructor)(void *)) {
  const int result = pthread_key_create(key, destructor);
  return result == 0 ? 0 : VORN_FAIL(result, "pthread_key_create failed!\n");
}

int vorn_key_delete(pthread_key_t key) {
  const int result = pthread_key_delete(key);
  return result == 0 ? 0 : VORN_FAIL(result, "pthread_key_delete failed!\n");
}

int vorn_key_setspecific(pthread_key_t key, const void *value) {
  if (value == nullptr) return VORN_FAIL(-1, "param(value) is null !\n");
  const int result = pthread_setspecific(key, value);
  return result == 0 ? 0 : VORN_FAIL(result, "pthread_setspecific failed!\n");
}

void *vorn_key_getspecific(pthread_key_t key) {
  void *value = pthread_getspecific(key);
  return value != nullptr ? value : VORN_FAIL(nullptr, "pthread_getspecific failed!\n");
}
