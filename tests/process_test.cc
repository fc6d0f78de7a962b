// test-wraps: clock_gettime open
// Tests module names and the version of a process.
// SPDX-License-Identifier: Apache-2.0
#include "vorn_process.h"

#include <cerrno>
#include <ctime>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <string>
#include <sys/stat.h>
#include <thread>

#include "evlog.h"
#include "support/log_capture.hpp"
#include "support/scratch.hpp"
#include "support/threads.hpp"
#include "vorn_version.h"

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
  uint64_t stamps[2] = {};
  run_threads(2, [&stamps](int thread) { stamps[thread] = ps_get_version(); });
  EXPECT_NE(stamps[0], 0u);
  EXPECT_EQ(stamps[0], stamps[1]);
}

TEST(ProcessVersion, StaysZeroWhenTheClockFailsOnce) {
  clock_works = false;
  EXPECT_EQ(ps_get_version(), 0u);
  EXPECT_ONE_MESSAGE(EVLOG_INFO, "vorn_process.c", "ps_get_version",
                     "Clock_gettime fail ret:-1 errno:1");
  clock_works = true;
  EXPECT_EQ(ps_get_version(), 0u);
  EXPECT_NO_MESSAGE();
}

TEST(LibraryVersion, IsThatOfItsHeaders) {
  std::string parts = std::to_string(VORN_VERSION_MAJOR);
  for (const int part : {VORN_VERSION_MINOR, VORN_VERSION_PATCH})
    parts += "." + std::to_string(part);
  EXPECT_STREQ(vorn_version(), parts.c_str());
  EXPECT_TRUE(VORN_VERSION_AT_LEAST(VORN_VERSION_MAJOR, VORN_VERSION_MINOR, VORN_VERSION_PATCH));
  EXPECT_FALSE(
      VORN_VERSION_AT_LEAST(VORN_VERSION_MAJOR, VORN_VERSION_MINOR, VORN_VERSION_PATCH + 1));
  EXPECT_TRUE(VORN_VERSION_AT_LEAST(VORN_VERSION_MAJOR - 1, 99, 99));
}

TEST(ModuleNames, EachThreadHasItsOwnOutOfRangeName) {
  const char *mine = vorn_pid_get_name(1024);
  std::thread([] {
    EXPECT_STREQ(vorn_pid_get_name(65535), "<65535>");
    EXPECT_STREQ(vorn_pid_get_name(70000), "<4464>");
  }).join();
  EXPECT_STREQ(mine, "<1024>");
}

TEST(ModuleNames, ClearingRemovesGivenNamesAndRestoresRows) {
  const char name[] = "MINE";
  EXPECT_STREQ(vorn_pid_get_name(1023), "NONE");
  for (const unsigned int id : {381u, 1023u}) {
    vorn_pid_set_name(id, name);
    vorn_pid_set_name(id, nullptr);
    pid_init_names();                       // built already: nothing changes
    EXPECT_EQ(vorn_pid_get_name(id), name); // the pointer, not a copy
  }
  vorn_pid_set_name(1024, name);
  pid_destroy_names();
  pid_destroy_names();
  EXPECT_STREQ(vorn_pid_get_name(1023), "NONE");
  EXPECT_STREQ(vorn_pid_get_name(381), "OSAX");
}

TEST(ModuleNames, AreWholeWhileOtherThreadsClearAndSetThem) {
  run_threads(3, [](int thread) {
    for (int i = 0; i < 3000; ++i) {
      if (thread == 0 && i % 10 == 0) pid_destroy_names();
      if (thread == 1) vorn_pid_set_name(7, i % 2 == 0 ? "EVEN" : "ODD");
      const std::string name = vorn_pid_get_name(7);
      ASSERT_TRUE(name == "NONE" || name == "EVEN" || name == "ODD") << name;
    }
  });
}

class NodeNames : public testing::Test {
protected:
  void SetUp() override { names_file = directory_ / "names"; }
  scratch::Directory directory_;
};

TEST_F(NodeNames, AddRowsAndReportBadLines) {
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
  for (int round = 0; round < 2; ++round) {
    std::string names;
    for (const unsigned int id : {12, 900, 381, 16, 13, 14, 15})
      names += vorn_pid_get_name(id) + std::string(" ");
    EXPECT_EQ(names, "TWELVE OTHER OSAX LAST NONE NONE NONE ");
    pid_destroy_names();
  }
  std::string lines; // the file is read once
  for (const auto &message : capture::take()) {
    EXPECT_EQ(message.level, EVLOG_WARNING);
    EXPECT_EQ(message.file + message.function, "vorn_process.cpid_init_names");
    lines += message.text.substr(0, message.text.find(" is ")).substr(27);
  }
  EXPECT_EQ(lines, " line 6 line 7 line 8 line 9 line 10");
}

TEST_F(NodeNames, ReportsAFileThatItCannotRead) {
  ASSERT_EQ(mkfifo(names_file.c_str(), 0600), 0); // no process writes to it
  EXPECT_STREQ(vorn_pid_get_name(381), "OSAX");
  EXPECT_ONE_MESSAGE(EVLOG_ERROR, "vorn_process.c", "pid_init_names",
                     "/WRK/conf/vorn_module_names is not a table of module names.");
}

} // namespace
