// test-links: vornsim
#include "vorn_reboot.h"

#include <cerrno>
#include <gtest/gtest.h>
#include <string>

#include "evlog.h"
#include "support/log_capture.hpp"
#include "vorn_syscall.h"
#include "vornsim.h"

namespace {

constexpr unsigned long kUnused = ~0ul;

void expect_call(unsigned int operation, unsigned long a1, unsigned long a2, unsigned long a3) {
  vornsim_call_s call{};
  ASSERT_EQ(vornsim_last_call(operation, &call), 0);
  EXPECT_EQ(call.arguments[0], a1);
  EXPECT_EQ(call.arguments[1], a2);
  EXPECT_EQ(call.arguments[2], a3);
  EXPECT_EQ(call.arguments[3], kUnused);
}

TEST(Printk, WritesTheTextAsItStands) {
  EXPECT_EQ(printk("%s=%d", "a", 1), 0);
  const auto records = capture::take();
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(records[0].level, capture::kRaw);
  EXPECT_EQ(records[0].text, "a=1");
}

TEST(Reboot, PassesTheFirstByteOfTheText) {
  vorn_Reboot(7, 2, "abc");
  expect_call(VORN_SYSCALL_REBOOT, 7, 2, 97);
  vorn_Reboot(7, -1, "\xFF");
  expect_call(VORN_SYSCALL_REBOOT, 7, 0xFFFFFFFF, 0xFF);
  vorn_Reboot(~0ul, 2, nullptr);
  expect_call(VORN_SYSCALL_REBOOT, ~0ul, 2, kUnused);
  const auto records = capture::take();
  ASSERT_EQ(records.size(), 3u);
  EXPECT_EQ(records[0].level, capture::kOriginal);
  EXPECT_EQ(records[0].text, "Usrspace reboot: reason:7, mid:2, abc.");
  EXPECT_EQ(records[2].text, "Usrspace reboot: reason:18446744073709551615, mid:2.");
}

TEST(Reboot, CountIsWhatTheKernelModuleWrote) {
  vornsim_set_reboot_count(42);
  EXPECT_EQ(vorn_get_reboot_count(5, ~1ul), 42u);
  vornsim_call_s call{};
  ASSERT_EQ(vornsim_last_call(VORN_SYSCALL_REBOOT_COUNT, &call), 0);
  EXPECT_EQ(call.arguments[0], 5u);
  EXPECT_EQ(call.arguments[1], ~1ul);
  EXPECT_EQ(call.arguments[3], kUnused);
}

TEST(Reboot, FailuresAreReportedInTheFunctionsName) {
  for (const unsigned int operation : {0u, 1u, 2u})
    ASSERT_EQ(vornsim_fail(operation, EPERM), 0);
  vorn_Reboot(1, 1, nullptr);
  ASSERT_EQ(capture::take().back().text, "Syscall for vorn_Reboot failed.");
  EXPECT_EQ(vorn_ResetLocalBoard(), -1);
  EXPECT_ONE_RECORD(EVLOG_ERROR, "vorn_reboot.c", "vorn_ResetLocalBoard",
                    "Syscall for vorn_ResetLocalBoard failed.");
  EXPECT_EQ(vorn_get_reboot_count(0, 0), ~0u);
  EXPECT_ONE_RECORD(EVLOG_ERROR, "vorn_reboot.c", "vorn_get_reboot_count",
                    "Syscall for vorn_get_reboot_count failed.");
  vornsim_fail(0, 0);
  EXPECT_EQ(vorn_ResetLocalBoard(), 0);
  expect_call(VORN_SYSCALL_RESET_LOCAL_BOARD, kUnused, kUnused, kUnused);
}

TEST(Panic, SendsTheTextAndReturns) {
  panic("disk %d", 3);
  const auto records = capture::take();
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(records[0].text, "Panic info = disk 3\n");
  vornsim_call_s call{};
  ASSERT_EQ(vornsim_last_call(VORN_SYSCALL_PANIC, &call), 0);
  EXPECT_NE(call.arguments[0], 0u);
  EXPECT_EQ(call.arguments[1], kUnused);
}

TEST(Panic, KeepsTheFirst255CharactersAndReportsTheCut) {
  const std::string text(300, 'x');
  panic("%s", text.c_str());
  const auto records = capture::take();
  ASSERT_EQ(records.size(), 2u);
  EXPECT_EQ(records[0].level, EVLOG_ERROR);
  EXPECT_EQ(records[0].function, "panic");
  EXPECT_EQ(records[0].text.rfind("Print panic info error, ret(-1) errno(", 0), 0u);
  EXPECT_EQ(records[1].text, "Panic info = " + std::string(255, 'x') + "\n");
}

TEST(Panic, FailedRequestIsReportedWithItsErrno) {
  vornsim_fail(VORN_SYSCALL_PANIC, EPERM);
  panic("x");
  EXPECT_EQ(capture::take().back().text, "Syscall for vorn_Reboot failed.errno 1");
}

TEST(Door, UnknownOperationsAndModulesHaveNoCall) {
  for (const unsigned long command : {VORN_SYSCALL_COMMAND(0x3FF), 0ul, 382ul << 32}) {
    errno = 0;
    EXPECT_EQ(vorn_private_syscall(command, 0, 0, 0, 0), -1);
    EXPECT_EQ(errno, ENOSYS);
  }
  EXPECT_EQ(vornsim_count(0x3FF), 0u);
  vornsim_call_s call{};
  EXPECT_EQ(vornsim_last_call(VORN_SYSCALL_PANIC, &call), -1); // never asked for
}

} // namespace
