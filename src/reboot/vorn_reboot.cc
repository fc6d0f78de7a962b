#include "vorn_reboot.h"

#include <cerrno>

#include "base/bounded.hpp"
#include "base/log.hpp"
#include "vorn_syscall.h"

namespace vorn::reboot {
namespace {

constexpr std::size_t kPanicTextSize = 256;

// The kernel module answers in 32 bits.
bool request(unsigned int operation, unsigned long a1 = VORN_SYSCALL_UNUSED,
             unsigned long a2 = VORN_SYSCALL_UNUSED, unsigned long a3 = VORN_SYSCALL_UNUSED) {
  const long result =
      vorn_private_syscall(VORN_SYSCALL_COMMAND(operation), a1, a2, a3, VORN_SYSCALL_UNUSED);
  return static_cast<int>(result) != -1;
}

template <class T> unsigned long word(T *address) {
  return reinterpret_cast<unsigned long>(address);
}

} // namespace
} // namespace vorn::reboot

int printk(const char *format, ...) {
  va_list args;
  va_start(args, format);
  const int result = evlog_vraw(format, args);
  va_end(args);
  return result;
}

void vorn_Reboot(unsigned long reason, int mid, const char *text) {
  unsigned long first_byte = VORN_SYSCALL_UNUSED;
  if (text != nullptr) {
    evlog_original("Usrspace reboot: reason:%lu, mid:%d, %s.", reason, mid, text);
    first_byte = static_cast<unsigned char>(text[0]);
  } else {
    evlog_original("Usrspace reboot: reason:%lu, mid:%d.", reason, mid);
  }
  const auto mid_word = static_cast<unsigned long>(static_cast<unsigned int>(mid));
  if (vorn::reboot::request(VORN_SYSCALL_REBOOT, reason, mid_word, first_byte)) return;
  VORN_LOG(vorn::kError, "Syscall for vorn_Reboot failed.");
}

int vorn_ResetLocalBoard() {
  if (vorn::reboot::request(VORN_SYSCALL_RESET_LOCAL_BOARD)) return 0;
  return VORN_FAIL(-1, "Syscall for vorn_ResetLocalBoard failed.");
}

unsigned int vorn_get_reboot_count(unsigned long a, unsigned long b) {
  uint32_t count = 0;
  if (vorn::reboot::request(VORN_SYSCALL_REBOOT_COUNT, a, b, vorn::reboot::word(&count)))
    return count;
  return VORN_FAIL(~0u, "Syscall for vorn_get_reboot_count failed.");
}

void panic(const char *format, ...) {
  char text[vorn::reboot::kPanicTextSize] = {};
  va_list args;
  va_start(args, format);
  const int length = vorn::vsnprintf_s(text, sizeof text, sizeof text - 1, format, args);
  const int format_error = errno;
  va_end(args);
  if (length == -1) {
    VORN_LOG(vorn::kError, "Print panic info error, ret(%d) errno(%d).", length, format_error);
  }
  printk("Panic info = %s\n", text);
  if (vorn::reboot::request(VORN_SYSCALL_PANIC, vorn::reboot::word(text))) return;
  const int call_error = errno;
  VORN_LOG(vorn::kError, "Syscall for vorn_Reboot failed.errno %d", call_error);
}
