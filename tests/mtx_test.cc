#include "vorn_mtx.h"

#include <cerrno>
#include <cstring>
#include <gtest/gtest.h>

namespace {

// What the owner gets that locks once more tells the types apart.
TEST(Mtx, TypesAreTheSystemsOwn) {
  struct Row {
    int type;
    int again;
  };
  for (const Row &row : {Row{0, EBUSY}, Row{1, EBUSY}, Row{2, 0}}) {
    pthread_mutex_t mutex;
    ASSERT_EQ(vorn_mtx_init(&mutex, row.type), 0);
    ASSERT_EQ(pthread_mutex_lock(&mutex), 0);
    EXPECT_EQ(pthread_mutex_trylock(&mutex), row.again) << row.type;
    if (row.again == 0) pthread_mutex_unlock(&mutex);
    const int locked = row.type == 1 ? pthread_mutex_lock(&mutex) : EDEADLK;
    EXPECT_EQ(locked, EDEADLK);
    pthread_mutex_unlock(&mutex);
    EXPECT_EQ(vorn_mtx_destroy(&mutex), 0);
  }
}

TEST(Mtx, OtherTypesLeaveTheMutexAlone) {
  pthread_mutex_t mutex;
  std::memset(&mutex, 0x5A, sizeof mutex);
  const pthread_mutex_t before = mutex;
  for (const int type : {-1, 3, 4})
    EXPECT_EQ(vorn_mtx_init(&mutex, type), -1);
  EXPECT_EQ(std::memcmp(&mutex, &before, sizeof mutex), 0);
}

} // namespace
