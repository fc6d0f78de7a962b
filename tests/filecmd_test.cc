// test-wraps: malloc vsnprintf vorn_system_s
#include "vorn_filecmd.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
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
static bool fail_next_malloc = false;
static bool fail_formats = false;

extern "C" {
void *__real_malloc(size_t size);
void *__wrap_malloc(size_t size) {
  if (!fail_next_malloc) return __real_malloc(size);
  fail_next_malloc = false;
  return nullptr;
}

int __real_vsnprintf(char *buffer, size_t size, const char *format, va_list args);
int __wrap_vsnprintf(char *buffer, size_t size, const char *format, va_list args) {
  if (fail_formats && std::string(format).starts_with("rm -rf")) return -1;
  return __real_vsnprintf(buffer, size, format, args);
}

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
  unsigned paths;
  std::string command; // for "one" and "two"
  std::string null_text;
  std::string long_text; // %1 and %2: the paths
};

const std::vector<Command> kCommands = {
    {"vorn_cmd_cp", vorn_cmd_cp, 2, "cp -af one two", "SrcFile or DestFile is NULL.",
     "File Path is too Long, pSrcFile: (%1), pDestFile: (%2)"},
    {"vorn_cmd_rm", [](const char *a, const char *) { return vorn_cmd_rm(a); }, 1, "rm -rf one",
     "Param is NULL.", "File path too long pSrcFile = %1"},
    {"vorn_cmd_tar", [](const char *a, const char *b) { return vorn_cmd_tar(a, b, 2); }, 2,
     "tar -xzf one -C two", "Param is NULL.", "File path too long pSrcFile = %1,pDir = %2"},
    {"vorn_cmd_tar", [](const char *a, const char *b) { return vorn_cmd_tar(a, b, 0); }, 2,
     "tar -czf one two", "Param is NULL.", "File path too long pSrcFile = %1,pDir = %2"},
    {"vorn_cmd_touch", [](const char *a, const char *) { return vorn_cmd_touch(a); }, 1,
     "touch one", "File is NULL.", "File path:(%1) is too long."},
    {"vorn_cmd_mv", vorn_cmd_mv, 2, "mv one two", "Param is NULL.",
     "File path too long pSrcFile = %1, pDestFile = %2"},
    {"vorn_cmd_mkdir", [](const char *a, const char *) { return vorn_cmd_mkdir(a); }, 1,
     "mkdir -p one &>/dev/null", "Param is NULL.", "File path too long pFile = %1"},
};

std::string filled(std::string text, const std::string &first, const std::string &second) {
  for (const auto &[mark, path] : {std::pair("%1", first), std::pair("%2", second)}) {
    const size_t at = text.find(mark);
    if (at != std::string::npos) text.replace(at, 2, path);
  }
  return text;
}

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
  for (const int result : {0, 256, -29, -1}) {
    dry_result = result;
    for (const Command &row : kCommands) {
      if (std::string(row.name) == "vorn_cmd_mkdir" && result == 0) continue; // there is no folder
      started.clear();
      EXPECT_EQ(row.call("one", "two"), result);
      const char *whitelist = std::string(row.name) == "vorn_cmd_mkdir" ? "&>" : "(none)";
      EXPECT_EQ(started, std::vector<Started>({{row.command, whitelist}}));
      if (result != 0) expect_failed(row.name, row.command, result);
    }
  }
}

TEST_F(Filecmd, NullAndLongPathsAreRefusedByEach) {
  dry = true;
  const std::string fits(1023, 'a');
  for (const Command &row : kCommands) {
    SCOPED_TRACE(row.name);
    EXPECT_EQ(row.call(nullptr, "two"), -22);
    EXPECT_ONE_RECORD(EVLOG_ERROR, kFile, row.name, row.null_text);
    if (row.paths == 2) {
      EXPECT_EQ(row.call("one", nullptr), -22);
      EXPECT_ONE_RECORD(EVLOG_ERROR, kFile, row.name, row.null_text);
    }
    const std::string path(1024, 'b');
    EXPECT_EQ(row.call(path.c_str(), fits.c_str()), -36);
    EXPECT_ONE_RECORD(EVLOG_ERROR, kFile, row.name, filled(row.long_text, path, fits));
    if (row.paths == 2) {
      EXPECT_EQ(row.call(fits.c_str(), path.c_str()), -36);
      EXPECT_ONE_RECORD(EVLOG_ERROR, kFile, row.name, filled(row.long_text, fits, path));
    }
    EXPECT_EQ(row.call(std::string(5000, 'c').c_str(), "two"), -36);
    EXPECT_EQ(capture::take().size(), 1u);
    EXPECT_TRUE(started.empty());

    dry_result = 256;
    EXPECT_EQ(row.call(fits.c_str(), fits.c_str()), 256);
    EXPECT_EQ(started.size(), 1u);
    EXPECT_GT(started[0].command.size(), 1023u);
    EXPECT_EQ(capture::take().size(), 1u);
    started.clear();
  }
}

TEST_F(Filecmd, ACommandThatCannotBeWrittenIsNotRun) {
  fail_next_malloc = true;
  EXPECT_EQ(vorn_cmd_touch("one"), -12);
  const auto records = capture::take();
  ASSERT_EQ(records.size(), 2u); // the allocator's comes first
  EXPECT_EQ(records[1].function, "vorn_cmd_touch");
  EXPECT_EQ(records[1].text, "AllocCmd is NULL");

  fail_formats = true;
  for (int i = 0; i < 10; ++i)
    EXPECT_EQ(vorn_cmd_rm("one"), -22);
  fail_formats = false;
  const std::string text = "sprintf_s secure function failed, destMax<4096>.";
  const auto texts = capture::take_texts();
  EXPECT_EQ(std::count(texts.begin(), texts.end(), text), 3); // and no more for some time
  EXPECT_TRUE(started.empty());
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

// A mkdir of the shell's that came late would make again what is removed here.
TEST_F(Filecmd, AFolderIsMadeWhenItsMakingReturns) {
  for (int i = 0; i < 8; ++i) {
    const std::string folder = one + std::to_string(i) + "/with/some/above";
    ASSERT_EQ(vorn_cmd_mkdir(folder.c_str()), 0);
    ASSERT_TRUE(is_folder(folder));
    ASSERT_EQ(rmdir(folder.c_str()), 0);
  }
  usleep(20000);
  for (int i = 0; i < 8; ++i)
    EXPECT_FALSE(is_there(one + std::to_string(i) + "/with/some/above"));
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
