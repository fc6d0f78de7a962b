// Replaces the accounting allocator's entry of the C++ modules: counts the live blocks, and lets an
// allocation fail. A program includes this once, and wraps vorn_mallocsubproc and vorn_freesub.
// SPDX-License-Identifier: Apache-2.0
#ifndef VORN_TESTS_ALLOCATION_HPP
#define VORN_TESTS_ALLOCATION_HPP

#include <atomic>
#include <climits>
#include <functional>
#include <gtest/gtest.h>

#include "vorn_mem.h"

static std::atomic<long> live_blocks{0};
static std::atomic<long> until_failure{LONG_MAX};    // the allocations before the first that fails
static long failing = LONG_MAX;                      // the allocations that fail in a row
static std::function<void()> beside_failure = [] {}; // called by an allocation that fails

inline bool fails_now() {
  const long left = until_failure.fetch_sub(1);
  return left <= 0 && left > -failing;
}

extern "C" {
decltype(vorn_mallocsubproc) __real_vorn_mallocsubproc;
void *__wrap_vorn_mallocsubproc(unsigned int size, unsigned int *type, unsigned long flags,
                                unsigned int pid, const char *function, unsigned int line) {
  EXPECT_EQ(pid, 381u);
  if (fails_now()) return beside_failure(), nullptr;
  ++live_blocks;
  return __real_vorn_mallocsubproc(size, type, flags, pid, function, line);
}

decltype(vorn_freesub) __real_vorn_freesub;
void __wrap_vorn_freesub(void *block, const char *function, unsigned int line) {
  --live_blocks;
  __real_vorn_freesub(block, function, line);
}
}

#endif
