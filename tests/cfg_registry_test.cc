#include "vorn_cfg.h"

#include <cstdio>
#include <cstring>
#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "evlog.h"
#include "support/log_capture.hpp"
#include "support/scratch.hpp"
#include "vorn_mem.h"

namespace {

struct CfgRegistry : testing::Test {
  scratch::Directory directory;
  const std::string a = directory / "a.ini";
  const std::string b = directory / "b.ini";

  std::string get(const char *section, const char *item) {
    char value[256] = "?";
    const int result = vorn_cfg_getItemValue(section, item, value, sizeof value);
    return result == 0 ? value : std::to_string(result);
  }
  std::string get(const std::string &path, const char *section, const char *item) {
    char value[256] = "?";
    const int result = vorn_cfg_getItemValue_ex(path.c_str(), section, item, value, sizeof value);
    return result == 0 ? value : std::to_string(result);
  }
  int init(const std::string &path, const std::string &text) {
    scratch::write_file(path, text);
    return vorn_cfg_init(path.c_str());
  }
};

TEST_F(CfgRegistry, CountsReferences) {
  ASSERT_EQ(init(a, "[s]\nk=1\n"), 0);
  ASSERT_EQ(init(a, "[s]\nk=2\n"), 0);
  EXPECT_EQ(get(a, "s", "k"), "2"); // read again
  EXPECT_EQ(vorn_cfg_destroy_ex(a.c_str()), 0);
  EXPECT_EQ(get(a, "s", "k"), "2");
  EXPECT_EQ(vorn_cfg_destroy_ex(a.c_str()), 0);
  EXPECT_NO_RECORD();
  EXPECT_EQ(get(a, "s", "k"), "-1");
  EXPECT_ONE_RECORD(EVLOG_ERROR, "vorn_cfg.c", "vorn_cfg_getItemValue_ex",
                    "Can not find file " + a + ".");
  EXPECT_EQ(vorn_cfg_destroy_ex(a.c_str()), 0);
  EXPECT_EQ(vorn_cfg_destroy_ex(nullptr), 0);
}

TEST_F(CfgRegistry, AsksTheNewestFileFirst) {
  ASSERT_EQ(init(a, "[s]\nk=a\nonly=a\n"), 0);
  ASSERT_EQ(init(b, "[s]\nk=b\n"), 0);
  EXPECT_EQ(get("s", "k"), "b");
  EXPECT_EQ(get("s", "only"), "a");
  ASSERT_EQ(init(a, "[s]\nk=a\n"), 0); // becomes the newest
  EXPECT_EQ(get("s", "k"), "a");
  EXPECT_EQ(get("s", "only"), "-1");
  remove(b.c_str());
  EXPECT_EQ(vorn_cfg_init(b.c_str()), -1); // stays as it was
  EXPECT_EQ(get(b, "s", "k"), "b");
  EXPECT_EQ(vorn_cfg_destroy(), 0); // whatever the counts
  EXPECT_EQ(get("s", "k"), "-1");
}

TEST_F(CfgRegistry, SetsValuesInMemoryAlone) {
  ASSERT_EQ(init(a, "[s]\nk=a\nl=a\n"), 0);
  ASSERT_EQ(init(b, "[s]\nk=b\n"), 0);
  EXPECT_EQ(vorn_cfg_setItemValue("s", "k", "newest"), 0);
  EXPECT_EQ(vorn_cfg_setItemValue("s", "l", ""), 0);
  EXPECT_EQ(get(a, "s", "k") + get(b, "s", "k") + get(a, "s", "l"), "anewest");
  EXPECT_EQ(vorn_cfg_setItemValue_ex(a.c_str(), "s", "k", std::string(70000, 'x').c_str()), 0);
  EXPECT_EQ(get(b, "s", "k"), "newest");
  EXPECT_EQ(scratch::read_file(a), "[s]\nk=a\nl=a\n");
  EXPECT_NO_RECORD();
  EXPECT_EQ(get(a, "s", "k"), "-10000");
  EXPECT_ONE_RECORD(EVLOG_ERROR, "vorn_cfg.c", "vorn_cfg_getItemValue_ex",
                    "Invalid Buffer size, inputSize(256), actualSize(70001).");
  vorn_cfg_destroy();
}

TEST_F(CfgRegistry, NeedsRoomForTheZero) {
  ASSERT_EQ(init(a, "[s]\nk=1234\n"), 0);
  char value[6] = "?????";
  EXPECT_EQ(vorn_cfg_getItemValue("s", "k", value, 4), VORN_CFG_TOO_SMALL);
  EXPECT_ONE_RECORD(EVLOG_ERROR, "vorn_cfg.c", "vorn_cfg_getItemValue",
                    "Invalid Buffer size, inputSize(4), actualSize(5).");
  EXPECT_STREQ(value, "?????");
  EXPECT_EQ(vorn_cfg_getItemValue("s", "k", value, 5), 0);
  EXPECT_STREQ(value, "1234");
}

TEST_F(CfgRegistry, WarnsOfMissingItemsAtALimitedRate) {
  for (int i = 0; i < 10; ++i)
    EXPECT_EQ(get("s", "k"), "-1");
  int warnings = 0;
  for (const auto &record : capture::take())
    warnings += record.level == EVLOG_WARNING;
  EXPECT_EQ(warnings, 3);
}

TEST_F(CfgRegistry, ReadsOneItemWithoutRegistering) {
  scratch::write_file(a, "[s]\nk=1\nk=2\nlong=" + std::string(255, 'v') +
                             "\nlonger=" + std::string(256, 'v') + "\n[t]\nk=3\n");
  vorn_cfg_item_s out{};
  EXPECT_EQ(vorn_cfg_getItemFromFile(a.c_str(), "s", "k", &out), 0);
  EXPECT_EQ(out.name + std::string(out.value), "k1"); // the first of repeated ones
  EXPECT_EQ(vorn_cfg_getItemFromFile(a.c_str(), "t", "k", &out), 0);
  EXPECT_STREQ(out.value, "3");
  EXPECT_EQ(vorn_cfg_getItemFromFile(a.c_str(), "s", "long", &out), 0);
  EXPECT_EQ(out.value, std::string(255, 'v'));
  EXPECT_EQ(vorn_cfg_getItemFromFile(a.c_str(), "t", "long", &out), -1);
  capture::take();
  EXPECT_EQ(vorn_cfg_getItemFromFile(a.c_str(), "s", "none", &out), -1);
  EXPECT_ONE_RECORD(EVLOG_DEBUG, "vorn_cfg.c", "vorn_cfg_getItemFromFile",
                    "Parse config file " + a + " sucess.");
  EXPECT_EQ(vorn_cfg_getItemFromFile(a.c_str(), "s", "longer", &out), -1);
  EXPECT_ONE_RECORD(EVLOG_ERROR, "vorn_cfg.c", "vorn_cfg_getFromFile_proc",
                    "Copy item (longer=" + std::string(256, 'v') + ") fail.");
  EXPECT_STREQ(out.name, "long"); // as it was
}

// A node that was built by hand, with two sections of one name and two items of one name.
TEST_F(CfgRegistry, TakesANodeOver) {
  ASSERT_EQ(init(a, "[s]\nk=1\n"), 0);
  ASSERT_EQ(init(b, "[s]\nk=b\n"), 0);
  auto *node = static_cast<vorn_cfg_file_node_s *>(vorn_malloc(381, sizeof(vorn_cfg_file_node_s)));
  std::memset(node, 0, sizeof *node);
  vorn_list_init_head(&node->sections);
  std::strcpy(node->path, "unknown");
  EXPECT_EQ(vorn_cfg_updateFileNode(node), -1);
  EXPECT_EQ(node->index, nullptr);
  EXPECT_NO_RECORD();
  ASSERT_EQ(vorn_cfg_add_item_func(node, "s", "k", "first"), 0);
  ASSERT_EQ(vorn_cfg_add_item_func(node, "t", "k", "other"), 0);
  auto *section = vorn_list_entry(node->sections.next, vorn_cfg_section_node_s, link);
  auto *item = vorn_cfg_new_item_node_ex("k", "second");
  EXPECT_EQ(item->link.next, &item->link);
  item->link = {&section->items, section->items.prev};
  section->items.prev = section->items.prev->next = &item->link;
  std::strcpy(vorn_list_entry(node->sections.prev, vorn_cfg_section_node_s, link)->name, "s");
  std::strcpy(node->path, a.c_str());
  EXPECT_EQ(vorn_cfg_updateFileNode(node), 0);
  EXPECT_EQ(get("s", "k"), "first"); // also the newest now
  vorn_cfg_destroy_ex(a.c_str());    // the old one's count
  EXPECT_EQ(get("s", "k"), "b");
  vorn_cfg_destroy();
}

} // namespace
