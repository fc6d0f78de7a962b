// Defines open(2) for a target that wraps it: redirected_path opens fuzz::file().
// SPDX-License-Identifier: Apache-2.0
#ifndef VORN_FUZZ_REDIRECT_HPP
#define VORN_FUZZ_REDIRECT_HPP

#include <cstring>

#include "fuzz/harness.hpp"

static const char *redirected_path = "";

extern "C" {
int __real_open(const char *path, int flags, mode_t mode);
int __wrap_open(const char *path, int flags, mode_t mode) {
  const bool ours = std::strcmp(path, redirected_path) == 0;
  return __real_open(ours ? fuzz::file().path() : path, flags, mode);
}
}

#endif
