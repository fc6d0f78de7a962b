// Tests locks on ranges of files.
// SPDX-License-Identifier: Apache-2.0
#include "vorn_fileops.h"

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <string>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include "support/child.hpp"
#include "support/scratch.hpp"

namespace {

constexpr uint64_t kWrite = VORN_FILE_LOCK_WRITE;
constexpr uint64_t kNoWait = VORN_FILE_LOCK_NO_WAIT;

struct Lockfile : testing::Test {
  Lockfile() {
    scratch::write_file(path, "0123456789");
    fd = open(path.c_str(), O_RDWR | O_CLOEXEC);
  }
  ~Lockfile() override { close(fd); }

  // Returns 0 if another process gets the lock, or the errno of its failure.
  int refused_elsewhere(vorn_file_lock_s lock) {
    return run_in_child([&] {
      const int other = open(path.c_str(), O_RDWR | O_CLOEXEC);
      return vorn_lockfile(other, &lock) == 0 ? 0 : errno;
    });
  }

  scratch::Directory directory;
  const std::string path = directory / "file";
  int fd = -1;
};

TEST_F(Lockfile, ALockHasAKindAndARange) {
  lseek(fd, 5, SEEK_SET); // ranges still count from the start of the file
  const vorn_file_lock_s write{kWrite, 2, 4}, half{0, 2, 2}, read{VORN_FILE_LOCK_READ, 9, 1};
  ASSERT_EQ(vorn_lockfile(fd, &write), 0);
  ASSERT_EQ(vorn_lockfile(fd, &read), 0);
  EXPECT_EQ(refused_elsewhere({kWrite | kNoWait, 2, 4}), EAGAIN);
  EXPECT_EQ(refused_elsewhere({kNoWait, 5, 1}), EAGAIN);
  EXPECT_EQ(refused_elsewhere({kWrite | kNoWait | 0xFFFFFFF0, 0, 0}), EAGAIN);
  EXPECT_EQ(refused_elsewhere({kWrite, 0, 2}), 0);
  EXPECT_EQ(refused_elsewhere({kWrite, 6, 3}), 0);
  EXPECT_EQ(refused_elsewhere({VORN_FILE_LOCK_READ, 9, 1}), 0);
  EXPECT_EQ(refused_elsewhere({kWrite | kNoWait, 9, 1}), EAGAIN);

  EXPECT_EQ(vorn_unlockfile(fd, &half), 0);
  EXPECT_EQ(refused_elsewhere({kWrite | kNoWait, 2, 2}), 0);
  EXPECT_EQ(refused_elsewhere({kWrite | kNoWait, 4, 2}), EAGAIN);

  const vorn_file_lock_s backwards{kWrite, -1, 0};
  EXPECT_EQ(vorn_lockfile(fd, &backwards), -1);
  EXPECT_EQ(errno, EINVAL);
}

// A handler without SA_RESTART interrupts the waiting thread again and again.
TEST_F(Lockfile, AWaitContinuesAfterSignalsUntilTheRelease) {
  const vorn_file_lock_s lock{kWrite, 0, 0};
  ASSERT_EQ(vorn_lockfile(fd, &lock), 0);
  const pid_t waiter = fork();
  if (waiter == 0) {
    struct sigaction action = {};
    action.sa_handler = [](int) {};
    sigaction(SIGALRM, &action, nullptr);
    const itimerval often{{0, 1000}, {0, 1000}};
    setitimer(ITIMER_REAL, &often, nullptr);
    const int own = open(path.c_str(), O_RDWR | O_CLOEXEC);
    _exit(vorn_lockfile(own, &lock) == 0 ? 0 : 1);
  }
  usleep(50000);
  int status = 1;
  EXPECT_EQ(waitpid(waiter, &status, WNOHANG), 0) << "it did not wait";
  EXPECT_EQ(vorn_unlockfile(fd, &lock), 0);
  waitpid(waiter, &status, 0);
  EXPECT_EQ(status, 0);
}

} // namespace
