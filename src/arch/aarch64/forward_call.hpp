// Defines VORN_FORWARD for AArch64.
// SPDX-License-Identifier: Apache-2.0
#ifndef VORN_ARCH_AARCH64_FORWARD_CALL_HPP
#define VORN_ARCH_AARCH64_FORWARD_CALL_HPP

// hint 34 is BTI C, the landing pad that branch target identification demands. The branch goes
// through the linkage table, so that a process may replace the function.
#define VORN_FORWARD_JUMP(to) "  hint 34\n  b " #to "\n"

#endif
