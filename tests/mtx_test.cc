#include "vorn_mtx.h"

#include <cerrno>
#include <cstring>
#include <gtest/gtest.h>

// What the owner gets that locks once more tells the types apart; a normal mutex would hang.
TEST(Mtx, TypesAreTheSystemsOwn) {
  const struct {
    int type;
    int tried;
    int locked;
  } rows[] = {{VORN_MTX_NORMAL, EBUSY, -1}, {1, EBUSY, EDEADLK}, {2, 0, 0}};
  for (const auto &row : rows) {
    pthread_mutex_t mutex;
    ASSERT_EQ(vorn_mtx_init(&mutex, row.type), 0);
    ASSERT_EQ(vorn_mtx_destroy(&mutex), 0);
    ASSERT_EQ(vorn_mtx_init(&mutex, row.type), 0);
    ASSERT_EQ(pthread_mutex_lock(&mutex), 0);
    EXPECT_EQ(pthread_mutex_trylock(&mutex), row.tried) << row.type;
    if (row.type == VORN_MTX_NORMAL) continue;
    EXPECT_EQ(pthread_mutex_lock(&mutex), row.locked) << row.type;
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
