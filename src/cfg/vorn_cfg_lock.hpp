// The three kinds of locks: of the registry, of parsed files in memory, and of files on disk.
#ifndef VORN_CFG_LOCK_HPP
#define VORN_CFG_LOCK_HPP

#include <sys/types.h>
#include <utility>

#include "base/cancellation_off.hpp"
#include "base/unique_fd.hpp"
#include "vorn_rwlock.h"

namespace vorn::cfg {

// In memory. A holder may be freeing or writing out a whole file, or be preempted: waiters sleep in
// between. A holder is inside the fork gate, a waiter is not: the thread that forks may be the one
// that it waits for.

class ReadGuard {
public:
  explicit ReadGuard(vorn_rwlock_s &lock);
  ReadGuard(const ReadGuard &) = delete;
  ReadGuard &operator=(const ReadGuard &) = delete;
  ~ReadGuard() { release(); }

  // Before the end of the scope: from the registry's lock to the file's, hand over hand, and before
  // a log message, which may take its time.
  void release();

private:
  vorn_rwlock_s *lock_;
};

class WriteGuard {
public:
  explicit WriteGuard(vorn_rwlock_s &lock);
  WriteGuard(const WriteGuard &) = delete;
  WriteGuard &operator=(const WriteGuard &) = delete;
  ~WriteGuard() { release(); }

  void release();

private:
  vorn_rwlock_s *lock_;
};

// The registry's lock, g_stCfgRwlock. Its readers enter whenever no writer holds it, so the
// registry's own readers let the registry's writers that wait go first: outside the lock's word,
// and not for long, since a reader may be called by a thread that holds the lock for reading
// already. The thread is not cancelled while a guard exists.

class RegistryReadGuard {
public:
  RegistryReadGuard();

  void release() { hold_.release(); }

private:
  const CancellationOff off_;
  ReadGuard hold_;
};

class RegistryWriteGuard {
public:
  RegistryWriteGuard();

  void release() { hold_.release(); }

private:
  const CancellationOff off_;
  WriteGuard hold_;
};

// Whether path names another file than the open one, or none.
bool is_replaced(const char *path, int fd);

// The lock on the file that path names: editors of a file hold its exclusive flock(2). A rename may
// take the path from the file while they wait for it, and a lock on a file that has no name any
// more keeps no thread out: an editor that has got the lock checks that the path still names the
// file, and otherwise opens and locks again. The thread is not cancelled while the object exists.
class PathLock {
public:
  // Through a descriptor of its own, with these flags; the file is made with mode where they say
  // so.
  PathLock(const char *path, int flags, mode_t mode);
  // Through a descriptor of the caller's where that is the same file, else through one of its own.
  PathLock(const char *path, int fd);
  PathLock(const PathLock &) = delete;
  PathLock &operator=(const PathLock &) = delete;
  ~PathLock();

  // False: path cannot be opened, errno says why.
  explicit operator bool() const { return fd_ >= 0; }
  int fd() const { return fd_; }

private:
  const CancellationOff off_;
  UniqueFd own_;
  int fd_;
};

// A failure is logged; an edit goes on without the lock.
void vorn_cfg_file_lock(int fd);
void vorn_cfg_file_unlock(int fd);

} // namespace vorn::cfg

#endif
