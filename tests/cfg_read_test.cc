// Tests the parser of INI files and lookups.
// SPDX-License-Identifier: Apache-2.0
#include "vorn_cfg.h"

#include <algorithm>
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

// Copies what was parsed, and cancels the edit.
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

// Returns the sections and items of a file with that text. Leaves the log messages of the parse.
std::string parsed(const std::string &text) {
  const scratch::Directory directory;
  const std::string path = directory / "f.ini";
  scratch::write_file(path, text);
  const int fd = open(path.c_str(), O_RDWR | O_CLOEXEC);
  vorn_cfg_oper_param_s param{path.c_str(), nullptr, nullptr, nullptr};
  EXPECT_EQ(vorn_cfg_file_writeOperate(fd, &param, show), -1);
  close(fd);
  return content;
}

TEST(CfgParse, ReadsSectionsAndItems) {
  const std::string name63(63, 'n');
  const struct {
    std::string text;
    std::string wanted;
  } rows[] = {
      {"k=v", "[NULL]k=v|"}, // no header, no final line feed
      {"[c]\n[a]\nk=1\n[b]\nk=2\n[a]\nl=3\n", "[a]k=1|l=3|[b]k=2|"},
      {"[a]\nk=1\nl=2\nk=3\n", "[a]l=2|k=3|"},           // the last value, at the end
      {"=v\n[ \ta ]  \n;k=v\n; [b]\n x=1\n", "[a]x=1|"}, // comments
      {" [a]\n[a-b]\n[a b]\n[a\nk=v\n", "[NULL]k=v|"},   // no headers
      {"[" + name63 + "]\nk=v\n", "[" + name63 + "]k=v|"},
      {"[ " + name63 + "]\nk=v\n", "[NULL]k=v|"}, // the line counts, blanks included
      {name63 + "=v\n" + name63 + "n=w\n", "[NULL]" + name63 + "=v|"},
      {"k = v ; note # more\n", "[NULL]k=v ; note # more|"},
      {"k=a=b==c\nl=\n = m\n", "[NULL]k=a=b==c|l=|=m|"},
      {"#k=1\nk.l=1\nk l=1\n\xC3\xA4=1\nno item\n \t\n", ""},
      {"\t K\t = \t v v \t \nk=2\nk_9=3\n", "[NULL]K=v v|k=2|k_9=3|"},
      {"a=1\r\n\r\nb=2\r\r\n\rc\r=3\r", "[NULL]a=1|b=2|c=3|"},
      {"a=1\0b=2\nc=3\n\0d=4\n"s, "[NULL]a=1|c=3|"}, // cut at a NUL
  };
  for (const auto &row : rows)
    EXPECT_EQ(parsed(row.text), row.wanted) << row.text;
}

TEST(CfgParse, KeepsItsLimits) {
  constexpr std::size_t kLine = 0x400041;
  const std::string value(0x3FFFFF, 'v');
  const struct {
    std::string text;
    std::string wanted;
  } rows[] = {
      // A full line: blanks at the ends do not count, a carriage return nowhere.
      {std::string(0x40, ' ') + "\r\rk=" + value + " \nl=1\n", "[NULL]k=" + value + "|l=1|"},
      {"k=" + value + "v\nl=1\n", "[NULL]l=1|"},
      // A line that is too long is read as several lines: the first is dropped, the next may be an
      // item.
      {std::string(kLine, 'k') + "a=b\nl=1\n", "[NULL]a=b|l=1|"},
      {std::string(kLine - 1, 'k') + "a=b\nl=1\n", "[NULL]l=1|"},
      {"l=1\nk=" + std::string(5 << 20, 'x'), "[NULL]l=1|"},
  };
  for (const auto &row : rows)
    EXPECT_TRUE(parsed(row.text) == row.wanted) << &row - rows;
}

