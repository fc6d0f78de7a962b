// Implements the kernel-style prints and the requests that end the node.
// SPDX-License-Identifier: Apache-2.0
#include "vorn_reboot.h"

#include <cerrno>

#include "base/bounded.hpp"
#include "base/cancellation_guard.hpp"
#include "base/kernel_request.hpp"
#include "base/log.hpp"

namespace vorn::reboot {
namespace {

constexpr std::size_t kPanicTextSize = 256;

} // namespace
} // namespace vorn::reboot

using namespace vorn::reboot;

int printk(const char *format, ...) {
  const vorn::CancellationGuard off; // the node's logging library may have cancellation points
  va_list args;
  va_start(args, format);
  const int result = evlog_vraw(format, args);
  va_end(args);
  return result;
}

void vorn_Reboot(unsigned long reason, int mid, const char *text) {
  const vorn::CancellationGuard off;
  unsigned long first_byte = VORN_SYSCALL_UNUSED;
  if (text != nullptr) {
    evlog_original("Usrspace reboot: reason:%lu, mid:%d, %s.", reason, mid, text);
    first_byte = static_cast<unsigned char>(text[0]);
  } else {
    evlog_original("Usrspace reboot: reason:%lu, mid:%d.", reason, mid);
  }
  const auto mid_word = static_cast<unsigned int>(mid);
  if (vorn::kernel_request(VORN_SYSCALL_REBOOT, reason, mid_word, first_byte) != -1) return;
  VORN_LOG(vorn::kError, "Syscall for vorn_Reboot failed.");
}

int vorn_ResetLocalBoard() {
  if (vorn::kernel_request(VORN_SYSCALL_RESET_LOCAL_BOARD) != -1) return 0;
  return VORN_FAIL(-1, "Syscall for vorn_ResetLocalBoard failed.");
}

unsigned int vorn_get_reboot_count(unsigned long a, unsigned long b) {
  uint32_t count = 0;
  if (vorn::kernel_request(VORN_SYSCALL_REBOOT_COUNT, a, b, &count) != -1) return count;
  return VORN_FAIL(~0u, "Syscall for vorn_get_reboot_count failed.");
}

void panic(const char *format, ...) {
  char text[kPanicTextSize] = {};
  va_list args;
  va_start(args, format);
  const int length = vorn::vsnprintf_s(text, sizeof text, sizeof text - 1, format, args);
  va_end(args);
  if (length == -1) {
    VORN_LOG(vorn::kError, "Print panic info error, ret(%d) errno(%d).", length, errno);
  }
  printk("Panic info = %s\n", text);
  if (vorn::kernel_request(VORN_SYSCALL_PANIC, text) != -1) return;
  VORN_LOG(vorn::kError, "Syscall for vorn_Reboot failed.errno %d", errno);
}
