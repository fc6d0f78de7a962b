// test-wraps: sysconf fopen mprotect malloc
#include "vorn_mem.h"

#include <cerrno>
#include <cstdio>
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
struct Protection {
  uintptr_t address;
  size_t length;
  int access;
  bool operator==(const Protection &) const = default;
};
static std::vector<Protection> protections;
static bool fail_next_malloc = false;

extern "C" {
long __real_sysconf(int name);
long __wrap_sysconf(int name) {
  if (name != _SC_PAGESIZE) return __real_sysconf(name);
  if (page_size < 0) errno = EINVAL;
  return page_size;
}

FILE *__real_fopen(const char *path, const char *mode);
FILE *__wrap_fopen(const char *path, const char *mode) {
  if (std::string(path) != "/proc/meminfo") return __real_fopen(path, mode);
  return __real_fopen(meminfo.c_str(), mode);
}

int __wrap_mprotect(void *address, size_t length, int access) {
  protections.push_back({reinterpret_cast<uintptr_t>(address), length, access});
  return 0;
}

void *__real_malloc(size_t size);
void *__wrap_malloc(size_t size) {
  if (!fail_next_malloc) return __real_malloc(size);
  fail_next_malloc = false;
  return nullptr;
}
}

namespace {

TEST(MemSystem, WithoutTheKernelModuleNothingIsCounted) {
  void *block = vorn_malloc(1, 10);
  ASSERT_NE(block, nullptr);
  vorn_free(block);
  EXPECT_EQ(vorn_mem_stat_dump(), -1);
  EXPECT_NO_RECORD();
}

TEST(MemSystem, OutOfMemoryIsAnOrdinaryError) {
  fail_next_malloc = true;
  void *block = vorn_mallocsubstandard(7, 10, 0, "f", 1);
  EXPECT_EQ(block, nullptr);
  EXPECT_ONE_RECORD(EVLOG_ERROR, "vorn_mem.c", "vorn_mallocsubstandard",
                    "Malloc memory fails. PID: (7), size: (10), type: (1).");
}

TEST(MemSystem, PageSizeIsReadAgainAfterAFailure) {
  page_size = -1;
  unsigned long page = 5;
  EXPECT_EQ(vorn_get_sys_page_size(&page), -1);
  EXPECT_EQ(page, 0u);
  EXPECT_ONE_RECORD(EVLOG_INFO, "vorn_mem_manager.c", "vorn_get_current_page_size_inner",
                    "Get current system page size failed, ret=(-1), errno(22):Invalid argument.");
  char anything = 0;
  EXPECT_EQ(vorn_setmemory_ro(&anything, 1), -1);
  const auto records = capture::take();
  ASSERT_EQ(records.size(), 2u);
  EXPECT_EQ(records[1].function, "vorn_setmemory_ro");
  EXPECT_EQ(records[1].text,
            "Get current system page size failed, ret(-1), errno(22):Invalid argument.");
  page_size = 65536;
  EXPECT_EQ(vorn_get_sys_page_size(&page), 0);
  EXPECT_EQ(page, 65536u);
}

// With pages of 64 KiB a unit of 4096 bytes fits only sixteen at a time, and success is reported on
// purpose.
TEST(MemSystem, LargePagesWantWholePages) {
  page_size = 65536;
  struct Row {
    uintptr_t address;
    unsigned int units;
    size_t length; // 0: nothing is changed
    const char *text;
  };
  const Row rows[] = {
      {0x10000, 16, 65536, nullptr},
      {0x10000, 15, 0,
       "Param is invalied, page_addr(0x10000), numpages(15), g_CurSysPageSize(65536)."},
      {0x11000, 16, 0,
       "Param is invalied, page_addr(0x11000), numpages(16), g_CurSysPageSize(65536)."},
      {0x10000, 0x100000, 1ul << 32, nullptr}, // wraps to 0 in 32 bits and so passes
  };
  for (const Row &row : rows) {
    protections.clear();
    EXPECT_EQ(vorn_setmemory_ro(reinterpret_cast<void *>(row.address), row.units), 0);
    EXPECT_EQ(vorn_setmemory_rw(reinterpret_cast<void *>(row.address), row.units), 0);
    std::vector<Protection> wanted;
    if (row.length != 0) {
      wanted = {{row.address, row.length, PROT_READ}, {row.address, row.length, PROT_WRITE}};
    }
    EXPECT_EQ(protections, wanted) << row.units;
    const auto texts = capture::take_texts();
    EXPECT_EQ(texts, std::vector<std::string>(row.text == nullptr ? 0 : 2,
                                              row.text == nullptr ? "" : row.text));
  }
}

TEST(MemSystem, MeminfoRows) {
  scratch::Directory directory;
  meminfo = directory / "meminfo";

  unsigned long total = 0;
  EXPECT_EQ(vorn_get_total_mem(&total), -1);
  EXPECT_ONE_RECORD(EVLOG_INFO, "vorn_mem_manager.c", "vorn_get_meminfo",
                    "Fopen /proc/meminfo fail errno 2.");

  scratch::write_file(meminfo, "MemTotalX: 5 kB\nHugePages_Total:       0\nMemAvailable:  1 kB\n");
  EXPECT_EQ(vorn_get_total_mem(&total), -1);
  EXPECT_EQ(vorn_get_available_usage(), 0u);
  EXPECT_NO_RECORD();

  scratch::write_file(meminfo, "MemTotal: 0 kB\nMemAvailable: 0 kB\n");
  EXPECT_EQ(vorn_get_available_usage(), 0u);
  EXPECT_ONE_RECORD(EVLOG_ERROR, "vorn_mem_manager.c", "vorn_get_available_usage",
                    "get total memory from system is 0.");

  scratch::write_file(meminfo, "MemTotal:       3000 kB\nMemFree: 1 kB\nMemAvailable:   1001 kB\n");
  EXPECT_EQ(vorn_get_available_usage(), 66u);
  EXPECT_EQ(vorn_get_total_mem(&total), 0);
  EXPECT_EQ(total, 3000u);

  scratch::write_file(meminfo, "MemTotal: 4000 kB\nMemAvailable: 1000 kB\n");
  EXPECT_EQ(vorn_get_total_mem(&total), 0);
  EXPECT_EQ(total, 3000u); // read once
  EXPECT_EQ(vorn_get_available_usage(), 75u);
}

} // namespace