TEST(CfgParse, RefusesPathsThatAreNoFile) {
  const scratch::Directory directory;
  const std::string fifo = directory / "fifo";
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  for (const std::string &path : {directory / "none", directory.path(), fifo}) {
    EXPECT_EQ(vorn_cfg_init(path.c_str()), -1);
    EXPECT_EQ(capture::take_lines().back(), "Parse config file " + path + " failed.");
  }
  EXPECT_EQ(vorn_cfg_init(std::string(256, 'p').c_str()), -1);
  EXPECT_EQ(capture::take_lines().front(), "E File name length too long.");
}

TEST(CfgText, KeepsPrintableCharacters) {
  char text[16] = "?";
  EXPECT_EQ(vorn_remove_noneprint_characters("abc", 3, text, 3), -1);
  EXPECT_STREQ(text, "?");
  EXPECT_EQ(vorn_remove_noneprint_characters("Model 7\n8", 9, text, 10), 0);
  EXPECT_STREQ(text, "Model 7");
  EXPECT_EQ(vorn_remove_noneprint_characters("\x80", -1, text, 1), 0);
  EXPECT_STREQ(text, "");
}

struct CfgRegistry : testing::Test {
  scratch::Directory directory;
  const std::string a = directory / "a.ini";
  const std::string b = directory / "b.ini";

  // An item of section s, of this file, or of the newest file that has it.
  std::string get(const std::string &path, const char *item, const char *s = "s") {
    char value[256] = "?";
    const int result = path.empty()
                           ? vorn_cfg_getItemValue(s, item, value, sizeof value)
                           : vorn_cfg_getItemValue_ex(path.c_str(), s, item, value, sizeof value);
    return result == 0 ? value : std::to_string(result);
  }
  std::string get(const char *item) { return get("", item); }
  int init(const std::string &path, const std::string &text) {
    scratch::write_file(path, text);
    return vorn_cfg_init(path.c_str());
  }
};

TEST_F(CfgRegistry, CountsReferences) {
  ASSERT_EQ(init(a, "[s]\nk=1\n"), 0);
  ASSERT_EQ(init(a, "[s]\nk=2\n"), 0);
  EXPECT_EQ(get(a, "k"), "2"); // read again
  EXPECT_EQ(vorn_cfg_destroy_ex(a.c_str()), 0);
  EXPECT_EQ(get(a, "k"), "2");
  EXPECT_EQ(vorn_cfg_destroy_ex(a.c_str()), 0);
  EXPECT_NO_MESSAGE();
  EXPECT_EQ(get(a, "k"), "-1");
  EXPECT_EQ(capture::take_lines().at(0), "E Can not find file " + a + ".");
  EXPECT_EQ(vorn_cfg_destroy_ex(a.c_str()), 0);
  EXPECT_EQ(vorn_cfg_destroy_ex(nullptr), 0);
}

TEST_F(CfgRegistry, AsksTheNewestFileFirst) {
  ASSERT_EQ(init(a, "[s]\nk=a\nonly=a\n"), 0);
  ASSERT_EQ(init(b, "[s]\nk=b\n"), 0);
  EXPECT_EQ(get("k"), "b");
  EXPECT_EQ(get("only"), "a");
  ASSERT_EQ(init(a, "[s]\nk=a\n"), 0); // becomes the newest
  EXPECT_EQ(get("k"), "a");
  EXPECT_EQ(get("only"), "-1");
  remove(b.c_str());
  EXPECT_EQ(vorn_cfg_init(b.c_str()), -1); // stays as it was
  EXPECT_EQ(get(b, "k"), "b");
  EXPECT_EQ(vorn_cfg_destroy(), 0); // whatever the reference counts
  EXPECT_EQ(get("k"), "-1");
}

