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
      {kAdd, "", "", "[s]\nk=1\n", "[s]\nk=1\n[]\n =new\n"},
      {kSet, "s", "k", "[t]\nk=1\n[s]\nl=1\nk=1\nm=1\n", "[t]\nk=1\n[s]\nl=1\nk=new\nm=1\n"},
      {kDelete, "s", "k", "[t]\nk=1\n[s]\nk=1\n", "[t]\nk=1\n"},
      {kDelete, "s", "k", "[s]\nk=1\n", ""},
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

TEST_F(CfgEdit, RecordsWhyItCannot) {
  const std::string before = "[s]\nk=1\n";
  const std::string name64(64, 'n');
  const std::string end = "Section, item or value holds a line end.";
  const std::string proc = "Exec v_pfnProc(" + path + ") failed.";
  const std::string endings[] = {
      "Exec write operate failed.", "exec write operate to set item value failed.",
      "Exec write operate to del item failed.", "Exec write operate to del section<t> failed."};
  const std::string no_item = "Set item failed.item(k) is not exist in file(" + path + ").";
  const std::string from = " is not exist in file(" + path + ").";
  const char *n = name64.c_str();
  const struct {
    Edit edit;
    const char *section, *item, *value;
    std::vector<std::string> texts; // before those that each failed edit has
  } rows[] = {
      {kAdd, "s", "k", "v", {"add item fail, item(k) is already exist"}},
      {kAdd, "s", n, "v", {"Strcpy pItemName failed.", "new item node(" + name64 + ",v) fail."}},
      {kAdd, n, "k", "v", {"Copy section name (" + name64 + ") fail in new section node."}},
      {kAdd, "s", "l", "v\n[x]", {end}},
      {kAdd, "s", "l\n", "v", {end}},
      {kAdd, "s\r", "l", "v", {end}},
      {kSet, "t", "k", "v", {"Can't find section=t", no_item}},
      {kSet, "s", "k", "\r", {end}},
      {kDelete, "t", "k", nullptr, {"Delete item failed.Section(t)" + from}},
      {kDelete, "s", "l", nullptr, {"Delete item failed.item(l)" + from}},
      {kDeleteSection, "t", nullptr, nullptr, {"Delete section(t)" + from}},
  };
  scratch::write_file(path, before);
  for (const auto &row : rows) {
    EXPECT_EQ(run(row.edit, path.c_str(), row.section, row.item, row.value), -1);
    auto wanted = row.texts;
    wanted.insert(wanted.end(), {proc, endings[row.edit]});
    EXPECT_EQ(capture::take_texts(), wanted);
    EXPECT_EQ(scratch::read_file(path), before);
  }
  const std::string none = directory / "none";
  EXPECT_EQ(run(kAdd, none.c_str(), "s", "k", "v"), -1);
  EXPECT_EQ(run(kSet, none.c_str(), "s", "k", "v"), -1);
  EXPECT_EQ(run(kAdd, path.c_str(), "s", nullptr, "v"), -1);
  EXPECT_EQ(run(kSet, path.c_str(), nullptr, "k", "v"), -1);
  EXPECT_EQ(run(kDelete, path.c_str(), "s", nullptr, nullptr), -1);
  EXPECT_EQ(run(kDeleteSection, path.c_str(), nullptr, nullptr, nullptr), -1);
  const std::vector<std::string> wanted = {"Open file<" + none + "> failed, errno<2>",
                                           "open file<" + none + "> failed, errno<2>",
                                           "Param is null.",
                                           "param is null.",
                                           "Param is null.",
                                           "Param is null."};
  EXPECT_EQ(capture::take_texts(), wanted);
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

TEST_F(CfgEdit, NamesTheItemWhereTheFileCannotBeParsed) {
  const int fd = open(directory.path().c_str(), O_RDONLY | O_CLOEXEC);
  vorn_cfg_oper_param_s param{directory.path().c_str(), "s", "k", "v"};
  EXPECT_EQ(vorn_cfg_file_writeOperate(fd, &param, vorn_cfg_add_item_func), -1);
  EXPECT_EQ(capture::take_texts().back(), "Parse config file k failed.");
  EXPECT_EQ(vorn_cfg_file_writeOperate(fd, nullptr, vorn_cfg_add_item_func), -1);
  EXPECT_EQ(capture::take_texts().back(), "Param is null.");
  close(fd);
}

// A node of the caller's own, written to a file that was longer.
TEST_F(CfgEdit, WritesAnyNode) {
  vorn_cfg_file_node_s node{};
  vorn_list_init_head(&node.sections);
  std::strcpy(node.path, "somewhere");
  scratch::write_file(path, std::string(100, 'x'));
  const int fd = open(path.c_str(), O_RDWR | O_CLOEXEC);
  const std::string big(0x4000E0, 'v');
  EXPECT_EQ(vorn_cfg_add_item_func(&node, "s", "k", "1"), 0);
  EXPECT_EQ(vorn_cfg_set_item_func(&node, "s", "k", "2"), 0);
  EXPECT_EQ(vorn_cfg_add_item_func(&node, "t", "l", big.c_str()), 0);
  EXPECT_EQ(vorn_cfg_writeFnodeTofile(fd, &node), -1); // its 100 bytes are room too
  EXPECT_ONE_RECORD(EVLOG_ERROR, "vorn_cfg.c", "vorn_cfg_writeFnodeTofile",
                    "sprintf_s secure function failed, destMax<4194532>.");
  EXPECT_EQ(scratch::read_file(path), std::string(100, 'x'));
  EXPECT_EQ(vorn_cfg_set_item_func(&node, "t", "l", ""), 0);
  EXPECT_EQ(vorn_cfg_writeFnodeTofile(fd, &node), 0);
  EXPECT_EQ(scratch::read_file(path), "[s]\nk=2\n[t]\nl=\n");
  EXPECT_EQ(vorn_cfg_del_item_func(&node, "s", "k", nullptr), 0);
  EXPECT_EQ(vorn_cfg_del_section_func(&node, "t", nullptr, nullptr), 0);
  EXPECT_TRUE(vorn_list_is_empty(&node.sections));
  EXPECT_EQ(node.lock.word, 0);
  close(fd);
  capture::take();
  EXPECT_EQ(vorn_cfg_writeFnodeTofile(-1, &node), -1);
  EXPECT_ONE_RECORD(EVLOG_ERROR, "vorn_cfg.c", "vorn_cfg_writeFnodeTofile",
                    "Wirte file (-1) fail,errno 9");
}

TEST_F(CfgEdit, MakesATemporaryFile) {
  scratch::write_file(path, "");
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  char *name = nullptr;
  const int created = vorn_cfg_create_tmpfile(path.c_str(), fd, &name);
  ASSERT_GE(created, 0);
  EXPECT_EQ(name, temporary);
  EXPECT_EQ(fcntl(created, F_GETFD), FD_CLOEXEC);
  vorn_free(name);
  close(created);
  close(fd);
  name = nullptr;
  EXPECT_EQ(vorn_cfg_create_tmpfile(path.c_str(), fd, &name), -1);
  EXPECT_EQ(name, nullptr);
}

} // namespace
