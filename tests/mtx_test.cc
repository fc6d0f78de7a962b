// Tests mutexes by kind.
// SPDX-License-Identifier: Apache-2.0
#include "vorn_mtx.h"

#include <cerrno>
#include <cstring>
#include <gtest/gtest.h>
#include <utility>

// The types differ in the result of a second lock by the owner.
TEST(Mtx, TypesAreThoseOfTheSystem) {
  for (const auto &[type, again] : {std::pair{0, EBUSY}, {1, EBUSY}, {2, 0}}) {
    pthread_mutex_t mutex;
    ASSERT_EQ(vorn_mtx_init(&mutex, type), 0);
    ASSERT_EQ(pthread_mutex_lock(&mutex), 0);
    EXPECT_EQ(pthread_mutex_trylock(&mutex), again) << type;
    const int locked = type == 1 ? pthread_mutex_lock(&mutex) : EDEADLK;
    EXPECT_EQ(locked, EDEADLK);
    if (type == 2) pthread_mutex_unlock(&mutex);
    pthread_mutex_unlock(&mutex);
    EXPECT_EQ(vorn_mtx_destroy(&mutex), 0);
  }
}

TEST(Mtx, OtherTypesLeaveTheMutexUnchanged) {
  pthread_mutex_t mutex;
  std::memset(&mutex, 0x5A, sizeof mutex);
  const pthread_mutex_t before = mutex;
  for (const int type : {-1, 3, 4})
    EXPECT_EQ(vorn_mtx_init(&mutex, type), -1);
  EXPECT_EQ(std::memcmp(&mutex, &before, sizeof mutex), 0);
}
