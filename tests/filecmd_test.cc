// test-wraps: vorn_system_s
#include "vorn_filecmd.h"

#include <cstdio>
#include <functional>
#include <gtest/gtest.h>
#include <string>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "evlog.h"
#include "support/log_capture.hpp"
#include "support/scratch.hpp"
#include "vorn_cmd.h"

// The commands that were run, with what the guard was to let pass; or, while dry, were to be run.
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

constexpr char kFile[] = "vorn_fileops.c";

bool is_there(const std::string &path) { return access(path.c_str(), F_OK) == 0; }

bool is_folder(const std::string &path) {
  struct stat file;
  return stat(path.c_str(), &file) == 0 && S_ISDIR(file.st_mode);
}

// Every function, its paths all the same or the second one of its own.
struct Command {
  const char *name;
  std::function<int(const char *first, const char *second)> call;
  std::string command; // for "one" and "two"
  const char *whitelist = "(none)";
};

const std::vector<Command> kCommands = {
    {"vorn_cmd_cp", vorn_cmd_cp, "cp -af one two"},
    {"vorn_cmd_rm", [](const char *a, const char *) { return vorn_cmd_rm(a); }, "rm -rf one"},
    {"vorn_cmd_tar", [](const char *a, const char *b) { return vorn_cmd_tar(a, b, 2); },
     "tar -xzf one -C two"},
    {"vorn_cmd_tar", [](const char *a, const char *b) { return vorn_cmd_tar(a, b, 0); },
     "tar -czf one two"},
    {"vorn_cmd_touch", [](const char *a, const char *) { return vorn_cmd_touch(a); }, "touch one"},
    {"vorn_cmd_mv", vorn_cmd_mv, "mv one two"},
    {"vorn_cmd_mkdir", [](const char *a, const char *) { return vorn_cmd_mkdir(a); },
     "mkdir -p one &>/dev/null", "&>"},
};

class Filecmd : public testing::Test {
protected:
  void SetUp() override {
    started.clear();
    dry = false;
    dry_result = 0;
  }
  void TearDown() override { EXPECT_NO_RECORD(); }

  // What another wait status than 0 is reported as.
  void expect_failed(const char *function, const std::string &command, int result) {
    EXPECT_NE(result, 0);
    EXPECT_ONE_RECORD(EVLOG_ERROR, kFile, function,
                      "Execute cmd(" + command + ") Fail(" + std::to_string(result) + ")");
  }

  scratch::Directory directory;
  const std::string one = directory / "one";
  const std::string two = directory / "two";
};

TEST_F(Filecmd, CommandsAndWhatTheGuardLetsPassAreExact) {
  dry = true;
  const std::string fits(1023, 'a');
  for (const Command &row : kCommands) {
    for (const int result : {256, -29}) {
      dry_result = result;
      started.clear();
      EXPECT_EQ(row.call("one", "two"), result);
      EXPECT_EQ(started, std::vector<Started>({{row.command, row.whitelist}}));
      expect_failed(row.name, row.command, result);
    }
    started.clear();
    EXPECT_EQ(row.call(nullptr, "two"), -22);
    EXPECT_EQ(row.call((fits + "a").c_str(), "two"), -36);
    EXPECT_TRUE(started.empty());
    for (const auto &record : capture::take())
      EXPECT_EQ(record.function, row.name);
    EXPECT_EQ(row.call(fits.c_str(), fits.c_str()), -29);
    EXPECT_EQ(started.size(), 1u);
    capture::take();
  }
}

TEST_F(Filecmd, FilesAreMadeCopiedMovedPackedAndRemoved) {
  EXPECT_EQ(vorn_cmd_touch(one.c_str()), 0);
  EXPECT_TRUE(is_there(one));
  scratch::write_file(one, "text");
  EXPECT_EQ(vorn_cmd_cp(one.c_str(), two.c_str()), 0);
  EXPECT_EQ(scratch::read_file(two), "text");

  const std::string folder = directory / "folder";
  ASSERT_EQ(vorn_cmd_mkdir(folder.c_str()), 0);
  EXPECT_EQ(vorn_cmd_mv(two.c_str(), folder.c_str()), 0);
  EXPECT_EQ(scratch::read_file(folder + "/two"), "text");
  EXPECT_FALSE(is_there(two));

  ASSERT_EQ(chdir(directory.path().c_str()), 0);
  EXPECT_EQ(vorn_cmd_tar("packed.tgz", "folder", 0), 0);
  EXPECT_EQ(vorn_cmd_rm("folder"), 0);
  EXPECT_FALSE(is_there(folder));
  EXPECT_EQ(vorn_cmd_tar("packed.tgz", directory.path().c_str(), 1), 0);
  EXPECT_EQ(scratch::read_file(folder + "/two"), "text");
  EXPECT_EQ(vorn_cmd_rm("nothing"), 0);

  // the shell's tools write their complaint to the standard error
  ASSERT_NE(std::freopen("/dev/null", "w", stderr), nullptr);
  expect_failed("vorn_cmd_mv", "mv nothing folder", vorn_cmd_mv("nothing", "folder"));
  ASSERT_EQ(chdir("/"), 0);
}

TEST_F(Filecmd, TheGuardRefusesWhatTheShellWouldSplit) {
  const std::string name = one + ";touch " + two;
  expect_failed("vorn_cmd_rm", "rm -rf " + name, vorn_cmd_rm(name.c_str()));
  started.clear();
  for (const char character : std::string("|;&$<>!\n`")) {
    const std::string path = one + character;
    EXPECT_EQ(vorn_cmd_mkdir(path.c_str()), -22);
    EXPECT_ONE_RECORD(EVLOG_ERROR, kFile, "vorn_cmd_mkdir",
                      "Param error: pFile(" + path + ") is dangerous.");
  }
  EXPECT_TRUE(started.empty());
  EXPECT_FALSE(is_there(one));
  EXPECT_FALSE(is_there(two));
}

// As if the background mkdir of the shell had all the time in the world.
TEST_F(Filecmd, AFolderIsMadeWhereTheShellLeavesItsCommandBehind) {
  dry = true;
  ASSERT_EQ(chdir(directory.path().c_str()), 0);
  for (const std::string &path : {one + "/a//b/", std::string("c/d")}) {
    EXPECT_EQ(vorn_cmd_mkdir(path.c_str()), 0);
    EXPECT_TRUE(is_folder(path));
  }
  scratch::write_file(two, "a file");
  for (const std::string &path : {std::string(), two, two + "/folder"}) {
    expect_failed("vorn_cmd_mkdir", "mkdir -p " + path + " &>/dev/null",
                  vorn_cmd_mkdir(path.c_str()));
  }
  ASSERT_EQ(chdir("/"), 0);
}

} // namespace
