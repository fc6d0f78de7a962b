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

using Words = std::vector<unsigned long>;

constexpr unsigned long kUnused = ~0ul;

// The arguments of the operation's latest call.
Words asked(unsigned int operation) {
  vornsim_call_s call{};
  EXPECT_EQ(vornsim_last_call(operation, &call), 0);
  return {std::begin(call.arguments), std::end(call.arguments)};
}

TEST(Reboot, PassesTheFirstByteOfTheText) {
  vorn_Reboot(7, -1, "\xFF");
  EXPECT_EQ(asked(VORN_SYSCALL_REBOOT), (Words{7, 0xFFFFFFFF, 0xFF, kUnused}));
  vorn_Reboot(~0ul, 2, nullptr);
  EXPECT_EQ(asked(VORN_SYSCALL_REBOOT), (Words{~0ul, 2, kUnused, kUnused}));
  const auto records = capture::take();
  ASSERT_EQ(records.size(), 2u);
  EXPECT_EQ(records[0].level, capture::kOriginal);
  EXPECT_EQ(records[0].text, "Usrspace reboot: reason:7, mid:-1, \xFF.");
  EXPECT_EQ(records[1].text, "Usrspace reboot: reason:18446744073709551615, mid:2.");
}

TEST(Reboot, OtherRequestsPassTheirWordsAndReportAFailure) {
  vornsim_set_reboot_count(42);
  EXPECT_EQ(vorn_get_reboot_count(5, ~1ul), 42u);
  EXPECT_EQ(asked(VORN_SYSCALL_REBOOT_COUNT)[0], 5u);
  EXPECT_EQ(asked(VORN_SYSCALL_REBOOT_COUNT)[1], ~1ul);
  EXPECT_EQ(vorn_ResetLocalBoard(), 0);
  EXPECT_EQ(asked(VORN_SYSCALL_RESET_LOCAL_BOARD), Words(4, kUnused));

  vornsim_fail(VORN_SYSCALL_REBOOT_COUNT, EPERM);
  EXPECT_EQ(vorn_get_reboot_count(0, 0), ~0u);
  EXPECT_ONE_RECORD(EVLOG_ERROR, "vorn_reboot.c", "vorn_get_reboot_count",
                    "Syscall for vorn_get_reboot_count failed.");
}

TEST(Panic, PrintsTheFirst255CharactersAndReportsTheCut) {
  EXPECT_EQ(printk("%s=%d", "a", 1), 0);
  panic("%s", std::string(255, 'x').c_str());
  panic("%s", std::string(256, 'x').c_str());
  const std::vector<std::string> texts = capture::take_texts();
  const std::string printed = "Panic info = " + std::string(255, 'x') + "\n";
  ASSERT_EQ(texts.size(), 4u);
  EXPECT_EQ(texts[0], "a=1");
  EXPECT_EQ(texts[1], printed);
  EXPECT_TRUE(texts[2].starts_with("Print panic info error, ret(-1) errno(")) << texts[2];
  EXPECT_EQ(texts[3], printed);
}

} // namespace
