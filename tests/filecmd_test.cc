// test-wraps: vorn_system_s
// Tests shell commands on files.
// SPDX-License-Identifier: Apache-2.0
#include "vorn_filecmd.h"

#include <filesystem>
#include <functional>
#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "evlog.h"
#include "support/log_capture.hpp"
#include "support/scratch.hpp"
#include "vorn_cmd.h"

// The commands and their white lists. While dry, the commands do not run.
struct Started {
  std::string command;
  std::string whitelist; // "(none)": NULL
  bool operator==(const Started &) const = default;
};
static std::vector<Started> started;
static bool dry = false;
static int dry_result = 0;

extern "C" {
int __real_vorn_system_s(const char *command, const char *whitelist);
int __wrap_vorn_system_s(const char *command, const char *whitelist) {
  started.push_back({command, whitelist == nullptr ? "(none)" : whitelist});
  return dry ? dry_result : __real_vorn_system_s(command, whitelist);
}
}

namespace {

namespace fs = std::filesystem;

// The text of a wait status other than 0.
void expect_failed(const std::string &function, const std::string &command, int result) {
  EXPECT_NE(result, 0);
  EXPECT_ONE_MESSAGE(EVLOG_ERROR, "vorn_fileops.c", function,
                     "Execute cmd(" + command + ") Fail(" + std::to_string(result) + ")");
}

struct Filecmd : testing::Test {
  ~Filecmd() override { EXPECT_NO_MESSAGE(); }

  scratch::Directory directory;
  const std::string one = directory / "one";
  const std::string two = directory / "two";
};

TEST_F(Filecmd, CommandsAndWhiteListsAreExact) {
  const struct {
    const char *name;
    std::function<int(const char *first, const char *second)> call;
    std::string command; // for "one" and "two"
    std::string whitelist = "(none)";
  } rows[] = {
      {"vorn_cmd_cp", vorn_cmd_cp, "cp -af one two"},
      {"vorn_cmd_rm", [](auto a, auto) { return vorn_cmd_rm(a); }, "rm -rf one"},
      {"vorn_cmd_tar", [](auto a, auto b) { return vorn_cmd_tar(a, b, 2); }, "tar -xzf one -C two"},
      {"vorn_cmd_tar", [](auto a, auto b) { return vorn_cmd_tar(a, b, 0); }, "tar -czf one two"},
      {"vorn_cmd_touch", [](auto a, auto) { return vorn_cmd_touch(a); }, "touch one"},
      {"vorn_cmd_mv", vorn_cmd_mv, "mv one two"},
      {"vorn_cmd_mkdir", [](auto a, auto) { return vorn_cmd_mkdir(a); }, "mkdir -p one &>/dev/null",
       "&>"},
  };
  dry = true;
  dry_result = -29;
  const std::string fits(1023, 'a');
  for (const auto &row : rows) {
    EXPECT_EQ(row.call("one", "two"), -29);
    expect_failed(row.name, row.command, -29);
    EXPECT_EQ(row.call(nullptr, "two"), -22);
    EXPECT_EQ(row.call((fits + "a").c_str(), "two"), -36);
    EXPECT_EQ(started, (std::vector<Started>{{row.command, row.whitelist}}));
    EXPECT_EQ(row.call(fits.c_str(), fits.c_str()), -29);
    started.clear();
    for (const auto &message : capture::take())
      EXPECT_EQ(message.function, row.name);
  }
}

TEST_F(Filecmd, RunsNoCommandThatTheShellWouldSplit) {
  EXPECT_EQ(vorn_cmd_mkdir(two.c_str()), 0);
  EXPECT_EQ(vorn_cmd_touch(one.c_str()), 0);
  EXPECT_EQ(vorn_cmd_mv(one.c_str(), two.c_str()), 0);
  EXPECT_TRUE(fs::exists(two + "/one"));
  const std::string name = two + ";touch " + one;
  expect_failed("vorn_cmd_rm", "rm -rf " + name, vorn_cmd_rm(name.c_str()));
  // The characters that the guard permits for mkdir itself would pass in its path too.
  EXPECT_EQ(vorn_cmd_mkdir((one + "&").c_str()), -22);
  EXPECT_EQ(capture::take_lines(), std::vector{"E Param error: pFile(" + one + "&) is dangerous."});
  EXPECT_FALSE(fs::exists(one));
}

// Delays the shell's background mkdir without a limit.
TEST_F(Filecmd, MkdirDoesNotDependOnTheShellsBackgroundCommand) {
  dry = true;
  fs::current_path(directory.path());
  for (const std::string &path : {one + "/a//b/", std::string("c/d")}) {
    EXPECT_EQ(vorn_cmd_mkdir(path.c_str()), 0);
    EXPECT_TRUE(fs::is_directory(path));
  }
  scratch::write_file(two, "a file");
  for (const std::string &path : {std::string(), two, two + "/folder"}) {
    expect_failed("vorn_cmd_mkdir", "mkdir -p " + path + " &>/dev/null",
                  vorn_cmd_mkdir(path.c_str()));
  }
  fs::current_path("/");
}

} // namespace
