#include "vorn_cfg.h"

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
  EXPECT_EQ(vorn_cfg_setItemValue_ex(a.c_str(), "s", "k", std::string(256, 'x').c_str()), 0);
  EXPECT_EQ(get(b, "s", "k"), "newest");
  EXPECT_EQ(scratch::read_file(a), "[s]\nk=a\nl=a\n");
  EXPECT_NO_RECORD();
  EXPECT_EQ(get(a, "s", "k"), std::to_string(VORN_CFG_TOO_SMALL));
  EXPECT_ONE_RECORD(EVLOG_ERROR, "vorn_cfg.c", "vorn_cfg_getItemValue_ex",
                    "Invalid Buffer size, inputSize(256), actualSize(257).");
  vorn_cfg_destroy();
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
  const struct {
    const char *section, *item;
    int result;
    std::string value;
  } rows[] = {
      {"s", "k", 0, "1"}, // the first of repeated ones
      {"t", "k", 0, "3"},       {"s", "long", 0, std::string(255, 'v')},
      {"s", "longer", -1, "?"}, {"t", "long", -1, "?"},
  };
  for (const auto &row : rows) {
    vorn_cfg_item_s out{"?", "?"};
    EXPECT_EQ(vorn_cfg_getItemFromFile(a.c_str(), row.section, row.item, &out), row.result);
    EXPECT_EQ(out.value, row.value);
  }
}

} // namespace
