// Tests affinity levels.
// SPDX-License-Identifier: Apache-2.0
#include "vorn_affinity.h"

#include <cstring>
#include <gtest/gtest.h>
#include <string>
#include <thread>

#include "evlog.h"
#include "support/log_capture.hpp"
#include "vorn_cst.h"

// Replace the library's process name, configuration store and binding.
static const char *process = "app_data";
static const char *item = "1,3,1024,,-1,4294967298,1023,x";
static int bind_result = 0;
static std::string bound;

int vorn_get_process_name(char *buf, unsigned int len) {
  EXPECT_EQ(len, 32u);
  if (process == nullptr) return -1;
  std::strcpy(buf, process);
  return 0;
}

int vorn_cst_getItem(const char *section, const char *name, char *out, uint32_t out_size) {
  EXPECT_STREQ(section, "affinity_level_1");
  EXPECT_STREQ(name, "THREAD_CPU_AFFINITY_LIST");
  EXPECT_EQ(out_size, 256u);
  if (item == nullptr) return -1;
  std::strcpy(out, item);
  return 0;
}

int vorn_thrd_setbindcpu(pthread_t thread, const unsigned char *cpuset) {
  EXPECT_EQ(thread, pthread_self());
  bound.assign(reinterpret_cast<const char *>(cpuset), VORN_THRD_CPUSET_SIZE);
  return bind_result;
}

namespace {

constexpr char kLevel[] = "affinity_level_1";

TEST(Affinity, ThreadsAreBoundToTheLevel) {
  std::thread reader([] { // sees the whole level or none
    const vorn_affinity_level_s *level = nullptr;
    while ((level = vorn_get_affinity_entity(kLevel)) == nullptr)
      std::this_thread::yield();
    EXPECT_EQ(level->cpuset[15], 1ul << 63);
    EXPECT_STREQ(level->name, kLevel);
  });
  EXPECT_EQ(vorn_affinity_init(), 0);
  reader.join();
  item = "9";
  ASSERT_EQ(vorn_affinity_init(), 0);
  EXPECT_EQ(vorn_set_thread_affinity(pthread_self(), kLevel), 0);
  std::string expected(VORN_THRD_CPUSET_SIZE, '\0');
  expected[0] = 0x0B; // 0, 1 and 3
  expected[127] = '\x80';
  EXPECT_EQ(bound, expected);
  EXPECT_NO_MESSAGE();
  bind_result = -1;
  EXPECT_EQ(vorn_set_thread_affinity(pthread_self(), kLevel), -1);
  EXPECT_ONE_MESSAGE(EVLOG_INFO, "vorn_affinity.c", "vorn_set_thread_affinity",
                     "vorn_thrd_setbindcpu for tid(" + std::to_string(pthread_self()) +
                         ") with(affinity_level_1) failed.");
}

TEST(Affinity, AnotherProcessHasNoLevel) {
  process = "app_data2";
  EXPECT_EQ(capture::traced(vorn_affinity_init()), "0");
  EXPECT_EQ(vorn_set_thread_affinity(pthread_self(), kLevel), 0);
  EXPECT_EQ(bound, "");
}

TEST(Affinity, AsksAgainForAMissingNameButNotForAMissingItem) {
  process = item = nullptr;
  EXPECT_EQ(capture::traced(vorn_affinity_init()),
            "-1; vorn_affinity_init: vorn_get_process_name failed, can't set affinity.");
  process = "app_data";
  EXPECT_EQ(capture::traced(vorn_affinity_init()),
            "0; vorn_parse_affinity_level: Can not find the item(THREAD_CPU_AFFINITY_LIST) in "
            "section(affinity_level_1).");
  for (const char *name : {kLevel, "other", ""})
    EXPECT_EQ(vorn_set_thread_affinity(pthread_self(), name), 0);
  EXPECT_EQ(vorn_set_thread_affinity(pthread_self(), nullptr), -1);
  EXPECT_EQ(vorn_get_affinity_entity(""), nullptr);
  EXPECT_EQ(bound, "");
}

} // namespace
