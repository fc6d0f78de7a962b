// test-wraps: sysconf open mprotect
// Tests memory figures and page settings.
// SPDX-License-Identifier: Apache-2.0
#include "vorn_mem.h"

#include <cerrno>
#include <gtest/gtest.h>
#include <string>
#include <sys/mman.h>
#include <unistd.h>
#include <vector>

#include "evlog.h"
#include "support/log_capture.hpp"
#include "support/scratch.hpp"

static long page_size = 4096;
static std::string meminfo;
static std::vector<std::pair<size_t, int>> protections; // lengths and accesses

extern "C" {
long __real_sysconf(int name);
long __wrap_sysconf(int name) {
  if (name != _SC_PAGESIZE) return __real_sysconf(name);
  if (page_size < 0) errno = EINVAL;
  return page_size;
}

int __real_open(const char *path, int flags, ...);
int __wrap_open(const char *path, int flags, ...) {
  return __real_open(std::string(path) == "/proc/meminfo" ? meminfo.c_str() : path, flags);
}

int __wrap_mprotect(void *address, size_t length, int access) {
  protections.emplace_back(length, access);
  if (reinterpret_cast<uintptr_t>(address) % 4096 == 0) return 0;
  errno = EINVAL;
  return -1;
}
}

namespace {

// With pages of 64 KiB a unit of 4096 bytes fits only sixteen at a time, and success is reported on
// purpose.
TEST(MemSystem, ProtectionCountsIn4096BytesAndNeedsWholePages) {
  const std::string refused = "E Param is invalied, page_addr(0x1";
  const struct {
    long page;
    uintptr_t address;
    unsigned int units;
    int result;
    size_t length; // 0: nothing is changed
    std::string message;
  } rows[] = {
      {4096, 0x11000, 3, 0, 12288, ""},
      {4096, 1, 1, EINVAL, 4096, "E set page protect read failed, page_addr(0x1), errno(22):"},
      {4096, 0x11000, 0, -1, 0, "E Param is invalied,addr is NULL(0x11000), numpages is 0."},
      {65536, 0x10000, 16, 0, 65536, ""},
      {65536, 0x10000, 15, 0, 0, refused + "0000), numpages(15), g_CurSysPageSize(65536)."},
      {65536, 0x11000, 16, 0, 0, refused + "1000), numpages(16), g_CurSysPageSize(65536)."},
      {65536, 0x10000, 0x100000, 0, 1ul << 32, ""}, // wraps to 0 in 32 bits and so passes
  };
  page_size = -1; // a failed reading is repeated
  unsigned long page = 5;
  EXPECT_EQ(vorn_get_sys_page_size(&page), -1);
  EXPECT_EQ(page, 0u);
  EXPECT_EQ(vorn_setmemory_ro(&page, 1), -1);
  EXPECT_EQ(capture::take().back().function, "vorn_setmemory_ro");
  for (const auto &row : rows) {
    page_size = row.page;
    EXPECT_EQ(vorn_get_sys_page_size(&page), 0);
    EXPECT_EQ(vorn_get_current_page_size_inner(), 0);
    protections.clear();
    EXPECT_EQ(vorn_setmemory_ro(reinterpret_cast<void *>(row.address), row.units), row.result);
    EXPECT_EQ(vorn_setmemory_rw(reinterpret_cast<void *>(row.address), row.units), row.result);
    std::vector<std::pair<size_t, int>> wanted;
    if (row.length != 0) wanted = {{row.length, PROT_READ}, {row.length, PROT_WRITE}};
    EXPECT_EQ(protections, wanted) << row.units;
    const auto texts = capture::take_lines();
    EXPECT_EQ(texts.size(), row.message.empty() ? 0u : 2u);
    for (const std::string &text : texts)
      EXPECT_TRUE(text.starts_with(row.message)) << text;
  }
}

TEST(MemSystem, MeminfoRows) {
  scratch::Directory directory;
  meminfo = directory / "meminfo";
  unsigned long total = 0;
  EXPECT_EQ(vorn_get_total_mem(&total), -1);
  EXPECT_ONE_MESSAGE(EVLOG_INFO, "vorn_mem_manager.c", "vorn_get_meminfo",
                     "Fopen /proc/meminfo fail errno 2.");
  const struct {
    const char *text;
    int result;
    unsigned int usage;
  } meminfos[] = {
      {"MemTotalX: 5 kB\nHugePages_Total:       0\nMemAvailable:  1 kB\n", -1, 0},
      {"MemTotal:       3000 kB\nMemFree: 1 kB\nMemAvailable:   1001 kB\n", 0, 66},
      {"MemTotal: 4000 kB\nMemAvailable: 1000 kB\n", 0, 75},
  };
  for (const auto &row : meminfos) {
    scratch::write_file(meminfo, row.text);
    EXPECT_EQ(vorn_get_total_mem(&total), row.result);
    EXPECT_EQ(vorn_get_available_usage(), row.usage);
  }
  EXPECT_EQ(total, 3000u); // read once
}

} // namespace
