// test-links: vornsim
#include "vorn_reboot.h"

#include <cerrno>
#include <gtest/gtest.h>
#include <string>
#include <vector>

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

TEST(Reboot, FailuresAreReportedInTheFunctionsName) {
  for (const unsigned int operation : {0u, 1u, 2u})
    ASSERT_EQ(vornsim_fail(operation, EPERM), 0);
  EXPECT_EQ(vorn_ResetLocalBoard(), -1);
  EXPECT_ONE_RECORD(EVLOG_ERROR, "vorn_reboot.c", "vorn_ResetLocalBoard",
                    "Syscall for vorn_ResetLocalBoard failed.");
  EXPECT_EQ(vorn_get_reboot_count(0, 0), ~0u);
  vornsim_fail(0, 0);
  EXPECT_EQ(vorn_ResetLocalBoard(), 0);
  expect_call(VORN_SYSCALL_RESET_LOCAL_BOARD, kUnused, kUnused, kUnused);
}

TEST(Reboot, CountIsWhatTheKernelModuleWrote) {
  vornsim_set_reboot_count(42);
  EXPECT_EQ(vorn_get_reboot_count(5, ~1ul), 42u);
  vornsim_call_s call{};
  ASSERT_EQ(vornsim_last_call(VORN_SYSCALL_REBOOT_COUNT, &call), 0);
  EXPECT_EQ(call.arguments[0], 5u);
  EXPECT_EQ(call.arguments[1], ~1ul);
}

TEST(Panic, SendsTheFirst255CharactersAndReportsTheCut) {
  EXPECT_EQ(printk("%s=%d", "a", 1), 0);
  EXPECT_EQ(capture::take_texts(), std::vector<std::string>{"a=1"});
  panic("disk %d", 3);
  EXPECT_EQ(capture::take_texts(), std::vector<std::string>{"Panic info = disk 3\n"});
  vornsim_call_s call{};
  ASSERT_EQ(vornsim_last_call(VORN_SYSCALL_PANIC, &call), 0);
  EXPECT_NE(call.arguments[0], 0u);

  vornsim_fail(VORN_SYSCALL_PANIC, EPERM);
  panic("%s", std::string(300, 'x').c_str());
  const auto texts = capture::take_texts();
  ASSERT_EQ(texts.size(), 3u);
  EXPECT_EQ(texts[0].rfind("Print panic info error, ret(-1) errno(", 0), 0u);
  EXPECT_EQ(texts[1], "Panic info = " + std::string(255, 'x') + "\n");
  EXPECT_EQ(texts[2], "Syscall for vorn_Reboot failed.errno 1");
}

} // namespace
