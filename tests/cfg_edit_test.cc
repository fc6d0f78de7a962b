// Tests the edits of INI files.
// SPDX-License-Identifier: Apache-2.0
#include "vorn_cfg.h"

#include <cstring>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <string>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include "evlog.h"
#include "support/log_capture.hpp"
#include "support/scratch.hpp"
#include "vorn_mem.h"

namespace {

using Edit = int (*)(const char *path, const char *section, const char *item, const char *value);

constexpr Edit kAdd = vorn_cfg_file_addItem;
constexpr Edit kSet = vorn_cfg_file_setItemValue;
constexpr Edit kDelete = [](const char *path, const char *section, const char *item, const char *) {
  return vorn_cfg_file_delItem(path, section, item);
};
constexpr Edit kDeleteSection = [](const char *path, const char *section, const char *,
                                   const char *) {
  return vorn_cfg_file_delSection(path, section);
};
constexpr Edit kWrite = vorn_cfg_write_item_to_file; // in place

struct CfgEdit : testing::Test {
  scratch::Directory directory;
  const std::string path = directory / "f.ini";
  const std::string other = directory / "other";
  const std::string temporary = path + ".temp";

  bool is_there(const std::string &file) { return access(file.c_str(), F_OK) == 0; }
  bool is_locked(const std::string &file) {
    const int fd = open(file.c_str(), O_RDONLY | O_CLOEXEC);
    const bool is_free = flock(fd, LOCK_EX | LOCK_NB) == 0;
    close(fd);
    return !is_free;
  }
  std::string get(const char *section, const char *item) {
    char value[64] = "?";
    vorn_cfg_getItemValue_ex(path.c_str(), section, item, value, sizeof value);
    return value;
  }
  int run(Edit edit, const std::string &section, const std::string &item = "",
          const std::string &value = "") {
    return edit(path.c_str(), section.c_str(), item.c_str(), value.c_str());
  }
};

TEST_F(CfgEdit, ChangesTheFile) {
  const struct {
    Edit edit;
    const char *section, *before;
    const char *after; // item k with the value "new"
  } rows[] = {
      {kAdd, "s", "l=1\n;c\n[s]\n", "[NULL]\nl=1\n[s]\nk=new\n"},
      {kAdd, "s", "[s]\nl=1\n[t]\nk=2\n[s]\nm=3", "[s]\nl=1\nm=3\nk=new\n[t]\nk=2\n"},
      {kAdd, "NULL", "[s]\nk=1\n", "[s]\nk=1\n[NULL]\nk=new\n"},
      {kSet, "s", "[t]\nk=1\n[s]\nl=1\nk=1\nm=1\n", "[t]\nk=1\n[s]\nl=1\nk=new\nm=1\n"},
      {kDelete, "s", "[t]\nk=1\n[s]\nk=1\n", "[t]\nk=1\n"},
      {kDeleteSection, "s", "[s]\nk=1\nl=2\n[t]\nk=1\n[s]\nm=3\n", "[t]\nk=1\n"},
      {kWrite, "s", "", "[s]\nk=new\n"},
      {kWrite, "s", "[s]\nl=2\nk=1\n", "[s]\nl=2\nk=new\n"},
      {kWrite, "s", "[s]\nl=2\n[t]\nm=3\n", "[s]\nl=2\nk=new\n[t]\nm=3\n"},
      {kWrite, "t", "[s]\nl=2\n", "[s]\nl=2\n[t]\nk=new\n"},
      {kWrite, "NULL", "k=1", "[NULL]\nk=new\n"},
      {kWrite, "s", ";c\n\n  l = 2 \n[ e ]\n[s]\nk=1", "[NULL]\nl=2\n[s]\nk=new\n"},
      // Only the first item of a section is found by its section.
      {kWrite, "s", "[t]\nk=1\n[s]\nk=1\n[u]\nk=1\n", "[t]\nk=1\n[s]\nk=new\n[u]\nk=1\n"},
      {kWrite, "s", "[t]\nl=1\nk=1\n[s]\nk=1\n", "[t]\nl=1\nk=new\n[s]\nk=new\n"},
      // A repeated section keeps its headers, except one that follows itself.
      {kWrite, "s", "[s]\nl=1\n[t]\nm=1\n[s]\nk=1\n", "[s]\nl=1\nk=new\n[t]\nm=1\n[s]\nk=new\n"},
      {kWrite, "s", "[s]\nl=1\n[t]\n[s]\nk=1\nk=2\n", "[s]\nl=1\nk=new\nk=new\n"},
      {kWrite, "s", "[]\nl=1\n", "l=1\n[s]\nk=new\n"},
      // Written as given; a read drops blanks at the ends.
      {kWrite, "a b", "", "[a b]\nk=new\n"},
  };
  for (const auto &row : rows) {
    scratch::write_file(path, row.before);
    EXPECT_EQ(run(row.edit, row.section, "k", "new"), 0) << row.before;
    EXPECT_EQ(scratch::read_file(path), row.after) << row.before;
  }
  EXPECT_FALSE(is_there(temporary));
  EXPECT_NO_MESSAGE();
}

TEST_F(CfgEdit, RefusesWithoutAChangeOfTheFile) {
  const std::string before = "[s]\nk=1\n";
  const std::string name64(64, 'n');
  const struct {
    Edit edit;
    std::string section, item, value, why; // where the first text begins
  } rows[] = {
      {kAdd, "s", "k", "v", "E add item fail, item(k) is already exist"},
      {kAdd, "s", name64, "v", "E Strcpy pItemName failed."},
      {kAdd, name64, "k", "v", "E Copy section name (" + name64 + ") fail in new section node."},
      {kSet, "s", "k", "v\n[x]", "E Section, item or value holds a line end."},
      {kSet, "t", "k", "v", "Can't find section=t"},
      {kDelete, "s", "l", "", "E Delete item failed.item(l) is not exist in file("},
      {kDeleteSection, "t", "", "", "E Delete section(t) is not exist in file("},
  };
  scratch::write_file(path, before);
  for (const auto &row : rows) {
    EXPECT_EQ(run(row.edit, row.section, row.item, row.value), -1);
    const auto lines = capture::take_lines();
    EXPECT_TRUE(lines.at(0).starts_with(row.why)) << lines[0];
    EXPECT_EQ(lines.at(lines.size() - 2), "E Exec v_pfnProc(" + path + ") failed.");
  }
  const int fd = open(path.c_str(), O_RDWR | O_CLOEXEC);
  vorn_cfg_oper_param_s param{path.c_str(), "s", "l", "1"};
  EXPECT_EQ(vorn_cfg_file_writeOperate(fd, &param, vorn_cfg_del_item_func), -1);
  EXPECT_FALSE(is_locked(path)); // through the caller's descriptor, which is still open
  EXPECT_EQ(close(fd), 0);
  for (const Edit edit : {kAdd, kWrite}) { // texts that would add lines
    for (const std::string bad : {"a\nb=c", "a\rb"}) {
      EXPECT_EQ(run(edit, bad, "k", "v"), -1);
      EXPECT_EQ(run(edit, "s", bad, "v"), -1);
      EXPECT_EQ(run(edit, "s", "l", bad), -1);
    }
  }
  EXPECT_EQ(scratch::read_file(path), before);
  EXPECT_FALSE(is_there(temporary));
}

TEST_F(CfgEdit, KeepsModeAndOwner) {
  scratch::write_file(path, "");
  ASSERT_EQ(chmod(path.c_str(), 0664), 0);
  const bool can_give = chown(path.c_str(), 12345, 23456) == 0;
  umask(077);
  EXPECT_EQ(run(kAdd, "s", "k", "v"), 0);
  struct stat status;
  ASSERT_EQ(stat(path.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0664u);
  if (can_give) {
    EXPECT_EQ(status.st_uid, 12345u);
    EXPECT_EQ(status.st_gid, 23456u);
  }
}

TEST_F(CfgEdit, ReplacesAStaleTemporaryFile) {
  scratch::write_file(path, "[s]\nk=1\n");
  scratch::write_file(other, "mine");
  scratch::write_file(temporary, std::string(10000, 'x'));
  EXPECT_EQ(run(kAdd, "s", "l", "2"), 0);
  EXPECT_FALSE(is_there(temporary));
  ASSERT_EQ(symlink(other.c_str(), temporary.c_str()), 0); // the link is not followed
  EXPECT_EQ(run(kDelete, "s", "k"), 0);
  EXPECT_EQ(scratch::read_file(path), "[s]\nl=2\n");
  EXPECT_EQ(scratch::read_file(other), "mine");
  ASSERT_EQ(mkdir(temporary.c_str(), 0700), 0);
  EXPECT_EQ(run(kDelete, "s", "l"), -1);
  EXPECT_EQ(capture::take_lines().front(),
            "E Open " + temporary + " failed.errno(" + std::strerror(EEXIST) + ").");
  EXPECT_EQ(scratch::read_file(path), "[s]\nl=2\n");
}

TEST_F(CfgEdit, RefreshesTheRegistry) {
  scratch::write_file(path, "[s]\nk=1\nl=1\n");
  ASSERT_EQ(vorn_cfg_init(path.c_str()), 0);
  ASSERT_EQ(vorn_cfg_init(path.c_str()), 0);
  ASSERT_EQ(vorn_cfg_setItemValue_ex(path.c_str(), "s", "l", "memory"), 0);
  EXPECT_EQ(run(kSet, "s", "k", "2"), 0);
  EXPECT_EQ(get("s", "k") + get("s", "l"), "21");
  EXPECT_EQ(run(kDelete, "s", "l"), 0);
  EXPECT_EQ(get("s", "k") + get("s", "l"), "2?");
  vorn_cfg_destroy_ex(path.c_str());
  EXPECT_EQ(get("s", "k"), "2"); // the count is still 1
  vorn_cfg_destroy_ex(path.c_str());
  EXPECT_EQ(get("s", "k"), "?");
}

// The descriptor stays the caller's, even if its file was replaced.
TEST_F(CfgEdit, EditsTheFileThatThePathNames) {
  scratch::write_file(path, "[s]\nk=old\n");
  const int fd = open(path.c_str(), O_RDWR | O_CLOEXEC);
  ASSERT_EQ(rename(path.c_str(), other.c_str()), 0);
  scratch::write_file(path, "[s]\nk=new\n");
  vorn_cfg_oper_param_s param{path.c_str(), "s", "l", "1"};
  EXPECT_EQ(vorn_cfg_file_writeOperate(fd, &param, vorn_cfg_add_item_func), 0);
  EXPECT_EQ(scratch::read_file(path), "[s]\nk=new\nl=1\n");
  EXPECT_EQ(scratch::read_file(other), "[s]\nk=old\n");
  EXPECT_FALSE(is_locked(path) || is_locked(other));
  EXPECT_NO_MESSAGE();
  ASSERT_EQ(remove(path.c_str()), 0);
  EXPECT_EQ(vorn_cfg_file_writeOperate(fd, &param, vorn_cfg_add_item_func), -1);
  EXPECT_EQ(capture::take_lines().at(0), "E Open file<" + path + "> failed, errno<2>");
  EXPECT_EQ(close(fd), 0);
}

using CfgWrite = CfgEdit; // in place

TEST_F(CfgWrite, KeepsLinksAndDoesNotChangeTheRegistry) {
  scratch::write_file(path, "[s]\nk=1\n");
  ASSERT_EQ(link(path.c_str(), other.c_str()), 0);
  ASSERT_EQ(vorn_cfg_init(path.c_str()), 0);
  EXPECT_EQ(run(kWrite, "s", "k", "2"), 0);
  EXPECT_EQ(scratch::read_file(other), "[s]\nk=2\n");
  EXPECT_EQ(get("s", "k"), "1");
  vorn_cfg_destroy();
}

// The value is written many times: the text outgrows its buffer.
TEST_F(CfgWrite, WritesNothingWhenTheTextDoesNotFit) {
  constexpr std::size_t kSlack = 0x400080;
  std::string before = "[t]\nl=1\n";
  for (int i = 0; i < 5; ++i)
    before += "k=1\n";
  scratch::write_file(path, before);
  const std::string big(1 << 20, 'v');
  EXPECT_EQ(run(kWrite, "s", "k", big), 22);
  const std::string room = std::to_string(before.size() + kSlack - 8 - 4 * (big.size() + 3));
  EXPECT_ONE_MESSAGE(EVLOG_ERROR, "vorn_cfg.c", "vorn_write_item_func",
                     "sprintf_s secure function failed, destMax<" + room + ">.");
  EXPECT_EQ(scratch::read_file(path), before);

  // A new item: the text and a NUL fill the buffer exactly.
  scratch::write_file(path, "");
  const std::string fits(kSlack - 1 - std::string("[s]\nk=\n").size(), 'v');
  EXPECT_EQ(run(kWrite, "s", "k", fits + "v"), 22);
  EXPECT_EQ(capture::take_lines().at(0), "E sprintf_s secure function failed, destMax<4194432>.");
  EXPECT_EQ(scratch::read_file(path), "");
  EXPECT_EQ(run(kWrite, "s", "k", fits), 0);
  EXPECT_EQ(scratch::read_file(path), "[s]\nk=" + fits + "\n");
  EXPECT_NO_MESSAGE();
}

TEST_F(CfgWrite, ClosesDescriptorZeroForANameThatIsTooLong) {
  const std::string name63(63, 'n');
  EXPECT_EQ(run(kWrite, name63, name63, "v"), 0);
  EXPECT_NE(fcntl(0, F_GETFD), -1);
  const std::string before = scratch::read_file(path);
  EXPECT_EQ(run(kWrite, "s", name63 + "n", "v"), -1);
  EXPECT_ONE_MESSAGE(EVLOG_ERROR, "vorn_cfg.c", "vorn_cfg_write_item_to_file",
                     "Strcpy_s failed pSection<s>, pItemName<" + name63 +
                         "n>, pItemValue<v>, iRet = 34.");
  EXPECT_EQ(fcntl(0, F_GETFD), -1);
  EXPECT_EQ(scratch::read_file(path), before);
}

} // namespace
