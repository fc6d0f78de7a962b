// Wraps the file calls of the system.
// SPDX-License-Identifier: Apache-2.0
#include "vorn_fileops.h"

#include <cerrno>
#include <fcntl.h>
#include <unistd.h>

#include "base/log.hpp"

namespace vorn::fileops {
namespace {

static_assert(sizeof(vorn_file_lock_s) == 24 && offsetof(vorn_file_lock_s, type) == 0 &&
              offsetof(vorn_file_lock_s, start) == 8 && offsetof(vorn_file_lock_s, length) == 16);

int set_lock(int fd, int command, short type, const vorn_file_lock_s &lock) {
  struct flock range = {};
  range.l_type = type;
  range.l_whence = SEEK_SET;
  range.l_start = lock.start;
  range.l_len = lock.length;
  return fcntl(fd, command, &range) == -1 ? -1 : 0;
}

} // namespace
} // namespace vorn::fileops

using namespace vorn::fileops;

int vorn_access(const char *path, int mode) {
  if (path == nullptr) return VORN_FAIL(-1, "pFilePath is NULL.");
  return access(path, mode);
}

int vorn_open(const char *path, int flags, mode_t mode) {
  if (path == nullptr) return VORN_FAIL(-1, "pFilePath is NULL.");
  return open(path, flags, mode);
}

ssize_t vorn_read(int fd, void *buf, size_t count) {
  if (buf == nullptr) return VORN_FAIL(-1, "pBuf is NULL.");
  return read(fd, buf, count);
}

ssize_t vorn_write(int fd, const void *buf, size_t count) {
  if (buf == nullptr) return VORN_FAIL(-1, "pBuf is NULL.");
  return write(fd, buf, count);
}

off_t vorn_lseek(int fd, off_t offset, int whence) { return lseek(fd, offset, whence); }

int vorn_sync(int fd) { return fsync(fd); }

int vorn_close(int fd) { return close(fd); }

int vorn_stat(const char *path, struct stat *buf) {
  if (path == nullptr) return VORN_FAIL(-1, "pPath is NULL.");
  if (buf == nullptr) return VORN_FAIL(-1, "pBuf is NULL.");
  return stat(path, buf);
}

int vorn_statfs(const char *path, struct statfs *buf) {
  if (path == nullptr) return VORN_FAIL(-1, "pPath is NULL.");
  if (buf == nullptr) return VORN_FAIL(-1, "pBuf is NULL.");
  return statfs(path, buf);
}

int vorn_readdir_new(const char *path, struct dirent ***namelist,
                     int (*filter)(const struct dirent *),
                     int (*compar)(const struct dirent **, const struct dirent **)) {
  if (path == nullptr) return VORN_FAIL(-1, "path is NULL.");
  if (namelist == nullptr) return VORN_FAIL(-1, "namelist is NULL.");
  return scandir(path, namelist, filter, compar);
}

int vorn_lockfile(int fd, const vorn_file_lock_s *lock) {
  if (lock == nullptr) return VORN_FAIL(-EINVAL, "Param is NULL.");
  const short type = (lock->type & VORN_FILE_LOCK_WRITE) != 0 ? F_WRLCK : F_RDLCK;
  if ((lock->type & VORN_FILE_LOCK_NO_WAIT) != 0) {
    return set_lock(fd, F_SETLK, type, *lock);
  }
  int result = -1;
  do {
    result = set_lock(fd, F_SETLKW, type, *lock);
  } while (result != 0 && errno == EINTR);
  return result;
}

int vorn_unlockfile(int fd, const vorn_file_lock_s *lock) {
  if (lock == nullptr) return VORN_FAIL(-EINVAL, "Param is NULL.");
  return set_lock(fd, F_SETLK, F_UNLCK, *lock);
}
