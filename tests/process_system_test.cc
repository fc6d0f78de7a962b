// test-wraps: clock_gettime open
#include "vorn_process.h"

#include <cerrno>
#include <cstdarg>
#include <ctime>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <string>
#include <sys/stat.h>
#include <vector>

#include "evlog.h"
#include "support/log_capture.hpp"
#include "support/scratch.hpp"

static bool clock_works = false;
static std::string names_file; // stands in for the node's

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

TEST(ProcessVersion, StaysZeroWhenTheClockFailsOnce) {
  EXPECT_EQ(ps_get_version(), 0u);
  EXPECT_ONE_RECORD(EVLOG_INFO, "vorn_process.c", "ps_get_version",
                    "Clock_gettime fail ret:-1 errno:1");
  clock_works = true;
  EXPECT_EQ(ps_get_version(), 0u);
  EXPECT_NO_RECORD();
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
