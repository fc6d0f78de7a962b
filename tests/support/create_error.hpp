// Defines pthread_create(3) for a test that wraps it: it fails with create_error unless that is 0.
// A program includes this once.
// SPDX-License-Identifier: Apache-2.0
#ifndef VORN_TESTS_CREATE_ERROR_HPP
#define VORN_TESTS_CREATE_ERROR_HPP

#include <atomic>
#include <pthread.h>

static std::atomic<int> create_error{0};

extern "C" {
int __real_pthread_create(pthread_t *id, const pthread_attr_t *attr, void *(*start)(void *),
                          void *argument);
int __wrap_pthread_create(pthread_t *id, const pthread_attr_t *attr, void *(*start)(void *),
                          void *argument) {
  const int error = create_error;
  return error != 0 ? error : __real_pthread_create(id, attr, start, argument);
}
}

#endif
