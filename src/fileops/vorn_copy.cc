// Copies files.
// SPDX-License-Identifier: Apache-2.0
#define VORN_FILE "vorn_fileops.c"

#include "vorn_fileops.h"

#include <cerrno>
#include <fcntl.h>
#include <unistd.h>

#include "base/log.hpp"
#include "base/system.hpp"
#include "mem/owned.hpp"

namespace vorn::fileops {
namespace {

// A larger buffer copies no faster.
constexpr unsigned int kBufferSize = 128 * 1024;

// Opening dest would truncate it, and src with it.
bool are_one_file(int from, const char *dest) {
  struct stat source;
  struct stat target;
  return fstat(from, &source) == 0 && stat(dest, &target) == 0 && source.st_dev == target.st_dev &&
         source.st_ino == target.st_ino;
}

} // namespace
} // namespace vorn::fileops

using namespace vorn::fileops;

int vorn_copy(const char *src, const char *dest) {
  if (src == nullptr || dest == nullptr) return VORN_FAIL(-1, "Param is NULL.");
  const vorn::UniqueFd from = vorn::sys::open(src, O_RDONLY);
  if (!from) return VORN_FAIL(-ECANCELED, "Open srcFile %s error.", src);
  if (are_one_file(from.get(), dest)) return 0;

  const vorn::mem::Block buffer = vorn::mem::allocate_block(kBufferSize);
  if (buffer == nullptr) return -ENOMEM;
  const vorn::UniqueFd to = vorn::sys::open(dest, O_RDWR | O_CREAT | O_TRUNC, 0600);
  if (!to) return VORN_FAIL(-1, "Open pDestFile %s error.", dest);

  for (;;) {
    const ssize_t length = vorn::sys::read(from.get(), buffer.get(), kBufferSize);
    if (length == 0) return 0;
    if (length < 0)
      return VORN_FAIL(-1, "copydata read from srcFile=%s to destfile=%s error.", src, dest);
    if (!vorn::sys::write_all(to.get(), buffer.get(), static_cast<std::size_t>(length)))
      return VORN_FAIL(-1, "copydata WRITE from srcFile=%s to destfile=%s error.", src, dest);
  }
}
