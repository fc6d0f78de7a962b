#include "vorn_process.h"

#include <gtest/gtest.h>
#include <string>
#include <thread>
#include <vector>

namespace {

TEST(ModuleNames, KnowsRowsGapsAndIdsOutOfRange) {
  EXPECT_STREQ(vorn_pid_get_name(381), "OSAX");
  EXPECT_STREQ(vorn_pid_get_name(1023), "NONE");
  EXPECT_STREQ(vorn_pid_get_name(1024), "<1024>");
  EXPECT_STREQ(vorn_pid_get_name(70000), "<4464>");
  EXPECT_STREQ(vorn_pid_get_name(65535), "<65535>");
  EXPECT_STREQ(vorn_pid_get_name(65536), "<0>");
}

TEST(ModuleNames, OutOfRangeNameIsTheThreadsOwn) {
  const char *mine = vorn_pid_get_name(1024);
  std::thread([] { EXPECT_STREQ(vorn_pid_get_name(2000), "<2000>"); }).join();
  EXPECT_STREQ(mine, "<1024>");
}

TEST(ModuleNames, GivenNamesGoWithTheTableAndRowsComeBack) {
  const char name[] = "MINE";
  vorn_pid_set_name(5, name);
  vorn_pid_set_name(381, name);
  EXPECT_EQ(vorn_pid_get_name(5), name); // the pointer, not a copy
  pid_init_names();                      // built already: nothing changes
  EXPECT_EQ(vorn_pid_get_name(381), name);
  pid_destroy_names();
  pid_destroy_names();
  EXPECT_STREQ(vorn_pid_get_name(5), "NONE");
  EXPECT_STREQ(vorn_pid_get_name(381), "OSAX");
}

TEST(ModuleNames, AreAlwaysWholeWhileOthersClearAndName) {
  std::thread clearing([] {
    for (int i = 0; i < 300; ++i)
      pid_destroy_names();
  });
  std::thread naming([] {
    for (int i = 0; i < 3000; ++i)
      vorn_pid_set_name(7, i % 2 == 0 ? "EVEN" : "ODD");
  });
  for (int i = 0; i < 3000; ++i) {
    const std::string name = vorn_pid_get_name(7);
    ASSERT_TRUE(name == "NONE" || name == "EVEN" || name == "ODD") << name;
  }
  clearing.join();
  naming.join();
}

TEST(ProcessVersion, IsTakenOnce) {
  std::vector<uint64_t> stamps(4);
  std::vector<std::thread> threads;
  for (auto &stamp : stamps)
    threads.emplace_back([&stamp] { stamp = ps_get_version(); });
  for (auto &thread : threads)
    thread.join();
  EXPECT_NE(stamps[0], 0u);
  for (const uint64_t stamp : stamps)
    EXPECT_EQ(stamp, ps_get_version());
}

} // namespace
