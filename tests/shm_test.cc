// test-wraps: fallocate
// Tests shared memory.
// SPDX-License-Identifier: Apache-2.0
#include "vorn_shm.h"

#include <cerrno>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <string>
#include <sys/mman.h>
#include <thread>
#include <unistd.h>

#include "evlog.h"
#include "support/log_capture.hpp"
#include "support/scratch.hpp"

static int fallocate_error = 0;
static int allocated_fd = -1;

extern "C" {
int __real_fallocate(int fd, int mode, off_t offset, off_t length);
int __wrap_fallocate(int fd, int mode, off_t offset, off_t length) {
  allocated_fd = fd;
  pthread_testcancel(); // the system's call is a cancellation point, even if it fails
  if (fallocate_error == 0) return __real_fallocate(fd, mode, offset, length);
  errno = fallocate_error;
  return -1;
}
}

namespace {

constexpr size_t kSize = 8192;
constexpr char kFile[] = "vorn_shm_posix.c";
constexpr char kCreate[] = "vorn_shm_create_ext";

// The test's own object name. A case closes everything that it opens.
class Shm : public testing::Test {
protected:
  ~Shm() override {
    shm_unlink(name.c_str());
    EXPECT_EQ(scratch::next_descriptor(), next_fd_);
    EXPECT_NO_MESSAGE();
  }

  char *open_as(int flags) {
    return static_cast<char *>(vorn_shm_create_ext(name.c_str(), flags, 0600, kSize));
  }

  const std::string name = "/vorn_shm_test_" + std::to_string(getpid());

private:
  const int next_fd_ = scratch::next_descriptor();
};

TEST_F(Shm, TheCreatorAndItsOtherUsersShareTheMemory) {
  char *created = open_as(O_CREAT | O_EXCL | O_RDWR);
  ASSERT_NE(created, nullptr);
  // another creator learns that it is not the first, and attaches
  EXPECT_EQ(open_as(O_CREAT | O_EXCL | O_RDWR), nullptr);
  EXPECT_EQ(errno, EEXIST);
  EXPECT_NO_MESSAGE();
  auto *attached = static_cast<char *>(vorn_shm_create(name.c_str(), kSize));
  const char *readable = open_as(O_RDONLY);
  created[kSize - 1] = 'x';
  EXPECT_EQ(attached[kSize - 1], 'x');
  EXPECT_EQ(readable[kSize - 1], 'x');
  EXPECT_DEATH(const_cast<volatile char *>(readable)[0] = 1, "");

  EXPECT_EQ(vorn_shm_destroy(name.c_str()), 0);
  EXPECT_EQ(attached[kSize - 1], 'x');
  EXPECT_EQ(open_as(O_RDWR), nullptr);
  EXPECT_ONE_MESSAGE(EVLOG_INFO, kFile, kCreate, "Open shm fail, fd<-1> errno<2>.");
}

TEST_F(Shm, IsNotCancelledAndUsesNoStandardDescriptor) {
  const int input = dup(STDIN_FILENO);
  close(STDIN_FILENO);
  void *address = nullptr;
  std::thread([&] {
    pthread_cancel(pthread_self());
    address = vorn_shm_create(name.c_str(), kSize);
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr); // a std::thread cannot be cancelled
  }).join();
  EXPECT_NE(address, nullptr);
  EXPECT_GT(allocated_fd, STDERR_FILENO);
  dup2(input, STDIN_FILENO);
  close(input);
}

TEST_F(Shm, ReportsFailuresAndClosesTheObject) {
  fallocate_error = ENOSPC; // the machine lacks the memory: not mapped
  EXPECT_EQ(vorn_shm_create(name.c_str(), kSize), nullptr);
  EXPECT_EQ(errno, ENOSPC);
  EXPECT_ONE_MESSAGE(EVLOG_INFO, kFile, kCreate, "Fallocate shm fail, ret<-1> errno<28>.");
  for (const int error : {EINTR, EOPNOTSUPP, EBADF}) {
    fallocate_error = error;
    void *address = vorn_shm_create(name.c_str(), kSize);
    ASSERT_NE(address, nullptr) << error;
    munmap(address, kSize);
  }

  EXPECT_EQ(vorn_shm_create(name.c_str(), 0), nullptr);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_ONE_MESSAGE(EVLOG_INFO, kFile, kCreate, "Mmap shm mem fail, errno<22>.");
  void *address = open_as(O_ACCMODE); // the system decides the result
  EXPECT_EQ(capture::take_lines().at(0), "E Oflag open failed, oflag<3>.");
  if (address != nullptr) munmap(address, kSize);
  EXPECT_EQ(vorn_shm_destroy(nullptr), -1);
  EXPECT_ONE_MESSAGE(EVLOG_INFO, kFile, "vorn_shm_destroy", "Destroy shm fail, ret<-1> errno<22>.");
}

} // namespace
