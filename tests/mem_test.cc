// test-links: vornsim
// Tests the accounting allocator.
// SPDX-License-Identifier: Apache-2.0
#include "vorn_mem.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <gtest/gtest.h>
#include <latch>
#include <string>
#include <unistd.h>

#include "evlog.h"
#include "support/log_capture.hpp"
#include "support/shown.hpp"
#include "support/threads.hpp"
#include "vorn_syscall.h"
#include "vornsim.h"

namespace {

// What is shown of these lines of modules and this total.
std::string shown_as(const std::string &modules, const std::string &total) {
  std::string text = "Begin to show used memory (Bytes) of all PID.\n";
  for (int i = 0; i < 5; ++i)
    text += "| PID         UsedMem ";
  return text + "\n" + modules + "\nTotal used memory: " + total + "\n";
}

// Not inlined: the compiler knows the block's size and objects to a read before it.
__attribute__((noinline)) const vorn_mem_head_s *head_of(const void *ptr) {
  return static_cast<const vorn_mem_head_s *>(ptr) - 1;
}

TEST(Mem, BlocksHaveAHeaderAndAreCounted) {
  const struct {
    unsigned int pid;
    const char *charge;
  } rows[] = {{9, "| 9               100 "},
              {1023, "| 1023            100 "},
              {1024, "| 0               100 "}};
  for (const auto &row : rows) {
    void *block = vorn_malloc(row.pid, 100);
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(block) % 16, 0u);
    EXPECT_EQ(vorn_memset(block, 0x1AA, 100), block);
    EXPECT_EQ(static_cast<unsigned char *>(block)[99], 0xAA);
    const uint32_t head[] = {0xF5F5F5F5, 100, row.pid, 0};
    EXPECT_EQ(std::memcmp(head_of(block), head, sizeof head), 0);
    EXPECT_EQ(shown::by(vorn_mem_show), shown_as(row.charge, "100"));
    vorn_free(block);
    EXPECT_EQ(shown::by(vorn_mem_show), shown_as("", "0"));
  }
  EXPECT_EQ(vorn_memset(nullptr, 0, 1), nullptr);
  EXPECT_EQ(vorn_malloc(1, 0), nullptr);
  EXPECT_NO_MESSAGE();

  EXPECT_EQ(vorn_mallocsubstandard(1, 0xFFFFFFF0, 0, "f", 1), nullptr); // wraps with its header
  EXPECT_ONE_MESSAGE(EVLOG_ERROR, "vorn_mem.c", "vorn_mallocsubstandard",
                     "Malloc memory fails. PID: (1), size: (-16), type: (1).");
}

TEST(Mem, ReportsTheFreeOfAForeignBlock) {
  // volatile: the compiler may otherwise see through to malloc and complain for us
  void *volatile foreign = std::malloc(64);
  vorn_freesub(foreign, "caller", 12);
  EXPECT_TRUE(capture::take_lines().at(0).starts_with("E mem magic is wrong, ptr(0x"));
  for (int i = 0; i < 10; ++i)
    vorn_freesub(nullptr, "caller", 12);
  const auto lines = capture::take_lines(); // the rate limiter's clock may have made others
  EXPECT_EQ(std::count(lines.begin(), lines.end(), "E ptr  is null, function(caller) line(12)"), 3);
}

TEST(Mem, TableIsRequestedUntilItIsThereAndShownFiveToALine) {
  vornsim_fail(VORN_SYSCALL_MEM_STAT, EPERM);
  void *uncounted = vorn_malloc(3, 10);
  EXPECT_EQ(shown::by(vorn_mem_show), shown_as("", "0"));
  int64_t bytes = 99;
  EXPECT_EQ(vorn_mem_stat_get(3, &bytes), 1);
  EXPECT_EQ(bytes, 99);
  EXPECT_NO_MESSAGE();
  vornsim_fail(VORN_SYSCALL_MEM_STAT, 0);
  for (unsigned int id = 1; id <= 6; ++id)
    vorn_mem_stat_add(id, id);
  const unsigned long asked = vornsim_count(VORN_SYSCALL_MEM_STAT);
  vorn_free(uncounted); // older than the table
  EXPECT_EQ(vornsim_count(VORN_SYSCALL_MEM_STAT), asked);
  EXPECT_EQ(shown::by(vorn_mem_show),
            shown_as("| 1                 1 | 2                 2 | 3                -7 "
                     "| 4                 4 | 5                 5 \n| 6                 6 ",
                     "11"));
  for (const auto &[id, wanted] : {std::pair{3u, -7}, {6u, 6}, {1023u, 0}}) {
    EXPECT_EQ(vorn_mem_stat_get(id, &bytes), 0);
    EXPECT_EQ(bytes, wanted);
  }
  EXPECT_NO_MESSAGE();
  EXPECT_EQ(capture::traced(vorn_mem_stat_get(1, nullptr)),
            "-1; E vorn_mem_stat_get: Param is invalid, pid(1), bytes((nil)).");
  EXPECT_EQ(vorn_mem_stat_get(1024, &bytes), -1);
  EXPECT_EQ(bytes, 0);
  capture::take();
}

TEST(Mem, CountsFromManyThreadsAreExact) {
  std::latch start{4};
  run_threads(4, [&](int) {
    start.arrive_and_wait();
    for (int i = 0; i < 2000; ++i) {
      void *block = vorn_malloc(4, 32);
      vorn_free(block);
    }
    for (int i = 0; i < 200000; ++i)
      vorn_mem_stat_add(5, 1);
  });
  EXPECT_EQ(shown::by(vorn_mem_show), shown_as("| 5            800000 ", "800000"));
}

TEST(MemInfo, AgreesWithTheSystem) {
  const auto system_page = static_cast<unsigned long>(sysconf(_SC_PAGESIZE));
  unsigned long total = 0, available = 0, page = 0;
  EXPECT_EQ(vorn_get_total_mem(&total), 0);
  // MemTotal and the count of physical pages are one figure of the kernel's
  EXPECT_EQ(total, static_cast<unsigned long>(sysconf(_SC_PHYS_PAGES)) * system_page / 1024);
  EXPECT_EQ(vorn_get_free_mem(&available), 0);
  EXPECT_GT(available, 0u);
  EXPECT_LE(available, total);
  EXPECT_EQ(vorn_get_sys_page_size(&page), 0);
  EXPECT_EQ(page, system_page);
  EXPECT_EQ(vorn_mem_stat_dump(), 0);
  EXPECT_EQ(vornsim_count(VORN_SYSCALL_MEM_STAT_DUMP), 1u);
}

} // namespace
