#include "vorn_cfg.h"

#include <cstring>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include "evlog.h"
#include "support/log_capture.hpp"
#include "support/scratch.hpp"
#include "vorn_mem.h"

namespace {

struct CfgEdit : testing::Test {
  scratch::Directory directory;
  const std::string path = directory / "f.ini";
  const std::string temporary = path + ".temp";

  bool is_there(const std::string &file) { return access(file.c_str(), F_OK) == 0; }
  std::string get(const char *section, const char *item) {
    char value[64] = "?";
    vorn_cfg_getItemValue_ex(path.c_str(), section, item, value, sizeof value);
    return value;
  }
  int write(const std::string &section, const std::string &item, const std::string &value) {
    return vorn_cfg_write_item_to_file(path.c_str(), section.c_str(), item.c_str(), value.c_str());
  }
};

enum Edit { kAdd, kSet, kDelete, kDeleteSection };

int run(Edit edit, const char *path, const char *section, const char *item, const char *value) {
  switch (edit) {
  case kAdd:
    return vorn_cfg_file_addItem(path, section, item, value);
  case kSet:
    return vorn_cfg_file_setItemValue(path, section, item, value);
  case kDelete:
    return vorn_cfg_file_delItem(path, section, item);
  default:
    return vorn_cfg_file_delSection(path, section);
  }
}

TEST_F(CfgEdit, ChangesTheFile) {
  const struct {
    Edit edit;
    const char *section, *item, *before;
    const char *after; // with the value "new"
  } rows[] = {
      {kAdd, "s", "k", "l=1\n;c\n[s]\n", "[NULL]\nl=1\n[s]\nk=new\n"},
      {kAdd, "s", "k", "[s]\nl=1\n[t]\nk=2\n[s]\nm=3", "[s]\nl=1\nm=3\nk=new\n[t]\nk=2\n"},
      {kAdd, "NULL", "k", "[s]\nk=1\n", "[s]\nk=1\n[NULL]\nk=new\n"},
      {kSet, "s", "k", "[t]\nk=1\n[s]\nl=1\nk=1\nm=1\n", "[t]\nk=1\n[s]\nl=1\nk=new\nm=1\n"},
      {kDelete, "s", "k", "[t]\nk=1\n[s]\nk=1\n", "[t]\nk=1\n"},
      {kDeleteSection, "s", nullptr, "[s]\nk=1\nl=2\n[t]\nk=1\n[s]\nm=3\n", "[t]\nk=1\n"},
  };
  for (const auto &row : rows) {
    scratch::write_file(path, row.before);
    EXPECT_EQ(run(row.edit, path.c_str(), row.section, row.item, "new"), 0) << row.before;
    EXPECT_EQ(scratch::read_file(path), row.after) << row.before;
  }
  EXPECT_FALSE(is_there(temporary));
  EXPECT_NO_RECORD();
}

TEST_F(CfgEdit, LeavesTheFileAloneWhereItRefuses) {
  const std::string before = "[s]\nk=1\n";
  const std::string name64(64, 'n');
  const struct {
    Edit edit;
    std::string section, item, value, why; // where the first text begins
  } rows[] = {
      {kAdd, "s", "k", "v", "add item fail, item(k) is already exist"},
      {kAdd, "s", name64, "v", "Strcpy pItemName failed."},
      {kAdd, name64, "k", "v", "Copy section name (" + name64 + ") fail in new section node."},
      {kAdd, "s", "l", "v\n[x]", "Section, item or value holds a line end."},
      {kAdd, "s", "l\n", "v", "Section, item or value holds a line end."},
      {kAdd, "s\r", "l", "v", "Section, item or value holds a line end."},
      {kSet, "t", "k", "v", "Can't find section=t"},
      {kDelete, "t", "k", "", "Delete item failed.Section(t) is not exist in file("},
      {kDelete, "s", "l", "", "Delete item failed.item(l) is not exist in file("},
      {kDeleteSection, "t", "", "", "Delete section(t) is not exist in file("},
  };
  scratch::write_file(path, before);
  for (const auto &row : rows) {
    EXPECT_EQ(run(row.edit, path.c_str(), row.section.c_str(), row.item.c_str(), row.value.c_str()),
              -1);
    const auto texts = capture::take_texts();
    EXPECT_EQ(texts.at(0).substr(0, row.why.size()), row.why);
    EXPECT_EQ(texts.at(texts.size() - 2), "Exec v_pfnProc(" + path + ") failed.");
    EXPECT_EQ(scratch::read_file(path), before);
  }
  EXPECT_FALSE(is_there(temporary));
}

TEST_F(CfgEdit, KeepsModeAndOwner) {
  scratch::write_file(path, "");
  ASSERT_EQ(chmod(path.c_str(), 0664), 0);
  const bool can_give = chown(path.c_str(), 12345, 23456) == 0;
  umask(077);
  EXPECT_EQ(vorn_cfg_file_addItem(path.c_str(), "s", "k", "v"), 0);
  struct stat status;
  ASSERT_EQ(stat(path.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0664u);
  if (can_give) {
    EXPECT_EQ(status.st_uid, 12345u);
    EXPECT_EQ(status.st_gid, 23456u);
  }
}

TEST_F(CfgEdit, RemovesWhatIsLeftOver) {
  const std::string other = directory / "other";
  scratch::write_file(path, "[s]\nk=1\n");
  scratch::write_file(other, "mine");
  scratch::write_file(temporary, std::string(10000, 'x'));
  EXPECT_EQ(vorn_cfg_file_addItem(path.c_str(), "s", "l", "2"), 0);
  EXPECT_FALSE(is_there(temporary));
  ASSERT_EQ(symlink(other.c_str(), temporary.c_str()), 0); // is not followed
  EXPECT_EQ(vorn_cfg_file_delItem(path.c_str(), "s", "k"), 0);
  EXPECT_EQ(scratch::read_file(path), "[s]\nl=2\n");
  EXPECT_EQ(scratch::read_file(other), "mine");
  ASSERT_EQ(mkdir(temporary.c_str(), 0700), 0);
  capture::take();
  EXPECT_EQ(vorn_cfg_file_delItem(path.c_str(), "s", "l"), -1);
  EXPECT_EQ(capture::take_texts().front(),
            "Open " + temporary + " failed.errno(" + std::strerror(EEXIST) + ").");
  EXPECT_EQ(scratch::read_file(path), "[s]\nl=2\n");
}

TEST_F(CfgEdit, RefreshesTheRegistry) {
  scratch::write_file(path, "[s]\nk=1\nl=1\n");
  ASSERT_EQ(vorn_cfg_init(path.c_str()), 0);
  ASSERT_EQ(vorn_cfg_init(path.c_str()), 0);
  ASSERT_EQ(vorn_cfg_setItemValue_ex(path.c_str(), "s", "l", "memory"), 0);
  EXPECT_EQ(vorn_cfg_file_setItemValue(path.c_str(), "s", "k", "2"), 0);
  EXPECT_EQ(get("s", "k") + get("s", "l"), "21");
  EXPECT_EQ(vorn_cfg_file_delItem(path.c_str(), "s", "l"), 0);
  EXPECT_EQ(get("s", "k") + get("s", "l"), "2?");
  vorn_cfg_destroy_ex(path.c_str());
  EXPECT_EQ(get("s", "k"), "2"); // the count is still 1
  vorn_cfg_destroy_ex(path.c_str());
  EXPECT_EQ(get("s", "k"), "?");
}

// The descriptor is the caller's before and after, whatever file it is of by now.
TEST_F(CfgEdit, EditsTheFileThatThePathNames) {
  scratch::write_file(path, "[s]\nk=old\n");
  const int fd = open(path.c_str(), O_RDWR | O_CLOEXEC);
  ASSERT_EQ(rename(path.c_str(), (directory / "old").c_str()), 0);
  scratch::write_file(path, "[s]\nk=new\n");
  vorn_cfg_oper_param_s param{path.c_str(), "s", "l", "1"};
  EXPECT_EQ(vorn_cfg_file_writeOperate(fd, &param, vorn_cfg_add_item_func), 0);
  EXPECT_EQ(scratch::read_file(path), "[s]\nk=new\nl=1\n");
  EXPECT_EQ(scratch::read_file(directory / "old"), "[s]\nk=old\n");
  EXPECT_NO_RECORD();
  ASSERT_EQ(remove(path.c_str()), 0);
  EXPECT_EQ(vorn_cfg_file_writeOperate(fd, &param, vorn_cfg_add_item_func), -1);
  EXPECT_ONE_RECORD(EVLOG_ERROR, "vorn_cfg.c", "vorn_cfg_file_writeOperate",
                    "Open file<" + path + "> failed, errno<2>");
  EXPECT_EQ(close(fd), 0);
}

using CfgWrite = CfgEdit; // in place

TEST_F(CfgWrite, SetsOneItem) {
  const struct {
    const char *before;
    const char *section;
    const char *item;
    const char *after; // with the value "new"
  } rows[] = {
      {"", "s", "k", "[s]\nk=new\n"},
      {"[s]\nl=2\nk=1\n", "s", "k", "[s]\nl=2\nk=new\n"},
      {"[s]\nl=2\n[t]\nm=3\n", "s", "k", "[s]\nl=2\nk=new\n[t]\nm=3\n"},
      {"[s]\nl=2\n", "t", "k", "[s]\nl=2\n[t]\nk=new\n"},
      {"[s]\n", "s", "k", "[s]\nk=new\n"},
      {"k=1", "NULL", "k", "[NULL]\nk=new\n"},
      {";c\n\n  l = 2 \n[ e ]\n[s]\nk=1", "s", "k", "[NULL]\nl=2\n[s]\nk=new\n"},
      // The first item of a section is told by its section, later ones are not.
      {"[t]\nk=1\n[s]\nk=1\n[u]\nk=1\n", "s", "k", "[t]\nk=1\n[s]\nk=new\n[u]\nk=1\n"},
      {"[t]\nl=1\nk=1\n[s]\nk=1\n", "s", "k", "[t]\nl=1\nk=new\n[s]\nk=new\n"},
      // A section that comes again keeps its headers, but for one behind itself.
      {"[s]\nl=1\n[t]\nm=1\n[s]\nk=1\n", "s", "k", "[s]\nl=1\nk=new\n[t]\nm=1\n[s]\nk=new\n"},
      {"[s]\nl=1\n[t]\n[s]\nk=1\nk=2\n", "s", "k", "[s]\nl=1\nk=new\nk=new\n"},
      {"[]\nl=1\n", "s", "k", "l=1\n[s]\nk=new\n"},
      // Written as given; blanks at the ends are not read back.
      {"", "a b", "k.l", "[a b]\nk.l=new\n"},
  };
  for (const auto &row : rows) {
    scratch::write_file(path, row.before);
    EXPECT_EQ(write(row.section, row.item, "new"), 0) << row.before;
    EXPECT_EQ(scratch::read_file(path), row.after) << row.before;
  }
  EXPECT_NO_RECORD();
}

TEST_F(CfgWrite, KeepsLinksAndLeavesTheRegistryAlone) {
  scratch::write_file(path, "[s]\nk=1\n");
  const std::string other = directory / "other";
  ASSERT_EQ(link(path.c_str(), other.c_str()), 0);
  ASSERT_EQ(vorn_cfg_init(path.c_str()), 0);
  EXPECT_EQ(write("s", "k", "2"), 0);
  EXPECT_EQ(scratch::read_file(other), "[s]\nk=2\n");
  char value[8];
  EXPECT_EQ(vorn_cfg_getItemValue("s", "k", value, sizeof value), 0);
  EXPECT_STREQ(value, "1");
  vorn_cfg_destroy();
}

// The value goes to many places: the text outgrows its buffer.
TEST_F(CfgWrite, WritesNothingWhenTheTextDoesNotFit) {
  constexpr std::size_t kSlack = 0x400080;
  std::string before = "[t]\nl=1\n";
  for (int i = 0; i < 5; ++i)
    before += "k=1\n";
  scratch::write_file(path, before);
  const std::string big(1 << 20, 'v');
  EXPECT_EQ(write("s", "k", big), 22);
  const std::string room = std::to_string(before.size() + kSlack - 8 - 4 * (big.size() + 3));
  EXPECT_ONE_RECORD(EVLOG_ERROR, "vorn_cfg.c", "vorn_write_item_func",
                    "sprintf_s secure function failed, destMax<" + room + ">.");
  EXPECT_EQ(scratch::read_file(path), before);

  // To the byte, where the item is new: the text and a zero fill the buffer.
  scratch::write_file(path, "");
  const std::string fits(kSlack - 1 - std::string("[s]\nk=\n").size(), 'v');
  EXPECT_EQ(write("s", "k", fits + "v"), 22);
  EXPECT_ONE_RECORD(EVLOG_ERROR, "vorn_cfg.c", "vorn_cfg_write_item_to_file",
                    "sprintf_s secure function failed, destMax<4194432>.");
  EXPECT_EQ(scratch::read_file(path), "");
  EXPECT_EQ(write("s", "k", fits), 0);
  EXPECT_EQ(scratch::read_file(path), "[s]\nk=" + fits + "\n");
  EXPECT_NO_RECORD();
}

TEST_F(CfgWrite, RefusesWhatWouldForgeLines) {
  scratch::write_file(path, "[s]\nk=1\n");
  for (const char *bad : {"a\nb=c", "a\rb"}) {
    EXPECT_EQ(write(bad, "k", "v"), -1);
    EXPECT_EQ(write("s", bad, "v"), -1);
    EXPECT_EQ(write("s", "k", bad), -1);
  }
  EXPECT_EQ(scratch::read_file(path), "[s]\nk=1\n");
}

TEST_F(CfgWrite, ClosesDescriptorZeroForANameThatIsTooLong) {
  const std::string name63(63, 'n');
  EXPECT_EQ(write(name63, name63, "v"), 0);
  EXPECT_NE(fcntl(0, F_GETFD), -1);
  const std::string before = scratch::read_file(path);
  EXPECT_EQ(write("s", name63 + "n", "v"), -1);
  EXPECT_ONE_RECORD(EVLOG_ERROR, "vorn_cfg.c", "vorn_cfg_write_item_to_file",
                    "Strcpy_s failed pSection<s>, pItemName<" + name63 +
                        "n>, pItemValue<v>, iRet = 34.");
  EXPECT_EQ(fcntl(0, F_GETFD), -1);
  EXPECT_EQ(scratch::read_file(path), before);
}

} // namespace
