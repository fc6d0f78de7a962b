#include "vorn_cfg.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include "evlog.h"
#include "support/log_capture.hpp"
#include "support/scratch.hpp"

namespace {

using namespace std::string_literals;

std::string content;

// Shows what was parsed, and gives the edit up.
int show(vorn_cfg_file_node_s *node, const char *, const char *, const char *) {
  content.clear();
  for (auto *s = vorn_list_first(&node->sections); s; s = vorn_list_next(&node->sections, s)) {
    const auto *section = vorn_list_entry(s, vorn_cfg_section_node_s, link);
    content += "["s + section->name + "]";
    for (auto *i = vorn_list_first(&section->items); i; i = vorn_list_next(&section->items, i)) {
      const auto *item = vorn_list_entry(i, vorn_cfg_item_node_s, link);
      content += item->name + "="s + item->value + "|";
    }
  }
  return -1;
}

// The sections and items of a file with that text. Records of the parse are left to be taken.
std::string parsed(const std::string &text) {
  const scratch::Directory directory;
  const std::string path = directory / "f.ini";
  scratch::write_file(path, text);
  const int fd = open(path.c_str(), O_RDWR | O_CLOEXEC);
  vorn_cfg_oper_param_s param{path.c_str(), nullptr, nullptr, nullptr};
  EXPECT_EQ(vorn_cfg_file_writeOperate(fd, &param, show), -1);
  close(fd);
  EXPECT_EQ(scratch::read_file(path), text);
  return content;
}

TEST(CfgParse, ReadsSectionsAndItems) {
  const std::string name63(63, 'n');
  const struct {
    std::string text;
    std::string wanted;
  } rows[] = {
      {"k=v", "[NULL]k=v|"},               // no header, no final line feed
      {"[a]\n[b]\nk=v\n[c]\n", "[b]k=v|"}, // headers without items
      {"[a]\nk=1\n[b]\nk=2\n[a]\nl=3\n", "[a]k=1|l=3|[b]k=2|"},
      {"[a]\nk=1\nl=2\nk=3\n", "[a]l=2|k=3|"},     // the last value, at the end
      {"=v\n[a]\n;k=v\n; [b]\n x=1\n", "[a]x=1|"}, // comments
      {"[ \ta ]  \nk=v\n", "[a]k=v|"},
      {" [a]\n[a-b]\n[a b]\n[a\nk=v\n", "[NULL]k=v|"}, // no headers
      {"[" + name63 + "]\nk=v\n", "[" + name63 + "]k=v|"},
      {"[ " + name63 + "]\nk=v\n", "[NULL]k=v|"}, // the line counts, blanks included
      {name63 + "=v\n" + name63 + "n=w\n", "[NULL]" + name63 + "=v|"},
      {"k = v ; note # more\n", "[NULL]k=v ; note # more|"},
      {"k=a=b==c\nl=\n = m\n", "[NULL]k=a=b==c|l=|=m|"},
      {"\t k\t = \t v v \t \n", "[NULL]k=v v|"},
      {"#k=1\nk.l=1\nk l=1\n\xC3\xA4=1\nno item\n", ""},
      {"K=1\nk=2\nk_9=3\n", "[NULL]K=1|k=2|k_9=3|"},
      {"a=1\r\n\r\nb=2\r\r\n\rc\r=3\r", "[NULL]a=1|b=2|c=3|"},
      {"a=1\0b=2\nc=3\n\0d=4\n"s, "[NULL]a=1|c=3|"}, // cut at a NUL
      {"\n\n \t\n\xFF\xFE=\n", ""},
  };
  for (const auto &row : rows)
    EXPECT_EQ(parsed(row.text), row.wanted) << row.text;
}

TEST(CfgParse, RecordsWhatItDrops) {
  const std::string key(64, 'k');
  const struct {
    std::string text;
    std::vector<std::string> wanted; // the beginnings
  } rows[] = {
      {"[a-b]\n", {"The input string ([a-b]) is not a section string."}},
      {" k.l = v \n", {"The input string ( k.l = v) is not a valid config item."}},
      {"[a=b]\n",
       {"The input string ([a=b]) is not a section string.",
        "The input string ([a=b]) is not a valid config item."}},
      {key + "=v\n[" + key + "]\nnothing\n;k\n[a-" + key + "]\n", {}},
      {std::string(0x400041, 'k'), {"The length (4194369) of string (kkkkkk"}},
      {"k=" + std::string(0x400000, 'v'), {"copy item (k=vvvvv"}},
  };
  for (const auto &row : rows) {
    parsed(row.text);
    const auto records = capture::take();
    ASSERT_EQ(records.size(), row.wanted.size() + 1); // and the edit that was given up
    for (std::size_t i = 0; i < row.wanted.size(); ++i) {
      EXPECT_EQ(records[i].text.substr(0, row.wanted[i].size()), row.wanted[i]);
      EXPECT_EQ(records[i].level,
                row.text[0] == 'k' && row.text[1] == '=' ? EVLOG_ERROR : EVLOG_DEBUG);
    }
  }
}

TEST(CfgParse, KeepsToItsLimits) {
  constexpr std::size_t kLine = 0x400041;
  const std::string value(0x3FFFFF, 'v');
  const struct {
    std::string text;
    std::string wanted;
  } rows[] = {
      {"k=" + value, "[NULL]k=" + value + "|"},
      // Blanks at the ends do not count, a carriage return nowhere.
      {std::string(0x3E, ' ') + "\r\rk=" + value + " \nl=1\n", "[NULL]k=" + value + "|l=1|"},
      {"k=" + value + "v\nl=1\n", "[NULL]l=1|"},
      // A line that is too long is read as several: the first is dropped, the next may be an item.
      {std::string(kLine, 'k') + "a=b\nl=1\n", "[NULL]a=b|l=1|"},
      {std::string(kLine - 1, 'k') + "a=b\nl=1\n", "[NULL]l=1|"},
      {"k=" + std::string(kLine - 3, 'x') + "\nl=1", "[NULL]l=1|"},
      {"l=1\nk=" + std::string(5 << 20, 'x'), "[NULL]l=1|"},
  };
  for (const auto &row : rows)
    EXPECT_TRUE(parsed(row.text) == row.wanted) << &row - rows;
}

TEST(CfgParse, TakesManyItemsAndSections) {
  const scratch::Directory directory;
  const std::string path = directory / "f.ini";
  for (const bool in_sections : {false, true}) {
    std::string text;
    for (int i = 0; i < 100000; ++i) {
      if (in_sections) text += "[s" + std::to_string(i) + "]\n";
      text += "key_" + std::to_string(i) + "=" + std::to_string(i) + "\n";
    }
    scratch::write_file(path, text);
    ASSERT_EQ(vorn_cfg_init(path.c_str()), 0);
    char value[16];
    for (const std::string i : {"0", "4711", "99999"}) {
      const std::string section = in_sections ? "s" + i : "NULL";
      const std::string item = "key_" + i;
      ASSERT_EQ(vorn_cfg_getItemValue(section.c_str(), item.c_str(), value, sizeof value), 0);
      EXPECT_EQ(value, i);
    }
    vorn_cfg_destroy();
  }
}

TEST(CfgParse, RefusesWhatIsNoFile) {
  const scratch::Directory directory;
  const std::string fifo = directory / "fifo";
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  const struct {
    std::string path;
    const char *error;
  } rows[] = {{directory / "none", "2"},
              {directory.path(), "21"},
              {fifo, "29"},
              {std::string(255, 'p'), "2"}};
  for (const auto &row : rows) {
    EXPECT_EQ(vorn_cfg_init(row.path.c_str()), -1);
    const std::vector<std::string> wanted = {"Open file (" + row.path + ") failed, fd -1 errno " +
                                                 row.error,
                                             "Parse config file " + row.path + " failed."};
    EXPECT_EQ(capture::take_texts(), wanted);
  }
  EXPECT_EQ(vorn_cfg_init(std::string(256, 'p').c_str()), -1);
  EXPECT_EQ(capture::take_texts().front(), "File name length too long.");
}

TEST(CfgText, KeepsWhatCanBePrinted) {
  const struct {
    const char *src;
    int src_length, size, result;
    const char *wanted;
  } rows[] = {
      {"Model 7\n", 8, 16, 0, "Model 7"},
      {"abc", 2, 16, 0, "ab"},
      {"abc", 9, 10, 0, "abc"},
      {"abc", 3, 3, -1, "?"},
      {"abc", 0, 1, 0, ""},
      {"abc", -1, 1, 0, ""},
      {"abc", -1, 0, -1, "?"},
      {"\x80", 1, 2, 0, ""},
  };
  for (const auto &row : rows) {
    char dst[16] = "?";
    EXPECT_EQ(vorn_remove_noneprint_characters(row.src, row.src_length, dst, row.size), row.result);
    EXPECT_STREQ(dst, row.wanted);
  }
}

} // namespace