// Every section has the same names, one of each length.
TEST_F(CfgRegistry, FindsEachOfManyNames) {
  constexpr std::size_t kSections = 40;
  const auto name = [](std::size_t length) { return std::string(length, 'n'); };
  const auto value = [](std::size_t section, std::size_t length) {
    return std::to_string(section) + "." + std::to_string(length);
  };
  std::string text;
  for (std::size_t section = 0; section < kSections; ++section) {
    text += "[" + name(section) + "]\n";
    for (std::size_t length = 0; length < 64; ++length)
      text += " " + name(length) + "=" + value(section, length) + "\n";
  }
  ASSERT_EQ(init(a, text), 0);
  for (std::size_t section = 0; section < 70; ++section) {
    for (std::size_t length = 0; length < 70; ++length) {
      const bool exists = section < kSections && length < 64;
      EXPECT_EQ(get(a, name(length).c_str(), name(section).c_str()),
                exists ? value(section, length) : "-1");
      EXPECT_EQ(get(a, (name(length) + "o").c_str(), name(section).c_str()), "-1");
    }
  }
  vorn_cfg_destroy();
}

TEST_F(CfgRegistry, SetsValuesOnlyInMemory) {
  ASSERT_EQ(init(a, "[s]\nk=a\nl=a\n"), 0);
  ASSERT_EQ(init(b, "[s]\nk=b\n"), 0);
  EXPECT_EQ(vorn_cfg_setItemValue("s", "k", "newest"), 0);
  EXPECT_EQ(vorn_cfg_setItemValue("s", "l", ""), 0);
  EXPECT_EQ(get(a, "k") + get(b, "k") + get(a, "l"), "anewest");
  EXPECT_EQ(vorn_cfg_setItemValue_ex(a.c_str(), "s", "k", std::string(256, 'x').c_str()), 0);
  EXPECT_EQ(get(b, "k"), "newest");
  EXPECT_EQ(scratch::read_file(a), "[s]\nk=a\nl=a\n");
  EXPECT_NO_MESSAGE();
  EXPECT_EQ(get(a, "k"), std::to_string(VORN_CFG_TOO_SMALL));
  EXPECT_ONE_MESSAGE(EVLOG_ERROR, "vorn_cfg.c", "vorn_cfg_getItemValue_ex",
                     "Invalid Buffer size, inputSize(256), actualSize(257).");
  vorn_cfg_destroy();
}

TEST_F(CfgRegistry, WarnsOfMissingItemsAtALimitedRate) {
  for (int i = 0; i < 10; ++i)
    EXPECT_EQ(get("k"), "-1");
  const auto messages = capture::take();
  EXPECT_EQ(std::ranges::count(messages, EVLOG_WARNING, &capture::Message::level), 3);
}

TEST_F(CfgRegistry, ReadsOneItemWithoutRegistering) {
  scratch::write_file(a, "[s]\nk=1\nk=2\nlong=" + std::string(255, 'v') +
                             "\nlonger=" + std::string(256, 'v') + "\n[t]\nk=3\n");
  const struct {
    const char *section, *item;
    std::string value; // "?" if there is none
  } rows[] = {
      {"s", "k", "1"}, // the first of several
      {"t", "k", "3"},      {"s", "long", std::string(255, 'v')},
      {"s", "longer", "?"}, {"t", "long", "?"},
  };
  for (const auto &row : rows) {
    vorn_cfg_item_s out{"?", "?"};
    const int result = vorn_cfg_getItemFromFile(a.c_str(), row.section, row.item, &out);
    EXPECT_EQ(result, row.value == "?" ? -1 : 0);
    EXPECT_EQ(out.value, row.value);
  }
}

// Appends the line to a text: "2 item s|k|v".
int append_line(void *context, const vorn_cfg_line_s *line) {
  static const char *const kinds[] = {"section", "item", "comment", "blank", "ignored"};
  auto &text = *static_cast<std::string *>(context);
  text += std::to_string(line->number) + " " + kinds[line->kind] + " " + line->section;
  for (const char *part : {line->item, line->value, line->text}) {
    if (part != nullptr) text += "|"s + part;
  }
  text += "\n";
  return 0;
}

