// Tests private calls without a kernel module.
// SPDX-License-Identifier: Apache-2.0
#include "vorn_syscall.h"

#include <cerrno>
#include <gtest/gtest.h>

// Without a kernel module, a request fails and has no other effect.
TEST(Door, FailsWithEnosysWithoutTheKernelModule) {
  errno = 0;
  EXPECT_EQ(vorn_private_syscall(VORN_SYSCALL_COMMAND(VORN_SYSCALL_REBOOT), 0, 0, 0, 0), -1);
  EXPECT_EQ(errno, ENOSYS);
}
