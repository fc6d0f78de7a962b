#include "vorn_process.h"

#include <gtest/gtest.h>
#include <string>
#include <thread>
#include <vector>

#include "evlog.h"
#include "support/log_capture.hpp"
#include "support/scratch.hpp"

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

TEST(ModuleNames, IgnoresWhatCannotBeNamed) {
  vorn_pid_set_name(1024, "X");
  vorn_pid_set_name(5, nullptr);
  EXPECT_STREQ(vorn_pid_get_name(1024), "<1024>");
  EXPECT_STREQ(vorn_pid_get_name(5), "NONE");
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

TEST(ModuleNames, NodesFileAddsRowsAndBadLinesAreReported) {
  scratch::write_file("/WRK/conf/keep", "");
  if (!scratch::cover_directory("/WRK/conf")) GTEST_SKIP() << "no right to mount here";
  scratch::write_file("/WRK/conf/vorn_module_names", "# of this node\n"
                                                     "\n"
                                                     "  12\tTWELVE \n"
                                                     "381 OTHER\n"
                                                     "12x BAD\n"
                                                     "13 lower\n"
                                                     "14\n"
                                                     "15 TOO MANY\n"
                                                     "99999 FAR\n"
                                                     "1024 OUTSIDE\n"
                                                     "16 LAST");
  EXPECT_STREQ(vorn_pid_get_name(12), "TWELVE");
  EXPECT_STREQ(vorn_pid_get_name(381), "OTHER");
  EXPECT_STREQ(vorn_pid_get_name(16), "LAST");
  for (const unsigned int id : {13u, 14u, 15u})
    EXPECT_STREQ(vorn_pid_get_name(id), "NONE");

  std::vector<std::string> lines;
  for (const auto &record : capture::take()) {
    EXPECT_EQ(record.level, EVLOG_WARNING);
    EXPECT_EQ(record.file, "vorn_process.c");
    lines.push_back(record.text.substr(0, record.text.find(" is ")));
  }
  const std::string file = "/WRK/conf/vorn_module_names line ";
  EXPECT_EQ(lines, (std::vector{file + "5", file + "6", file + "7", file + "8", file + "9"}));

  pid_destroy_names();
  EXPECT_STREQ(vorn_pid_get_name(12), "TWELVE");
  EXPECT_NO_RECORD(); // the file is read once
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
