// test-wraps: pthread_once
#include "vorn_percpu_posix.h"

#include <cerrno>
#include <gtest/gtest.h>
#include <string>
#include <thread>
#include <vector>

#include "support/log_capture.hpp"

static int g_once_result = 0;

extern "C" {

int __real_pthread_once(pthread_once_t *once, void (*init)());

int __wrap_pthread_once(pthread_once_t *once, void (*init)()) {
  return g_once_result != 0 ? g_once_result : __real_pthread_once(once, init);
}
}

namespace {

constexpr char kFile[] = "vorn_percpu_posix.c";

int g_calls = 0;
void count() { ++g_calls; }
void count_value(void *value) { g_calls += *static_cast<int *>(value); }

TEST(PercpuPosix, OnceRunsOnceAndReportsAFailure) {
  pthread_once_t once = PTHREAD_ONCE_INIT;
  EXPECT_EQ(vorn_pthread_init_once(&once, count), 0);
  EXPECT_EQ(vorn_pthread_init_once(&once, count), 0);
  EXPECT_EQ(g_calls, 1);
  EXPECT_NO_RECORD();
  g_once_result = EINVAL;
  EXPECT_EQ(vorn_pthread_init_once(&once, count), EINVAL);
  EXPECT_ONE_RECORD(3, kFile, "vorn_pthread_init_once", "pthread_once failed!\n");
}

TEST(PercpuPosix, AKeyHoldsAValueForEachThread) {
  pthread_key_t key;
  ASSERT_EQ(vorn_key_create(&key, count_value), 0);
  int mine = 1;
  int its = 10;
  EXPECT_EQ(vorn_key_setspecific(key, &mine), 0);
  std::thread([&] {
    EXPECT_EQ(vorn_key_setspecific(key, &its), 0);
    EXPECT_EQ(vorn_key_getspecific(key), &its);
  }).join();
  EXPECT_EQ(g_calls, 10);
  EXPECT_EQ(vorn_key_getspecific(key), &mine);
  EXPECT_EQ(vorn_key_delete(key), 0);
  EXPECT_NO_RECORD();
}

TEST(PercpuPosix, ReportsWhatIsRefusedAndWhatIsMissing) {
  pthread_key_t key;
  ASSERT_EQ(vorn_key_create(&key, nullptr), 0);
  EXPECT_EQ(vorn_key_getspecific(key), nullptr);
  int value = 0;
  EXPECT_EQ(vorn_key_setspecific(key, &value), 0);
  EXPECT_EQ(vorn_key_setspecific(key, nullptr), -1);
  EXPECT_EQ(vorn_key_getspecific(key), &value);
  EXPECT_EQ(vorn_key_delete(key), 0);
  EXPECT_EQ(vorn_key_delete(key), EINVAL);
  const auto wanted = {"pthread_getspecific failed!\n", "param(value) is null !\n",
                       "pthread_key_delete failed!\n"};
  EXPECT_EQ(capture::take_texts(), std::vector<std::string>(wanted.begin(), wanted.end()));
}

} // namespace
