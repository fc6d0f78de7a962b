#define VORN_FILE "vorn_fileops.c"

#include "vorn_fileops.h"

#include <cerrno>
#include <fcntl.h>
#include <unistd.h>

#include "base/kept_errno.hpp"
#include "base/log.hpp"
#include "base/unique_fd.hpp"
#include "fileops/block.hpp"

namespace vorn::fileops {
namespace {

// From here on a larger buffer copies no faster.
constexpr unsigned int kBufferSize = 128 * 1024;

// Opening dest would empty it, and with it src.
bool are_one_file(int from, const char *dest) {
  struct stat source;
  struct stat target;
  return fstat(from, &source) == 0 && stat(dest, &target) == 0 && source.st_dev == target.st_dev &&
         source.st_ino == target.st_ino;
}

ssize_t read_some(int fd, char *buffer) {
  ssize_t length = -1;
  do {
    length = read(fd, buffer, kBufferSize);
  } while (length < 0 && errno == EINTR);
  return length;
}

bool write_all(int fd, const char *at, std::size_t left) {
  while (left > 0) {
    const ssize_t length = write(fd, at, left);
    if (length < 0 && errno == EINTR) continue;
    if (length <= 0) return false;
    at += length;
    left -= static_cast<std::size_t>(length);
  }
  return true;
}

} // namespace
} // namespace vorn::fileops

int vorn_copy(const char *src, const char *dest) {
  if (src == nullptr || dest == nullptr) return VORN_FAIL(-1, "Param is NULL.");
  const vorn::UniqueFd from(open(src, O_RDONLY | O_CLOEXEC));
  if (!from) {
    const vorn::KeptErrno kept;
    return VORN_FAIL(-ECANCELED, "Open srcFile %s error.", src);
  }
  if (vorn::fileops::are_one_file(from.get(), dest)) return 0;

  const vorn::fileops::Block buffer = vorn::fileops::allocate_block(vorn::fileops::kBufferSize);
  if (buffer == nullptr) return -ENOMEM;
  const vorn::UniqueFd to(open(dest, O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
  if (!to) {
    const vorn::KeptErrno kept;
    return VORN_FAIL(-1, "Open pDestFile %s error.", dest);
  }

  for (;;) {
    const ssize_t length = vorn::fileops::read_some(from.get(), buffer.get());
    if (length == 0) return 0;
    if (length < 0) {
      const vorn::KeptErrno kept;
      return VORN_FAIL(-1, "copydata read from srcFile=%s to destfile=%s error.", src, dest);
    }
    if (!vorn::fileops::write_all(to.get(), buffer.get(), static_cast<std::size_t>(length))) {
      const vorn::KeptErrno kept;
      return VORN_FAIL(-1, "copydata WRITE from srcFile=%s to destfile=%s error.", src, dest);
    }
  }
}
