// A process's own function in front of the door: answers that no simulator gives.
#include <cerrno>
#include <cstring>
#include <gtest/gtest.h>
#include <string>

#include "evlog.h"
#include "support/log_capture.hpp"
#include "vorn_mem.h"
#include "vorn_reboot.h"
#include "vorn_syscall.h"

static long answer = 0;
static uint64_t table_address = 0; // what operation 0x401 writes
static uint64_t dirty_table[VORN_MODULE_ID_COUNT];
static std::string panic_text;

long vorn_private_syscall(unsigned long command, unsigned long a1, unsigned long, unsigned long,
                          unsigned long) {
  if (command == VORN_SYSCALL_COMMAND(VORN_SYSCALL_PANIC)) {
    panic_text.assign(reinterpret_cast<const char *>(a1), 256);
  }
  if (command == VORN_SYSCALL_COMMAND(VORN_SYSCALL_MEM_STAT)) {
    std::memcpy(reinterpret_cast<void *>(a1), &table_address, sizeof table_address);
  }
  errno = EIO;
  return answer;
}

namespace {

constexpr long kMinusOneIn32Bits = 0xFFFFFFFF;

TEST(Door, ResultsAreComparedAs32Bits) {
  answer = kMinusOneIn32Bits;
  EXPECT_EQ(vorn_ResetLocalBoard(), -1);
  EXPECT_ONE_RECORD(EVLOG_ERROR, "vorn_reboot.c", "vorn_ResetLocalBoard",
                    "Syscall for vorn_ResetLocalBoard failed.");
  vorn_Reboot(1, 1, nullptr);
  EXPECT_EQ(capture::take().back().text, "Syscall for vorn_Reboot failed.");
  EXPECT_EQ(vorn_get_reboot_count(1, 1), ~0u);
  EXPECT_EQ(vorn_mem_stat_dump(), -1);
  answer = 1l << 32; // 0 in 32 bits
  unsigned long free_memory = 0;
  EXPECT_EQ(vorn_get_free_mem(&free_memory), 0);
  answer = 5;
  capture::take();
  EXPECT_EQ(vorn_get_free_mem(&free_memory), -1);
  EXPECT_ONE_RECORD(EVLOG_ERROR, "vorn_mem_manager.c", "vorn_get_free_mem", "Syscall failed 5.");
}

TEST(Door, CountThatTheKernelModuleDoesNotWriteIsZero) {
  EXPECT_EQ(vorn_get_reboot_count(1, 2), 0u);
  EXPECT_NO_RECORD();
}

TEST(Door, PanicSendsItsWholeBuffer) {
  panic("%s", std::string(300, 'x').c_str());
  EXPECT_EQ(panic_text, std::string(255, 'x') + '\0');
  panic("a %d", 5);
  EXPECT_EQ(panic_text, "a 5" + std::string(253, '\0'));
  capture::take();
  answer = -1;
  panic("b");
  const auto records = capture::take();
  ASSERT_EQ(records.size(), 2u);
  EXPECT_EQ(records[1].level, EVLOG_ERROR);
  EXPECT_EQ(records[1].function, "panic");
  EXPECT_EQ(records[1].text, "Syscall for vorn_Reboot failed.errno 5");
}

TEST(Door, TableIsTakenOnlyFromASuccessAndCleared) {
  std::memset(dirty_table, 0xFF, sizeof dirty_table);
  table_address = reinterpret_cast<uint64_t>(dirty_table);
  answer = -1;
  vorn_mem_stat_add(3, 1);
  EXPECT_EQ(dirty_table[3], ~0ul);
  answer = 0;
  table_address = 0;
  vorn_mem_stat_add(3, 1);
  table_address = reinterpret_cast<uint64_t>(dirty_table);
  vorn_mem_stat_add(3, 7);
  EXPECT_EQ(dirty_table[3], 7u);
  EXPECT_EQ(dirty_table[0], 0u);
  EXPECT_EQ(dirty_table[1023], 0u);
}

TEST(Door, AllocatorKeepsErrno) {
  answer = -1;
  errno = 7;
  void *block = vorn_malloc(1, 10);
  EXPECT_EQ(errno, 7);
  vorn_free(block);
  EXPECT_EQ(errno, 7);
}

} // namespace
