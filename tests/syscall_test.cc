#include "vorn_syscall.h"

#include <cerrno>
#include <gtest/gtest.h>

#include "support/log_capture.hpp"
#include "vorn_reboot.h"

// No kernel module here: every request fails, and nothing else happens.
TEST(Door, FailsWithEnosysWithoutTheKernelModule) {
  errno = 0;
  EXPECT_EQ(vorn_private_syscall(VORN_SYSCALL_COMMAND(VORN_SYSCALL_REBOOT), 0, 0, 0, 0), -1);
  EXPECT_EQ(errno, ENOSYS);
  EXPECT_EQ(vorn_ResetLocalBoard(), -1);
  panic("nobody hears this");
  EXPECT_EQ(capture::take().back().text, "Syscall for vorn_Reboot failed.errno 38");
}
