// Tests the bay configuration.
// SPDX-License-Identifier: Apache-2.0
#include "vorn_bay.h"

#include <filesystem>
#include <gtest/gtest.h>
#include <string>
#include <sys/mount.h>
#include <unistd.h>

#include "support/log_capture.hpp"
#include "support/scratch.hpp"

namespace {

namespace fs = std::filesystem;

constexpr char kScript[] = "/WRK/script/os_get_bay_config_segment.sh";
const std::string kTemporary = "/tmp/bay_cfg_segment_" + std::to_string(getpid()) + ".conf";

struct Bay : testing::Test {
  void SetUp() override {
    if (!scratch::cover_directory("/WRK")) GTEST_SKIP() << scratch::kNoMounts;
    set_script("cat /WRK/value");
  }
  void TearDown() override { fs::remove(kTemporary); }

  // The script stores its arguments and then runs this.
  void set_script(const std::string &action) {
    scratch::write_program(kScript, "echo \"$@\" >>/WRK/calls\n" + action);
  }

  std::string calls() { return scratch::read_file("/WRK/calls"); }

  int get(const std::string &key, uint32_t size = sizeof out) {
    return vorn_get_bay_config_keyvalue(key.c_str(), out, size);
  }
  std::string outcome(const std::string &key) { return capture::traced(get(key)); }

  char out[16] = "before";
};

TEST_F(Bay, ReadsTheFirstLine) {
  const std::string missing = "-1; E Can not get the value of SLOT 1, value is .";
  const struct {
    std::string printed;
    uint32_t size;
    const char *out;
    std::string outcome;
  } rows[] = {
      {"value\nnext\n", 16, "value", "0"},
      {"no line feed", 16, "no line feed", "0"},
      {"0123456789", 6, "01234", "0"},
      {"\nsecond\n", 16, "", "0"},
      {"", 16, "", missing},
      {"value", 1, "", missing},
  };
  const auto before = scratch::next_descriptor();
  for (const auto &row : rows) {
    SCOPED_TRACE(row.printed);
    scratch::write_file("/WRK/value", row.printed);
    EXPECT_EQ(capture::outcome(get("SLOT 1", row.size)), row.outcome);
    EXPECT_STREQ(out, row.out);
    EXPECT_FALSE(fs::exists(kTemporary));
  }
  EXPECT_TRUE(calls().starts_with("SLOT 1\nSLOT 1\n"));
  EXPECT_EQ(scratch::next_descriptor(), before);
}

TEST_F(Bay, DoesNotWriteThroughALinkOrAnotherUsersFile) {
  set_script("echo left over from a failure; exit 3");
  EXPECT_EQ(outcome("SLOT"),
            "-1; E vorn_get_bay_config_keyvalue: Can not get the file(/WRK/conf/bay_config.ini).");
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

TEST_F(Bay, RunsNoCutOrDangerousCommand) {
  EXPECT_EQ(outcome(""), "-1; E get_bay_config_keyvalue_param_check: Para1 is \\0.");
  EXPECT_EQ(outcome(">"),
            "-22; E get_bay_config_keyvalue_param_check: Param error: keySegment(>) is dangerous.");
  const std::string around = kScript + std::string("  >") + kTemporary + " 2>/dev/null";
  const std::string longest(255 - around.size(), 'k');
  EXPECT_EQ(outcome(longest + "k"), "-1; E vorn_get_bay_config_keyvalue: snprintf_s secure "
                                    "function failed, destMax<256>, count<255>.");
  EXPECT_EQ(calls(), "");
  EXPECT_STREQ(out, "before");
  set_script("echo value");
  EXPECT_EQ(get(longest), 0);
  EXPECT_EQ(calls(), longest + "\n");
}

} // namespace
