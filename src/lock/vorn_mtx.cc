// Creates and destroys mutexes of the C library by kind.
// SPDX-License-Identifier: Apache-2.0
#include "vorn_mtx.h"

namespace vorn::mtx {
namespace {

constexpr int kUnknownType = -1;

int posix_type(int type) {
  switch (type) {
  case VORN_MTX_NORMAL:
    return PTHREAD_MUTEX_NORMAL;
  case VORN_MTX_ERRORCHECK:
    return PTHREAD_MUTEX_ERRORCHECK;
  case VORN_MTX_RECURSIVE:
    return PTHREAD_MUTEX_RECURSIVE;
  default:
    return kUnknownType;
  }
}

} // namespace
} // namespace vorn::mtx

using namespace vorn::mtx;

int vorn_mtx_init(pthread_mutex_t *mutex, int type) {
  const int posix = posix_type(type);
  if (posix == kUnknownType) return -1;
  pthread_mutexattr_t attributes;
  pthread_mutexattr_init(&attributes);
  pthread_mutexattr_settype(&attributes, posix);
  const int result = pthread_mutex_init(mutex, &attributes);
  pthread_mutexattr_destroy(&attributes);
  return result;
}

int vorn_mtx_destroy(pthread_mutex_t *mutex) { return pthread_mutex_destroy(mutex); }
