#include "vorn_jiffies.h"

#include <cerrno>
#include <ctime>
#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

#include "evlog.h"
#include "support/log_capture.hpp"
#include "support/scratch.hpp"
#include "vorn_time.h"

namespace {

const std::string kUio = "/sys/devices/platform/jiffies_uio/uio/";

// The driver's files as this process alone sees them.
class Driver : public testing::Test {
protected:
  void SetUp() override {
    if (!scratch::cover_directory("/sys/devices/platform") || !scratch::cover_directory("/dev")) {
      GTEST_SKIP() << "no right to mount here";
    }
  }

  void install(const std::string &name, const std::string &addr, const std::string &size,
               const std::string &offset) {
    const std::string map = kUio + name + "/maps/map0/";
    scratch::write_file(map + "addr", addr);
    scratch::write_file(map + "size", size);
    scratch::write_file(map + "offset", offset);
    scratch::write_file("/dev/" + name, std::string(8192, '\0'));
  }

  void set_counter(const std::string &name, off_t offset, uint64_t value) {
    const int fd = open(("/dev/" + name).c_str(), O_WRONLY);
    ASSERT_EQ(pwrite(fd, &value, sizeof value, offset), 8);
    close(fd);
  }
};

TEST_F(Driver, CounterIsReadFromTheMapping) {
  install("uio0", "0xffff000000000000\n", "0x2000\n", "0x340\n");
  scratch::write_file(kUio + "ui/x", "");
  set_counter("uio0", 0x340, 0x1122334455667788);
  const int before = scratch::next_descriptor();
  EXPECT_EQ(vorn_get_jiffies(), 0x1122334455667788u);
  EXPECT_NO_RECORD();
  const vorn_jiffies_uio_s *record = jiffies_uio_get();
  EXPECT_EQ(record->addr, 0xffff000000000000u);
  EXPECT_EQ(record->size, 0x2000);
  EXPECT_EQ(*record->jiffies, 0x1122334455667788u);
  EXPECT_EQ(scratch::next_descriptor(), before);

  // the record's descriptors belong to others by now
  const int innocent = dup(0);
  EXPECT_EQ(innocent, record->dev_fd);
  errno = 0;
  EXPECT_EQ(jiffies_uio_adp_close(), -1);
  EXPECT_EQ(errno, EBADF);
  EXPECT_EQ(close(innocent), 0);
}

TEST_F(Driver, AMissingFileIsReportedClosesAllAndLeavesTheClock) {
  const std::pair<std::string, const char *> rows[] = {
      {kUio, "Vorn jiffies get child dir () failed, errno=2."},
      {kUio + "uio0", "Vorn jiffies get child dir () failed, errno=2."},
      {"/dev/uio0", "Vorn jiffies open dev failed, errno=2."},
      {kUio + "uio0/maps/map0/addr", "Vorn jiffies open addr_fd map failed, errno=2."},
      {kUio + "uio0/maps/map0/size", "Vorn jiffies open size_fd map failed, errno=2."},
      {kUio + "uio0/maps/map0/offset", "Vorn jiffies open map failed, errno=2."},
  };
  const int before = scratch::next_descriptor();
  for (const auto &[missing, text] : rows) {
    install("uio0", "0x1000", "0x1000", "0");
    std::filesystem::remove_all(missing);
    EXPECT_EQ(jiffies_usr_main(), -1);
    EXPECT_ONE_RECORD(EVLOG_ERROR, "jiffies_uio_adp.c", "jiffies_uio_adp_open", text);
    EXPECT_EQ(scratch::next_descriptor(), before);
    EXPECT_EQ(jiffies_uio_get()->jiffies, nullptr);
  }
  vorn_gettime_init();
  const uint64_t earliest = vorn_time_getnanosec() / 4000000;
  EXPECT_GE(vorn_get_jiffies(), earliest);
  EXPECT_LE(vorn_get_jiffies(), vorn_time_getnanosec() / 4000000);

  // Tried again. An attribute may fill its 32 bytes, and the counter may lie behind the size but in
  // the last page.
  install("uio0", std::string(31, '0') + "1", "8", "4088");
  set_counter("uio0", 4088, 99);
  EXPECT_EQ(jiffies_usr_main(), 0);
  EXPECT_EQ(jiffies_uio_get()->addr, 1u);
  EXPECT_EQ(vorn_get_jiffies(), 99u);
}

TEST_F(Driver, UnusableMapsAreRefused) {
  struct Row {
    const char *size;
    const char *offset;
  };
  for (const Row &row : {Row{"0", "0"}, Row{"-4096", "0"}, Row{"0x1000", "0x1000"},
                         Row{"0x1000", "-8"}, Row{"0x1000", "4"}, Row{"", ""}, Row{"junk", "0"}}) {
    install("uio0", "0", row.size, row.offset);
    EXPECT_EQ(jiffies_usr_main(), -1) << row.size << " " << row.offset;
    EXPECT_ONE_RECORD(EVLOG_ERROR, "jiffies_uio_adp.c", "jiffies_uio_adp_open",
                      "Vorn jiffies mmap2, errno=22.");
  }
}

TEST(Jiffies, AdvanceAt250ASecondWithoutTheDriver) {
  jiffies_Init();
  const uint64_t started = vorn_time_getnanosec();
  const uint64_t start = vorn_get_jiffies();
  const timespec pause{0, 60000000};
  nanosleep(&pause, nullptr);
  const uint64_t ticks = vorn_get_jiffies() - start;
  const uint64_t elapsed = vorn_time_getnanosec() - started;
  EXPECT_GE(ticks, 15u);
  EXPECT_LE(ticks, elapsed / 4000000 + 1);
  EXPECT_EQ(jiffies_fini(5), 5);
  EXPECT_EQ(jiffies_uio_adp_close(), -1);
}

TEST(Jiffies, FirstUseFromManyThreads) {
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([] { EXPECT_GT(vorn_get_jiffies(), 0u); });
  for (auto &thread : threads)
    thread.join();
  EXPECT_EQ(capture::take().size(), 1u); // one start, one report of the missing driver
}

} // namespace
