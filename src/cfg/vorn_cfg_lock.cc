// Takes and releases the locks of the configuration engine.
// SPDX-License-Identifier: Apache-2.0
#define VORN_FILE "vorn_cfg.c"
#include "cfg/vorn_cfg_lock.hpp"

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <ctime>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

#include "arch/pause.hpp"
#include "base/atomic_word.hpp"
#include "base/fork_gate.hpp"
#include "base/log.hpp"
#include "base/system.hpp"
#include "base/timespec.hpp"
#include "cfg/vorn_cfg_io.hpp"
#include "vorn_cfg.h"

namespace vorn::cfg {
namespace {

constexpr int kAttempts = 10; // before a sleep
constexpr timespec kSleep{0, 1000};
constexpr std::uint64_t kWritersTurn = 10'000'000; // nanoseconds

// The number of threads that wait to write to the registry. Relaxed: it is advice and guards
// nothing.
constinit std::atomic<int> waiting_writers{0};

// The waiting threads of the parent do not exist in the child.
const ForkChild forget_writers{[] { waiting_writers.store(0, std::memory_order_relaxed); }};

// Takes the lock as vorn_rwlock_write_lock_mayblock does, with acquire.
bool try_write_lock(vorn_rwlock_s *lock) {
  std::int64_t free = 0;
  return atomic_word(lock->word)
      .compare_exchange_strong(free, INT64_MIN, std::memory_order_acquire,
                               std::memory_order_relaxed);
}

// If an attempt succeeds, the thread is inside the gate.
template <class Attempt> bool succeeds_in_a_round(Attempt attempt) {
  enter_fork_gate();
  for (int i = 0; i < kAttempts; ++i) {
    if (attempt()) return true;
    arch::pause();
  }
  leave_fork_gate();
  return false;
}

template <class Attempt> void wait_for(Attempt attempt) {
  while (!succeeds_in_a_round(attempt))
    sys::sleep(kSleep);
}

std::uint64_t now() {
  timespec time{};
  clock_gettime(CLOCK_MONOTONIC, &time);
  return nanoseconds(time);
}

[[gnu::noinline]] void let_writers_go_first() {
  const std::uint64_t end = now() + kWritersTurn;
  do
    sys::sleep(kSleep);
  while (waiting_writers.load(std::memory_order_relaxed) != 0 && now() < end);
}

vorn_rwlock_s &after_writers(vorn_rwlock_s &lock) {
  if (waiting_writers.load(std::memory_order_relaxed) != 0) [[unlikely]]
    let_writers_go_first();
  return lock;
}

vorn_rwlock_s &announced(vorn_rwlock_s &lock) {
  waiting_writers.fetch_add(1, std::memory_order_relaxed);
  return lock;
}

// Waits through signals. Returns false with errno on failure.
bool lock_file(int fd, int operation) {
  return sys::uninterrupted([=] { return flock(fd, operation); }) == 0;
}

enum class Named { kYes, kNo, kUnknown };

// Returns whether path names the file of fd; kUnknown with errno if the system does not tell.
Named names(const char *path, int fd) {
  struct stat named;
  struct stat opened;
  if (fstat(fd, &opened) != 0) return Named::kUnknown;
  if (vorn_stat(path, &named) != 0) return errno == ENOENT ? Named::kNo : Named::kUnknown;
  const bool same = named.st_dev == opened.st_dev && named.st_ino == opened.st_ino;
  return same ? Named::kYes : Named::kNo;
}

// Returns an invalid descriptor, with errno, if path cannot be opened, or the system does not tell
// what it names.
UniqueFd open_locked(const char *path, int flags, mode_t mode) {
  for (;;) {
    UniqueFd fd = open_file(path, flags, mode);
    if (!fd) return fd;
    vorn_cfg_file_lock(fd.get());
    const Named named = names(path, fd.get());
    if (named == Named::kYes) return fd;
    vorn_cfg_file_unlock(fd.get()); // a close does not unlock a file that a child has inherited
    if (named == Named::kUnknown) return UniqueFd();
  }
}

} // namespace

void ReadGuard::wait() {
  leave_fork_gate();
  wait_for([this] { return vorn_rwlock_try_read_lock(lock_) != 0; });
}

WriteGuard::WriteGuard(vorn_rwlock_s &lock) : lock_(&lock) {
  wait_for([this] { return try_write_lock(lock_); });
}

void WriteGuard::release() {
  if (lock_ == nullptr) return;
  vorn_rwlock_write_unlock(std::exchange(lock_, nullptr));
  leave_fork_gate();
}

RegistryReadGuard::RegistryReadGuard() : hold_(after_writers(g_stCfgRwlock)) {}

RegistryWriteGuard::RegistryWriteGuard() : hold_(announced(g_stCfgRwlock)) {
  waiting_writers.fetch_sub(1, std::memory_order_relaxed);
}

bool is_replaced(const char *path, int fd) { return names(path, fd) == Named::kNo; }

PathLock::PathLock(const char *path, int flags, mode_t mode)
    : own_(open_locked(path, flags, mode)), fd_(own_.get()) {}

// Releases a lock that protects nothing before it waits for another.
PathLock::PathLock(const char *path, int fd) : fd_(fd) {
  vorn_cfg_file_lock(fd);
  if (names(path, fd) == Named::kYes) return;
  vorn_cfg_file_unlock(fd);
  own_ = open_locked(path, O_RDWR | O_NONBLOCK, 0);
  fd_ = own_.get();
}

PathLock::~PathLock() {
  if (fd_ >= 0) vorn_cfg_file_unlock(fd_);
}

void vorn_cfg_file_lock(int fd) {
  if (!lock_file(fd, LOCK_EX)) VORN_LOG(kInfo, "Add flock failed, errno = %d", errno);
}

void vorn_cfg_file_unlock(int fd) {
  if (!lock_file(fd, LOCK_UN)) VORN_LOG(kInfo, "Down flock failed, errno = %d", errno);
}

} // namespace vorn::cfg
