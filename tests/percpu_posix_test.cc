// Tests once-only initialisation and thread-specific values.
// SPDX-License-Identifier: Apache-2.0
#include "vorn_percpu_posix.h"

#include <cerrno>
#include <gtest/gtest.h>
#include <string>
#include <thread>
#include <vector>

#include "support/log_capture.hpp"

namespace {

TEST(PercpuPosix, OnceRunsOnceAndAKeyHoldsAValueForEachThread) {
  static int calls = 0;
  pthread_once_t once = PTHREAD_ONCE_INIT;
  for (int i = 0; i < 2; ++i)
    EXPECT_EQ(vorn_pthread_init_once(&once, [] { ++calls; }), 0);
  EXPECT_EQ(calls, 1);

  pthread_key_t key;
  ASSERT_EQ(vorn_key_create(&key, [](void *value) { *static_cast<int *>(value) = 7; }), 0);
  int mine = 1, its = 1;
  EXPECT_EQ(vorn_key_setspecific(key, &mine), 0);
  std::thread([&] {
    EXPECT_EQ(vorn_key_getspecific(key), nullptr);
    EXPECT_EQ(vorn_key_setspecific(key, &its), 0);
  }).join();
  EXPECT_EQ(its, 7);
  EXPECT_EQ(vorn_key_setspecific(key, nullptr), -1);
  EXPECT_EQ(vorn_key_getspecific(key), &mine);
  EXPECT_EQ(vorn_key_delete(key), 0);
  EXPECT_EQ(vorn_key_delete(key), EINVAL);
  EXPECT_EQ(capture::take_lines(), (std::vector<std::string>{"E pthread_getspecific failed!\n",
                                                             "E param(value) is null !\n",
                                                             "E pthread_key_delete failed!\n"}));
}

} // namespace
