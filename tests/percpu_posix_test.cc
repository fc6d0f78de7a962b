#include "vorn_percpu_posix.h"

#include <cerrno>
#include <gtest/gtest.h>
#include <string>
#include <thread>
#include <vector>

#include "support/log_capture.hpp"

namespace {

int g_calls = 0;

TEST(PercpuPosix, OnceRunsOnce) {
  pthread_once_t once = PTHREAD_ONCE_INIT;
  for (int i = 0; i < 2; ++i)
    EXPECT_EQ(vorn_pthread_init_once(&once, [] { ++g_calls; }), 0);
  EXPECT_EQ(g_calls, 1);
}

TEST(PercpuPosix, AKeyHoldsAValueForEachThread) {
  pthread_key_t key;
  ASSERT_EQ(vorn_key_create(&key, [](void *value) { g_calls += *static_cast<int *>(value); }), 0);
  int mine = 1;
  int its = 10;
  EXPECT_EQ(vorn_key_setspecific(key, &mine), 0);
  std::thread([&] {
    EXPECT_EQ(vorn_key_getspecific(key), nullptr);
    EXPECT_EQ(vorn_key_setspecific(key, &its), 0);
    EXPECT_EQ(vorn_key_getspecific(key), &its);
  }).join();
  EXPECT_EQ(g_calls, 10);
  EXPECT_EQ(vorn_key_setspecific(key, nullptr), -1);
  EXPECT_EQ(vorn_key_getspecific(key), &mine);
  EXPECT_EQ(vorn_key_delete(key), 0);
  EXPECT_EQ(vorn_key_delete(key), EINVAL);
  const auto wanted = {"pthread_getspecific failed!\n", "param(value) is null !\n",
                       "pthread_key_delete failed!\n"};
  EXPECT_EQ(capture::take_texts(), std::vector<std::string>(wanted.begin(), wanted.end()));
}

} // namespace
