// test-wraps: clock_gettime open
#include "vorn_process.h"

#include <cerrno>
#include <cstdarg>
#include <ctime>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <string>
#include <sys/stat.h>
#include <thread>
#include <vector>

#include "evlog.h"
#include "support/log_capture.hpp"
#include "support/scratch.hpp"

static bool clock_works = true;
static std::string names_file = "/no/such"; // stands in for the node's

extern "C" {
int __real_clock_gettime(clockid_t clock, timespec *out);
int __wrap_clock_gettime(clockid_t clock, timespec *out) {
  if (clock_works) return __real_clock_gettime(clock, out);
  errno = EPERM;
  return -1;
}

int __real_open(const char *path, int flags, ...);
int __wrap_open(const char *path, int flags, ...) {
  const bool is_names = std::string(path) == "/WRK/conf/vorn_module_names";
  return __real_open(is_names ? names_file.c_str() : path, flags);
}
}

namespace {

TEST(ProcessVersion, IsTakenOnce) {
  uint64_t other = 0;
  std::thread thread([&other] { other = ps_get_version(); });
  const uint64_t stamp = ps_get_version();
  thread.join();
  EXPECT_NE(stamp, 0u);
  EXPECT_EQ(stamp, other);
}

TEST(ProcessVersion, StaysZeroWhenTheClockFailsOnce) {
  clock_works = false;
  EXPECT_EQ(ps_get_version(), 0u);
  EXPECT_ONE_RECORD(EVLOG_INFO, "vorn_process.c", "ps_get_version",
                    "Clock_gettime fail ret:-1 errno:1");
  clock_works = true;
  EXPECT_EQ(ps_get_version(), 0u);
  EXPECT_NO_RECORD();
}

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

class NodeNames : public testing::Test {
protected:
  void SetUp() override { names_file = directory_ / "names"; }
  scratch::Directory directory_;
};

TEST_F(NodeNames, AddRowsAndBadLinesAreReported) {
  scratch::write_file(names_file, "# of this node\n"
                                  "\n"
                                  "  12\tTWELVE \n"
                                  "900 OTHER\n"
                                  "381 STRANGER\n"
                                  "12x BAD\n"
                                  "13 lower\n"
                                  "14\n"
                                  "15 TOO MANY\n"
                                  "99999 FAR\n"
                                  "1024 OUTSIDE\n"
                                  "16 LAST");
  EXPECT_STREQ(vorn_pid_get_name(12), "TWELVE");
  EXPECT_STREQ(vorn_pid_get_name(900), "OTHER");
  EXPECT_STREQ(vorn_pid_get_name(381), "OSAX");
  EXPECT_STREQ(vorn_pid_get_name(16), "LAST");
  for (const unsigned int id : {13u, 14u, 15u})
    EXPECT_STREQ(vorn_pid_get_name(id), "NONE");

  std::vector<std::string> lines;
  for (const auto &record : capture::take()) {
    EXPECT_EQ(record.level, EVLOG_WARNING);
    EXPECT_EQ(record.file, "vorn_process.c");
    EXPECT_EQ(record.function, "pid_init_names");
    lines.push_back(record.text.substr(0, record.text.find(" is ")));
  }
  const std::string file = "/WRK/conf/vorn_module_names line ";
  EXPECT_EQ(lines, (std::vector{file + "6", file + "7", file + "8", file + "9", file + "10"}));

  pid_destroy_names();
  EXPECT_STREQ(vorn_pid_get_name(12), "TWELVE");
  EXPECT_NO_RECORD(); // the file is read once
}

TEST_F(NodeNames, WhatCannotBeReadIsReported) {
  ASSERT_EQ(mkfifo(names_file.c_str(), 0600), 0); // nobody ever writes to it
  EXPECT_STREQ(vorn_pid_get_name(381), "OSAX");
  EXPECT_ONE_RECORD(EVLOG_ERROR, "vorn_process.c", "pid_init_names",
                    "/WRK/conf/vorn_module_names is not a table of module names.");
}

} // namespace
