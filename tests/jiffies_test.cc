// Tests the tick counter.
// SPDX-License-Identifier: Apache-2.0
#include "vorn_jiffies.h"

#include <cerrno>
#include <filesystem>
#include <gtest/gtest.h>
#include <string>
#include <unistd.h>

#include "evlog.h"
#include "support/log_capture.hpp"
#include "support/scratch.hpp"
#include "support/threads.hpp"
#include "vorn_time.h"

namespace {

const std::string kUio = "/sys/devices/platform/jiffies_uio/uio/";
constexpr uint64_t kCount = 0x1122334455667788;

// The driver's files, visible only to this process. The counter is at the given byte.
void install(const std::string &addr, const std::string &size, const std::string &offset,
             std::size_t counter = 0) {
  const std::string map = kUio + "uio0/maps/map0/";
  scratch::write_file(map + "addr", addr);
  scratch::write_file(map + "size", size);
  scratch::write_file(map + "offset", offset);
  const std::string count(reinterpret_cast<const char *>(&kCount), sizeof kCount);
  scratch::write_file("/dev/uio0", std::string(8192, '\0').replace(counter, 8, count));
}

class Driver : public testing::Test {
protected:
  void SetUp() override {
    if (!scratch::cover_directory("/sys/devices/platform") || !scratch::cover_directory("/dev")) {
      GTEST_SKIP() << scratch::kNoMounts;
    }
  }
};

TEST_F(Driver, CounterIsReadFromTheMapping) {
  install("0xffff000000000000\n", "0x2000\n", "0x340\n", 0x340);
  scratch::write_file(kUio + "ui/x", "");
  const int before = scratch::next_descriptor();
  EXPECT_EQ(vorn_get_jiffies(), kCount);
  EXPECT_NO_MESSAGE();
  const vorn_jiffies_uio_s *mapping = jiffies_uio_get();
  EXPECT_EQ(mapping->addr, 0xffff000000000000u);
  EXPECT_EQ(mapping->size, 0x2000);
  EXPECT_EQ(*mapping->jiffies, kCount);
  EXPECT_EQ(scratch::next_descriptor(), before);

  // other files have the numbers of the old descriptors
  const int innocent = dup(0);
  EXPECT_EQ(innocent, mapping->dev_fd);
  EXPECT_EQ(jiffies_uio_adp_close(), -1);
  EXPECT_EQ(close(innocent), 0);
}

TEST_F(Driver, AnUnusableDriverIsReportedAndClosedAndTriedAgain) {
  const std::string no_child = "get child dir () failed, errno=2.";
  const std::string no_map = "mmap2, errno=22.";
  const struct {
    std::string missing, size, offset, text;
  } rows[] = {
      {kUio, "0x1000", "0", no_child},
      {kUio + "uio0", "0x1000", "0", no_child},
      {"/dev/uio0", "0x1000", "0", "open dev failed, errno=2."},
      {kUio + "uio0/maps/map0/addr", "0x1000", "0", "open addr_fd map failed, errno=2."},
      {kUio + "uio0/maps/map0/size", "0x1000", "0", "open size_fd map failed, errno=2."},
      {kUio + "uio0/maps/map0/offset", "0x1000", "0", "open map failed, errno=2."},
      {"", "0", "0", no_map},
      {"", "0x1000", "0x1000", no_map},
      {"", "0x1000", "-8", no_map},
      {"", "0x1000", "4", no_map},
      {"", "", "", no_map},
  };
  const int before = scratch::next_descriptor();
  for (const auto &row : rows) {
    install("0x1000", row.size, row.offset);
    std::filesystem::remove_all(row.missing);
    EXPECT_EQ(jiffies_usr_main(), -1);
    EXPECT_ONE_MESSAGE(EVLOG_ERROR, "jiffies_uio_adp.c", "jiffies_uio_adp_open",
                       "Vorn jiffies " + row.text);
    EXPECT_EQ(scratch::next_descriptor(), before);
    EXPECT_EQ(jiffies_uio_get()->jiffies, nullptr);
  }
  // An attribute may fill its 32 bytes, and the counter may be beyond the size, in the last page.
  install(std::string(31, '0') + "1", "8", "4088", 4088);
  EXPECT_EQ(jiffies_usr_main(), 0);
  EXPECT_EQ(jiffies_uio_get()->addr, 1u);
  EXPECT_EQ(vorn_get_jiffies(), kCount);
}

TEST_F(Driver, ATooLongNameIsReportedAndTakenAsNone) {
  scratch::write_file(kUio + "uio" + std::string(124, 'x') + "/x", "");
  EXPECT_EQ(jiffies_usr_main(), -1);
  const auto messages = capture::take();
  ASSERT_EQ(messages.size(), 2u);
  EXPECT_EQ(messages[0].function, "vorn_get_child_dir");
  EXPECT_EQ(messages[0].text, "strcpy_s failed.");
  EXPECT_EQ(messages[1].text, "Vorn jiffies open addr_fd map failed, errno=2.");
}

TEST(Jiffies, WithoutTheDriverTheClockCountsThem) {
  run_threads(4, [](int) { EXPECT_GT(vorn_get_jiffies(), 0u); });
  EXPECT_EQ(capture::take().size(), 1u); // one start, one report of the missing driver
  const uint64_t earliest = vorn_time_getnanosec() / 4000000;
  EXPECT_GE(vorn_get_jiffies(), earliest);
  EXPECT_LE(vorn_get_jiffies(), vorn_time_getnanosec() / 4000000);
}

} // namespace
