// Tests the bay configuration.
// SPDX-License-Identifier: Apache-2.0
#include "vorn_bay.h"

#include <filesystem>
#include <gtest/gtest.h>
#include <string>
#include <sys/mount.h>
#include <unistd.h>
#include <vector>

#include "evlog.h"
#include "support/log_capture.hpp"
#include "support/scratch.hpp"

namespace {

namespace fs = std::filesystem;

constexpr char kFile[] = "vorn_socket_add.c";
constexpr char kFunction[] = "vorn_get_bay_config_keyvalue";
constexpr char kScript[] = "/WRK/script/os_get_bay_config_segment.sh";
const std::string kTemporary = "/tmp/bay_cfg_segment_" + std::to_string(getpid()) + ".conf";

struct Bay : testing::Test {
  void SetUp() override {
    if (!scratch::cover_directory("/WRK")) GTEST_SKIP() << scratch::kNoMounts;
    set_script("cat /WRK/value");
  }
  void TearDown() override { fs::remove(kTemporary); }

  // The script records its arguments and then runs this.
  void set_script(const std::string &action) {
    scratch::write_file(kScript, "#!/bin/sh\necho \"$@\" >>/WRK/calls\n" + action + "\n");
    fs::permissions(kScript, fs::perms::owner_all);
  }

  std::string calls() { return scratch::read_file("/WRK/calls"); }

  int get(const std::string &key, uint32_t size = sizeof out) {
    return vorn_get_bay_config_keyvalue(key.c_str(), out, size);
  }

  char out[16] = "before";
};

TEST_F(Bay, ReadsTheFirstLine) {
  const std::string missing = "E Can not get the value of SLOT 1, value is .";
  const struct {
    std::string printed;
    uint32_t size;
    const char *out;
    std::vector<std::string> lines; // empty for a success
  } rows[] = {
      {"value\nnext\n", 16, "value", {}},
      {"no line feed", 16, "no line feed", {}},
      {"0123456789", 6, "01234", {}},
      {"\nsecond\n", 16, "", {}},
      {"", 16, "", {missing}},
      {"value", 1, "", {missing}},
  };
  const auto before = scratch::next_descriptor();
  for (const auto &row : rows) {
    SCOPED_TRACE(row.printed);
    scratch::write_file("/WRK/value", row.printed);
    EXPECT_EQ(get("SLOT 1", row.size), row.lines.empty() ? 0 : -1);
    EXPECT_STREQ(out, row.out);
    EXPECT_FALSE(fs::exists(kTemporary));
    EXPECT_EQ(capture::take_lines(), row.lines);
  }
  EXPECT_TRUE(calls().starts_with("SLOT 1\nSLOT 1\n"));
  EXPECT_EQ(scratch::next_descriptor(), before);
}

TEST_F(Bay, WritesThroughNothingThatIsInItsWay) {
  set_script("echo left over from a failure; exit 3");
  EXPECT_EQ(get("SLOT"), -1);
  EXPECT_ONE_RECORD(EVLOG_ERROR, kFile, kFunction,
                    "Can not get the file(/WRK/conf/bay_config.ini).");
  EXPECT_STREQ(out, "before");
  EXPECT_TRUE(fs::exists(kTemporary));
  set_script("stat -Lc %a /proc/$$/fd/1");
  EXPECT_EQ(get("SLOT"), 0);
  EXPECT_STREQ(out, "600");

  scratch::write_file("/WRK/victim", "untouched");
  fs::create_symlink("/WRK/victim", kTemporary);
  EXPECT_EQ(get("SLOT"), 0);
  EXPECT_EQ(scratch::read_file("/WRK/victim"), "untouched");
  fs::remove("/WRK/calls");

  // A file that cannot be removed, such as another user's, prevents the run of the script.
  scratch::write_file(kTemporary, "");
  ASSERT_EQ(mount("/WRK/victim", kTemporary.c_str(), nullptr, MS_BIND, nullptr), 0);
  EXPECT_EQ(get("SLOT"), -1);
  EXPECT_EQ(calls(), "");
  EXPECT_EQ(scratch::read_file("/WRK/victim"), "untouched");
  umount(kTemporary.c_str());
}

TEST_F(Bay, RunsNoCommandThatWasCutOrIsDangerous) {
  EXPECT_EQ(get(""), -1);
  EXPECT_ONE_RECORD(EVLOG_ERROR, kFile, "get_bay_config_keyvalue_param_check", "Para1 is \\0.");
  EXPECT_EQ(get(">"), -22);
  EXPECT_EQ(capture::take_lines().at(0), "E Param error: keySegment(>) is dangerous.");
  const std::string around = kScript + std::string("  >") + kTemporary + " 2>/dev/null";
  const std::string longest(255 - around.size(), 'k');
  EXPECT_EQ(get(longest + "k"), -1);
  EXPECT_ONE_RECORD(EVLOG_ERROR, kFile, kFunction,
                    "snprintf_s secure function failed, destMax<256>, count<255>.");
  EXPECT_EQ(calls(), "");
  EXPECT_STREQ(out, "before");
  set_script("echo value");
  EXPECT_EQ(get(longest), 0);
  EXPECT_EQ(calls(), longest + "\n");
}

} // namespace
