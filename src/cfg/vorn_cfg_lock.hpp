// Declares the three kinds of locks of the configuration engine: of the registry, of parsed files
// in memory, and of files on disk.
// SPDX-License-Identifier: Apache-2.0
#ifndef VORN_CFG_LOCK_HPP
#define VORN_CFG_LOCK_HPP

#include <cstdint>
#include <sys/types.h>
#include <utility>

#include "base/atomic_word.hpp"
#include "base/cancellation_guard.hpp"
#include "base/fork_gate.hpp"
#include "base/unique_fd.hpp"
#include "vorn_rwlock.h"

namespace vorn::cfg {

// A lock in memory. Waiting threads sleep between attempts: the holder may be freeing or writing a
// whole file. The holder is inside the fork gate. A waiting thread is not, because it may be
// waiting for the thread that forks.

class ReadGuard {
public:
  explicit ReadGuard(vorn_rwlock_s &lock) : lock_(&lock) {
    enter_fork_gate();
    if (!is_taken_at_once()) [[unlikely]]
      wait();
  }
  ReadGuard(const ReadGuard &) = delete;
  ReadGuard &operator=(const ReadGuard &) = delete;
  ~ReadGuard() { release(); }

  // Releases the lock before the end of the scope: after the thread has taken a file's lock, and
  // before a log message, which may take long.
  void release() {
    if (lock_ == nullptr) return;
    vorn_rwlock_read_unlock(std::exchange(lock_, nullptr));
    leave_fork_gate();
  }

private:
  // Makes one attempt, as vorn_rwlock_try_read_lock does, but inline. A reader only needs to see
  // what the last writer did: acquire.
  bool is_taken_at_once() {
    const auto word = atomic_word(lock_->word);
    std::int64_t readers = word.load(std::memory_order_relaxed);
    return readers >= 0 &&
           word.compare_exchange_strong(readers, readers + 1, std::memory_order_acquire,
                                        std::memory_order_relaxed);
  }

  void wait();

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

// The registry's lock, g_stCfgRwlock. The lock itself lets readers in whenever no writer holds it.
// So that writers do not starve, the registry's readers let waiting writers go first, but only for
// a limited time: a thread that holds the lock for reading may call a reader again.

// Does not disable cancellation, which takes as long as a lookup: the holder calls the logging
// library only under a CancellationGuard, and no other function that may be a cancellation point.
class RegistryReadGuard {
public:
  RegistryReadGuard();

  void release() { hold_.release(); }

private:
  ReadGuard hold_;
};

// The thread is not cancelled while the guard exists.
class RegistryWriteGuard {
public:
  RegistryWriteGuard();

  void release() { hold_.release(); }

private:
  const CancellationGuard off_;
  WriteGuard hold_;
};

// Returns whether path names another file than the open one, or none.
bool is_replaced(const char *path, int fd);

// The lock on the file that path names. Editors of a file hold its exclusive flock(2). A rename may
// replace the file while an editor waits, and a lock on a file without a name excludes no other
// editor. So an editor that has the lock checks that the path still names the file, and if not,
// opens and locks again. The thread is not cancelled while the object exists.
class PathLock {
public:
  // Opens its own descriptor with these flags, and creates the file with mode if they say so.
  PathLock(const char *path, int flags, mode_t mode);
  // Uses the caller's descriptor if it is of the same file, or else opens its own.
  PathLock(const char *path, int fd);
  PathLock(const PathLock &) = delete;
  PathLock &operator=(const PathLock &) = delete;
  ~PathLock();

  // False if path could not be opened; errno says why.
  explicit operator bool() const { return fd_ >= 0; }
  int fd() const { return fd_; }

private:
  const CancellationGuard off_;
  UniqueFd own_;
  int fd_;
};

// Logs a failure; the edit goes on without the lock.
void vorn_cfg_file_lock(int fd);
void vorn_cfg_file_unlock(int fd);

} // namespace vorn::cfg

#endif
