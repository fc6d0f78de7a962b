// Wraps safeclib's functions and the C library's formatter in the forms of base/bounded.hpp.
// SPDX-License-Identifier: Apache-2.0
#include "base/bounded.hpp"

#include <algorithm>
#include <cstdio>

#include <safeclib/safe_mem_lib.h>
#include <safeclib/safe_str_lib.h>

// safeclib's names are macros over these functions; the ones declared in the header are ours.
#undef memset_s
#undef snprintf_s
#undef strcpy_s
#undef vsnprintf_s

namespace vorn {

namespace {
constexpr std::size_t kUnknownObjectSize = static_cast<std::size_t>(-1);
}

int vsnprintf_s(char *buffer, std::size_t size, std::size_t count, const char *format,
                std::va_list args) {
  if (buffer == nullptr || size == 0) return -1;
  buffer[0] = '\0';
  if (format == nullptr || count >= size) return -1;
  const int length = std::vsnprintf(buffer, count + 1, format, args);
  return length < 0 || static_cast<std::size_t>(length) > count ? -1 : length;
}

int snprintf_s(char *buffer, std::size_t size, std::size_t count, const char *format, ...) {
  std::va_list args;
  va_start(args, format);
  const int length = vsnprintf_s(buffer, size, count, format, args);
  va_end(args);
  return length;
}

// safeclib refuses a larger destination, and a text that exceeds the rest of it would not fit.
// These functions copy such texts themselves.
int strcpy_s(char *dest, std::size_t size, const char *src) {
  return _strcpy_s_chk(dest, std::min<std::size_t>(size, RSIZE_MAX_STR), src, kUnknownObjectSize);
}

// safeclib fills at most RSIZE_MAX_MEM bytes per call, and refuses a value above a byte.
int memset_s(void *dest, std::size_t size, int value, std::size_t count) {
  if (dest != nullptr && count > size)
    return _memset_s_chk(dest, size, value, count, kUnknownObjectSize);
  auto *at = static_cast<unsigned char *>(dest);
  const int byte = static_cast<unsigned char>(value);
  do {
    const std::size_t step = std::min<std::size_t>(count, RSIZE_MAX_MEM);
    const int result = _memset_s_chk(at, step, byte, step, kUnknownObjectSize);
    if (result != 0) return result;
    at += step;
    count -= step;
  } while (count != 0);
  return 0;
}

} // namespace vorn