TEST_F(CfgRegistry, WalksTheLinesOfAFile) {
  const std::string long_value(0x400000, 'v');
  const struct {
    std::string text;
    std::string wanted;
  } rows[] = {
      {"", ""},
      {"k=v", "1 item NULL|k|v\n"},
      {"[a]\n\n;c \n=d\n [b]\n[a]\n", "1 section a\n2 blank a|\n3 comment a|;c\n4 comment a|=d\n"
                                      "5 ignored a| [b]\n6 section a\n"},
      {"k = v ; w\nk=2\n[ t ]\nk=\n =e\n", "1 item NULL|k|v ; w\n2 item NULL|k|2\n3 section t\n"
                                           "4 item t|k|\n5 item t||e\n"},
      // Neither a backslash nor a blank continues a line.
      {"k=a\\\n b\nno item \t\n[x-y]\n#k=1\nk.l=1",
       "1 item NULL|k|a\\\n2 ignored NULL| b\n3 ignored NULL|no item\n4 ignored NULL|[x-y]\n"
       "5 ignored NULL|#k=1\n6 ignored NULL|k.l=1\n"},
      {"a=1\0b=2\n\0c=3\n[s]\r\n\rd\r=3\r\n \t\n"s,
       "1 item NULL|a|1\n2 blank NULL|\n3 section s\n4 item s|d|3\n5 blank s|\n"},
      // A value that is too long; a line that is read as two.
      {"k=" + long_value + "\nl=1\n", "1 ignored NULL|k=" + long_value + "\n2 item NULL|l|1\n"},
      {std::string(0x400041, 'k') + "a=b\nl=1\n",
       "1 ignored NULL|" + std::string(0x400041, 'k') + "\n1 item NULL|a|b\n2 item NULL|l|1\n"},
  };
  for (const auto &row : rows) {
    ASSERT_EQ(init(a, row.text), 0);
    std::string text;
    EXPECT_EQ(vorn_cfg_walk(a.c_str(), append_line, &text), 0);
    EXPECT_TRUE(text == row.wanted) << row.text.substr(0, 99) << "\n" << text.substr(0, 999);
  }
}

TEST_F(CfgRegistry, WalkReadsTheFileWithoutLocks) {
  ASSERT_EQ(init(a, "[s]\nk=1\nl=1\n"), 0);
  scratch::write_file(a, "[s]\nk=2\n\n");
  const int descriptor = scratch::next_descriptor();
  // Edits, looks up and unregisters the file that is walked, and stops at line 2 with any value.
  const auto visit = [](void *context, const vorn_cfg_line_s *line) {
    if (line->number == 1) return 0;
    const char *path = *static_cast<const char **>(context);
    char value[8];
    EXPECT_EQ(vorn_cfg_getItemValue_ex(path, "s", "k", value, sizeof value), 0);
    EXPECT_STREQ(value, "1");
    EXPECT_STREQ(line->value, "2");
    EXPECT_EQ(vorn_cfg_file_setItemValue(path, "s", "k", "3"), 0);
    EXPECT_EQ(vorn_cfg_destroy(), 0);
    return std::stoi(line->value) - 1;
  };
  const char *path = a.c_str();
  EXPECT_EQ(vorn_cfg_walk(path, visit, &path), 1);
  EXPECT_EQ(scratch::read_file(a), "[s]\nk=3\n");
  capture::take();
  EXPECT_EQ(capture::traced(vorn_cfg_walk(path, visit, &path)),
            "-1; E vorn_cfg_walk: Can not find file " + a + ".");
  EXPECT_EQ(capture::traced(vorn_cfg_walk(path, nullptr, nullptr)),
            "-1; E vorn_cfg_walk: Param is null.");
  ASSERT_EQ(init(a, "k=1\n"), 0);
  remove(path);
  EXPECT_EQ(capture::traced(vorn_cfg_walk(path, visit, &path)),
            "-1; E vorn_cfg_walk: Open file (" + a + ") failed, errno 2");
  EXPECT_EQ(scratch::next_descriptor(), descriptor);
}

} // namespace
