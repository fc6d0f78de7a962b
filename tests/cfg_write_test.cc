#include "vorn_cfg.h"

#include <cstdio>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <optional>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

#include "evlog.h"
#include "support/log_capture.hpp"
#include "support/scratch.hpp"

namespace {

struct CfgWrite : testing::Test {
  scratch::Directory directory;
  const std::string path = directory / "f.ini";

  int write(const std::string &section, const std::string &item, const std::string &value) {
    return vorn_cfg_write_item_to_file(path.c_str(), section.c_str(), item.c_str(), value.c_str());
  }
};

TEST_F(CfgWrite, SetsOneItem) {
  const struct {
    const char *before;
    const char *section;
    const char *item;
    const char *after; // with the value "new"
  } rows[] = {
      {"", "s", "k", "[s]\nk=new\n"},
      {"[s]\nk=1\nl=2\n", "s", "k", "[s]\nk=new\nl=2\n"},
      {"[s]\nl=2\nk=1\n", "s", "k", "[s]\nl=2\nk=new\n"},
      {"[s]\nl=2\n[t]\nm=3\n", "s", "k", "[s]\nl=2\nk=new\n[t]\nm=3\n"},
      {"[s]\nl=2\n", "s", "k", "[s]\nl=2\nk=new\n"},
      {"[s]\nl=2\n", "t", "k", "[s]\nl=2\n[t]\nk=new\n"},
      {"[s]\n", "s", "k", "[s]\nk=new\n"},
      {"k=1", "NULL", "k", "[NULL]\nk=new\n"},
      {";c\n\n  l = 2 \n[ e ]\n[s]\nk=1", "s", "k", "[NULL]\nl=2\n[s]\nk=new\n"},
      // The first item of a section is told by its section, later ones are not.
      {"[t]\nk=1\n[s]\nk=1\n[u]\nk=1\n", "s", "k", "[t]\nk=1\n[s]\nk=new\n[u]\nk=1\n"},
      {"[t]\nl=1\nk=1\n[s]\nk=1\n", "s", "k", "[t]\nl=1\nk=new\n[s]\nk=new\n"},
      {"[t]\nl=1\nk=1\n[s]\nl=1\n", "s", "k", "[t]\nl=1\nk=new\n[s]\nl=1\n"},
      {"[t]\nl=1\nk=1\n", "s", "k", "[t]\nl=1\nk=new\n"},
      // A section that comes again keeps its headers, but for one behind itself.
      {"[s]\nl=1\n[t]\nm=1\n[s]\nk=1\n", "s", "k", "[s]\nl=1\nk=new\n[t]\nm=1\n[s]\nk=new\n"},
      {"[s]\nl=1\n[t]\n[s]\nk=1\nk=2\n", "s", "k", "[s]\nl=1\nk=new\nk=new\n"},
      {"[]\nl=1\n", "s", "k", "l=1\n[s]\nk=new\n"},
      {" =1\n", "s", "k", "[NULL]\n =1\n[s]\nk=new\n"},
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

TEST_F(CfgWrite, MakesTheFile) {
  EXPECT_EQ(write("s", "k", " v=1;# "), 0);
  EXPECT_EQ(scratch::read_file(path), "[s]\nk= v=1;# \n");
  struct stat status;
  ASSERT_EQ(stat(path.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0600u);
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
  for (const auto &record : capture::take()) {
    EXPECT_EQ(record.level, EVLOG_ERROR);
    EXPECT_EQ(record.text, "Section, item or value holds a line end.");
  }
  EXPECT_EQ(scratch::read_file(path), "[s]\nk=1\n");
}

TEST_F(CfgWrite, RecordsWhyItCannotWrite) {
  EXPECT_EQ(vorn_cfg_write_item_to_file(nullptr, nullptr, "k", nullptr), -1);
  EXPECT_ONE_RECORD(EVLOG_ERROR, "vorn_cfg.c", "vorn_cfg_write_item_to_file",
                    "Null pointer found, pFile:(nil), pSection:(nil), pItemValue:(nil).");
  EXPECT_EQ(vorn_cfg_write_item_to_file(directory.path().c_str(), "s", "k", "v"), -1);
  EXPECT_ONE_RECORD(EVLOG_ERROR, "vorn_cfg.c", "vorn_cfg_write_item_to_file",
                    "Open file (" + directory.path() + ") fail,errno 21");
  ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
  EXPECT_EQ(write("s", "k", "v"), -1);
  EXPECT_ONE_RECORD(EVLOG_INFO, "vorn_cfg.c", "vorn_cfg_write_item_to_file",
                    "Can't get file size.");
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
