// The two kinds of locks: of parsed files in memory, and of files on disk.
#ifndef VORN_CFG_LOCK_HPP
#define VORN_CFG_LOCK_HPP

#include <utility>

#include "base/unique_fd.hpp"
#include "vorn_rwlock.h"

namespace vorn::cfg {

// A holder may be freeing or writing out a whole file, or be preempted: waiters sleep in between.
class ReadGuard {
public:
  explicit ReadGuard(vorn_rwlock_s &lock) : lock_(&lock) { vorn_rwlock_read_lock_mayblock(lock_); }
  ReadGuard(const ReadGuard &) = delete;
  ReadGuard &operator=(const ReadGuard &) = delete;
  ~ReadGuard() { release(); }

  // Before the end of the scope: from the registry's lock to the file's, hand over hand.
  void release() {
    if (lock_ != nullptr) vorn_rwlock_read_unlock(std::exchange(lock_, nullptr));
  }

private:
  vorn_rwlock_s *lock_;
};

class WriteGuard {
public:
  explicit WriteGuard(vorn_rwlock_s &lock) : lock_(&lock) {
    vorn_rwlock_write_lock_mayblock(lock_);
  }
  WriteGuard(const WriteGuard &) = delete;
  WriteGuard &operator=(const WriteGuard &) = delete;
  ~WriteGuard() { release(); }

  void release() {
    if (lock_ != nullptr) vorn_rwlock_write_unlock(std::exchange(lock_, nullptr));
  }

private:
  vorn_rwlock_s *lock_;
};

// Whether path names the open file.
bool is_named(const char *path, int fd);

// Editors of a file hold its exclusive flock(2). A rename may take the path from the file while
// they wait for it, and a lock on a file that has no name any more keeps nobody out: so whoever has
// got the lock checks that the path still names the file, and otherwise opens and locks again.

// Opens path, made with mode where flags say so, and locks it. Invalid with errno when it cannot be
// opened. Closing it releases the lock.
UniqueFd open_locked(const char *path, int flags, unsigned int mode);

// The lock on the file that path names: through a descriptor of the caller's where that is the same
// file, else through one of its own.
class PathLock {
public:
  PathLock(const char *path, int fd);
  PathLock(const PathLock &) = delete;
  PathLock &operator=(const PathLock &) = delete;
  ~PathLock();

  explicit operator bool() const {
    return fd_ >= 0;
  } // false: path cannot be opened, errno says why
  int fd() const { return fd_; }

private:
  UniqueFd own_;
  int fd_;
};

// A failure is recorded; an edit goes on without the lock.
void vorn_cfg_file_lock(int fd);
void vorn_cfg_file_unlock(int fd);

} // namespace vorn::cfg

#endif
