// A process's own function in front of the door: what passes through it, and answers that no
// simulator gives.
// SPDX-License-Identifier: Apache-2.0
#include <algorithm>
#include <array>
#include <cerrno>
#include <gtest/gtest.h>
#include <string>
#include <thread>
#include <vector>

#include "evlog.h"
#include "support/log_capture.hpp"
#include "vorn_cpu.h"
#include "vorn_mem.h"
#include "vorn_reboot.h"
#include "vorn_spinlock.h"
#include "vorn_syscall.h"

using Words = std::array<unsigned long, 5>;

static long answer = 0;
static Words asked; // the last request
static uint64_t table_address = 0;
static std::string panic_text;
static uint32_t set_value = 0;

long vorn_private_syscall(unsigned long command, unsigned long a1, unsigned long a2,
                          unsigned long a3, unsigned long a4) {
  asked = {command, a1, a2, a3, a4};
  switch (command & 0xFFFFFFFF) {
  case VORN_SYSCALL_PANIC:
    panic_text.assign(reinterpret_cast<const char *>(a1), 256);
    break;
  case VORN_SYSCALL_SET_IDLE_NO_CSTATES:
    set_value = *reinterpret_cast<uint32_t *>(a2);
    break;
  case VORN_SYSCALL_MEM_STAT:
    *reinterpret_cast<uint64_t *>(a1) = table_address;
    break;
  }
  errno = EIO;
  return answer;
}

