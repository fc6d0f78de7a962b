#define VORN_FILE "vorn_cfg.c"
#include "cfg/vorn_cfg_lock.hpp"

#include <cerrno>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

#include "base/log.hpp"
#include "vorn_fileops.h"

namespace vorn::cfg {
namespace {

// Waits, whatever signals come. The result is 0 or an errno.
int lock_file(int fd, int operation) {
  while (flock(fd, operation) != 0) {
    if (errno != EINTR) return errno;
  }
  return 0;
}

} // namespace

bool is_named(const char *path, int fd) {
  struct stat named;
  struct stat opened;
  return vorn_stat(path, &named) == 0 && fstat(fd, &opened) == 0 && named.st_dev == opened.st_dev &&
         named.st_ino == opened.st_ino;
}

UniqueFd open_locked(const char *path, int flags, unsigned int mode) {
  for (;;) {
    UniqueFd fd(vorn_open(path, flags, mode));
    if (!fd) return fd;
    vorn_cfg_file_lock(fd.get());
    if (is_named(path, fd.get())) return fd;
  }
}

// A lock that protects nothing is not kept while waiting for another.
PathLock::PathLock(const char *path, int fd) : fd_(fd) {
  vorn_cfg_file_lock(fd);
  if (is_named(path, fd)) return;
  vorn_cfg_file_unlock(fd);
  own_ = open_locked(path, O_RDWR | O_NONBLOCK | O_CLOEXEC, 0);
  fd_ = own_.get();
}

PathLock::~PathLock() {
  if (fd_ >= 0) vorn_cfg_file_unlock(fd_);
}

void vorn_cfg_file_lock(int fd) {
  const int error = lock_file(fd, LOCK_EX);
  if (error != 0) VORN_LOG(kInfo, "Add flock failed, errno = %d", error);
}

void vorn_cfg_file_unlock(int fd) {
  const int error = lock_file(fd, LOCK_UN);
  if (error != 0) VORN_LOG(kInfo, "Down flock failed, errno = %d", error);
}

} // namespace vorn::cfg
