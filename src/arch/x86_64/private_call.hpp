#ifndef VORN_ARCH_X86_64_PRIVATE_CALL_HPP
#define VORN_ARCH_X86_64_PRIVATE_CALL_HPP

#include <cerrno>

namespace vorn::arch {

// 259 is mknodat here: there is no private call, and none may be issued.
inline long private_call(unsigned long, unsigned long, unsigned long, unsigned long,
                         unsigned long) {
  errno = ENOSYS;
  return -1;
}

} // namespace vorn::arch

#endif