namespace {

constexpr long kMinusOneIn32Bits = 0xFFFFFFFF;
constexpr long kZeroIn32Bits = 1l << 32;

Words words(unsigned int operation, unsigned long a1 = ~0ul, unsigned long a2 = ~0ul,
            unsigned long a3 = ~0ul) {
  return {381ul << 32 | operation, a1, a2, a3, ~0ul};
}

TEST(Door, RebootPassesTheFirstByteOfTheText) {
  vorn_Reboot(7, -1, "\xFF");
  EXPECT_EQ(asked, words(1, 7, 0xFFFFFFFF, 0xFF));
  vorn_Reboot(~0ul, 2, nullptr);
  EXPECT_EQ(asked, words(1, ~0ul, 2));
  const auto records = capture::take();
  ASSERT_EQ(records.size(), 2u);
  EXPECT_EQ(records[0].level, capture::kOriginal);
  EXPECT_EQ(records[0].text, "Usrspace reboot: reason:7, mid:-1, \xFF.");
  EXPECT_EQ(records[1].text, "Usrspace reboot: reason:18446744073709551615, mid:2.");
}

TEST(Door, ResultsAreComparedAs32Bits) {
  uint32_t value = 0;
  unsigned long free_memory = 0;
  answer = kMinusOneIn32Bits;
  EXPECT_EQ(vorn_ResetLocalBoard(), -1);
  EXPECT_EQ(asked, words(0));
  vorn_Reboot(1, 1, nullptr);
  EXPECT_EQ(vorn_get_reboot_count(5, ~1ul), ~0u);
  EXPECT_EQ(asked, words(2, 5, ~1ul, asked[3]));
  EXPECT_EQ(vorn_mem_stat_dump(), -1);
  EXPECT_EQ(vorn_get_idle_no_cstates(5, &value), -1);
  answer = kZeroIn32Bits;
  EXPECT_EQ(vorn_get_free_mem(&free_memory), 0);
  EXPECT_EQ(vorn_get_cpu_task_info(0, &value), 0);
  EXPECT_EQ(vorn_ResetLocalBoard(), 0);
  EXPECT_EQ(vorn_get_reboot_count(1, 2), 0u); // which was not written
  answer = 5;
  const std::vector<std::string> failures = {
      "E Syscall for vorn_ResetLocalBoard failed.", "Usrspace reboot: reason:1, mid:1.",
      "E Syscall for vorn_Reboot failed.", "E Syscall for vorn_get_reboot_count failed."};
  auto lines = capture::take_lines();
  lines.resize(failures.size());
  EXPECT_EQ(lines, failures);
  EXPECT_EQ(vorn_get_free_mem(&free_memory), -1);
  EXPECT_ONE_RECORD(EVLOG_ERROR, "vorn_mem_manager.c", "vorn_get_free_mem", "Syscall failed 5.");
}

TEST(Door, RequestsOfTheCpus) {
  uint32_t value = 0;
  const auto address = reinterpret_cast<unsigned long>(&value);
  answer = 7;
  EXPECT_EQ(vorn_get_idle_no_cstates(5, &value), 7);
  EXPECT_EQ(asked, words(0x305, 5, address));
  EXPECT_EQ(vorn_set_idle_no_cstates(6, 0xFFFFFFFE), 7);
  EXPECT_EQ(asked, words(0x306, 6, asked[2]));
  EXPECT_EQ(set_value, 0xFFFFFFFE);
  EXPECT_EQ(vorn_get_cpu_task_info(~0u, &value), -1);
  EXPECT_EQ(asked, words(0x307, ~0u, address));

  EXPECT_NO_RECORD();

  answer = kMinusOneIn32Bits;
  EXPECT_EQ(vorn_set_idle_no_cstates(6, 1), -1);
  EXPECT_EQ(errno, EIO);
  EXPECT_EQ(vorn_get_idle_no_cstates(5, nullptr), -1);
  EXPECT_EQ(vorn_get_cpu_task_info(5, nullptr), -1);
  EXPECT_EQ(
      capture::take_lines(),
      (std::vector<std::string>{"E Syscall for vorn_set_idle_no_cstates failed.",
                                "E idle_no_cstates_value is null.", "E pCpuTaskInfo is null."}));
}

TEST(Door, PanicPrintsAndSendsTheFirst255Characters) {
  std::thread([] {
    pthread_cancel(pthread_self());
    EXPECT_EQ(printk("%s=%d", "a", 1), 0);
    vorn_Reboot(1, 2, nullptr);
    debug_dump_stack(0);
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr); // a std::thread is not made for it
  }).join();
  auto lines = capture::take_lines();
  ASSERT_EQ(lines.size(), 3u);
  EXPECT_EQ(lines[0] + lines[1], "a=1Usrspace reboot: reason:1, mid:2.");
  const std::string longest(255, 'x');
  panic("%s", longest.c_str());
  panic("%s", (longest + "x").c_str());
  EXPECT_EQ(panic_text, longest + '\0');
  panic("a %d", 5);
  EXPECT_EQ(panic_text, "a 5" + std::string(253, '\0'));
  answer = -1;
  panic("b");
  lines = capture::take_lines();
  ASSERT_EQ(lines.size(), 6u);
  EXPECT_EQ(lines[0], "Panic info = " + longest + "\n");
  EXPECT_TRUE(lines[1].starts_with("E Print panic info error, ret(-1) errno(")) << lines[1];
  EXPECT_EQ(lines[2], lines[0]);
  EXPECT_EQ(lines[5], "E Syscall for vorn_Reboot failed.errno 5");
}

TEST(Door, TableIsTakenOnlyFromASuccessAndClearedAndErrnoKept) {
  static uint64_t table[VORN_MODULE_ID_COUNT];
  std::fill_n(table, VORN_MODULE_ID_COUNT, ~0ul);
  table_address = reinterpret_cast<uint64_t>(table);
  answer = -1;
  errno = 7;
  void *block = vorn_malloc(3, 10);
  EXPECT_EQ(errno, 7);
  vorn_free(block);
  EXPECT_EQ(errno, 7);
  EXPECT_EQ(table[3], ~0ul);
  answer = 0;
  table_address = 0;
  vorn_mem_stat_add(3, 1);
  table_address = reinterpret_cast<uint64_t>(table);
  vorn_mem_stat_add(3, 7);
  EXPECT_EQ(table[3], 7u);
  EXPECT_EQ(std::count(table, table + VORN_MODULE_ID_COUNT, 0), VORN_MODULE_ID_COUNT - 1);
}

} // namespace
