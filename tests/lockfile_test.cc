#include "vorn_fileops.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <string>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include "evlog.h"
#include "support/log_capture.hpp"
#include "support/scratch.hpp"

namespace {

constexpr uint64_t kNoWait = VORN_FILE_LOCK_NO_WAIT;
constexpr uint64_t kWriteNoWait = VORN_FILE_LOCK_WRITE | VORN_FILE_LOCK_NO_WAIT;

// What step returns in another process, 0 to 255, given a descriptor of its own for the file.
template <class Step> int run_elsewhere(const std::string &path, Step step) {
  const pid_t child = fork();
  if (child == 0) {
    const int fd = open(path.c_str(), O_RDWR | O_CLOEXEC);
    _exit(step(fd));
  }
  int status = 0;
  waitpid(child, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

class Lockfile : public testing::Test {
protected:
  Lockfile() {
    scratch::write_file(path, "0123456789");
    fd = open(path.c_str(), O_RDWR | O_CLOEXEC);
  }
  ~Lockfile() override { close(fd); }

  // 0 when another process gets the lock at once, else the errno of its failure.
  int refused_elsewhere(vorn_file_lock_s lock) {
    return run_elsewhere(
        path, [lock](int other) { return vorn_lockfile(other, &lock) == 0 ? 0 : errno; });
  }

  scratch::Directory directory;
  const std::string path = directory / "file";
  int fd = -1;
};

TEST_F(Lockfile, AWriteLockExcludesItsRangeAndNoMore) {
  const vorn_file_lock_s lock{VORN_FILE_LOCK_WRITE, 2, 4};
  ASSERT_EQ(vorn_lockfile(fd, &lock), 0);
  EXPECT_EQ(refused_elsewhere({kWriteNoWait, 2, 4}), EAGAIN);
  EXPECT_EQ(refused_elsewhere({kNoWait, 5, 1}), EAGAIN);
  EXPECT_EQ(refused_elsewhere({kWriteNoWait | 0xFFFFFFF0, 0, 0}), EAGAIN);
  EXPECT_EQ(refused_elsewhere({kWriteNoWait, 0, 2}), 0);
  EXPECT_EQ(refused_elsewhere({kWriteNoWait, 6, 0}), 0);
  EXPECT_EQ(refused_elsewhere({VORN_FILE_LOCK_WRITE, 6, 100}), 0);

  const vorn_file_lock_s half{0, 2, 2};
  EXPECT_EQ(vorn_unlockfile(fd, &half), 0);
  EXPECT_EQ(refused_elsewhere({kWriteNoWait, 2, 2}), 0);
  EXPECT_EQ(refused_elsewhere({kWriteNoWait, 4, 2}), EAGAIN);
}

TEST_F(Lockfile, ReadLocksAreShared) {
  lseek(fd, 5, SEEK_SET); // the range counts from the start of the file all the same
  const vorn_file_lock_s lock{VORN_FILE_LOCK_READ, 0, 1};
  ASSERT_EQ(vorn_lockfile(fd, &lock), 0);
  EXPECT_EQ(refused_elsewhere({kNoWait, 0, 1}), 0);
  EXPECT_EQ(refused_elsewhere({VORN_FILE_LOCK_READ, 0, 1}), 0);
  EXPECT_EQ(refused_elsewhere({kWriteNoWait, 0, 1}), EAGAIN);
}

TEST_F(Lockfile, WhatCannotBeLockedIsRefused) {
  EXPECT_EQ(vorn_lockfile(fd, nullptr), -22);
  EXPECT_ONE_RECORD(EVLOG_ERROR, "vorn_fileops.c", "vorn_lockfile", "Param is NULL.");
  EXPECT_EQ(vorn_unlockfile(fd, nullptr), -22);
  EXPECT_ONE_RECORD(EVLOG_ERROR, "vorn_fileops.c", "vorn_unlockfile", "Param is NULL.");
  const vorn_file_lock_s lock{VORN_FILE_LOCK_WRITE, 0, 0};
  EXPECT_EQ(vorn_lockfile(-1, &lock), -1);
  EXPECT_EQ(errno, EBADF);
  EXPECT_EQ(vorn_unlockfile(-1, &lock), -1);
  EXPECT_EQ(errno, EBADF);
  const vorn_file_lock_s backwards{VORN_FILE_LOCK_WRITE, -1, 0};
  EXPECT_EQ(vorn_lockfile(fd, &backwards), -1);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_NO_RECORD();
}

// The child holds the lock until it is told to end. The waiter is interrupted again and again
// meanwhile, by a handler without SA_RESTART, and must have the lock only after that end.
TEST_F(Lockfile, AWaitGoesOnOverSignalsUntilTheHolderReleases) {
  struct sigaction action = {};
  action.sa_handler = [](int) {};
  sigaction(SIGUSR1, &action, nullptr);
  int ready[2];
  int release[2];
  ASSERT_EQ(pipe2(ready, O_CLOEXEC), 0);
  ASSERT_EQ(pipe2(release, O_CLOEXEC), 0);
  const pid_t holder = fork();
  if (holder == 0) {
    close(release[1]);
    const int other = open(path.c_str(), O_RDWR | O_CLOEXEC);
    const vorn_file_lock_s lock{kWriteNoWait, 0, 0};
    char byte = vorn_lockfile(other, &lock) == 0 ? 'y' : 'n';
    if (write(ready[1], &byte, 1) != 1) _exit(1);
    _exit(read(release[0], &byte, 1) == 0 ? 0 : 1);
  }
  close(release[0]);
  char byte = 0;
  ASSERT_EQ(read(ready[0], &byte, 1), 1);
  ASSERT_EQ(byte, 'y');

  std::atomic<bool> released{false};
  std::atomic<bool> had_too_early{false};
  std::atomic<int> result{1};
  std::thread waiter([&] {
    const vorn_file_lock_s lock{VORN_FILE_LOCK_WRITE, 0, 0};
    result = vorn_lockfile(fd, &lock);
    had_too_early = !released;
  });
  for (int i = 0; i < 20; ++i) {
    pthread_kill(waiter.native_handle(), SIGUSR1);
    usleep(1000);
  }
  EXPECT_EQ(result, 1);
  released = true;
  close(release[1]);
  waiter.join();
  EXPECT_EQ(result, 0);
  EXPECT_FALSE(had_too_early);
  int status = 1;
  waitpid(holder, &status, 0);
  EXPECT_EQ(status, 0);
  EXPECT_EQ(refused_elsewhere({kWriteNoWait, 0, 0}), EAGAIN);
  close(ready[0]);
  close(ready[1]);
}

} // namespace
