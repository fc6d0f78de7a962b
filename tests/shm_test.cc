// test-wraps: fallocate
#include "vorn_shm.h"

#include <cerrno>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <string>
#include <sys/ipc.h>
#include <sys/mman.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <unistd.h>

#include "evlog.h"
#include "support/log_capture.hpp"
#include "support/scratch.hpp"

static int fallocate_error = 0;

extern "C" {
int __real_fallocate(int fd, int mode, off_t offset, off_t length);
int __wrap_fallocate(int fd, int mode, off_t offset, off_t length) {
  if (fallocate_error == 0) return __real_fallocate(fd, mode, offset, length);
  errno = fallocate_error;
  return -1;
}
}

namespace {

constexpr size_t kSize = 8192;

// An object name of the test's own. Whatever a case opened must be closed again by its end.
class Shm : public testing::Test {
protected:
  void SetUp() override {
    fallocate_error = 0;
    next_fd_ = scratch::next_descriptor();
  }
  void TearDown() override {
    shm_unlink(name.c_str());
    EXPECT_EQ(scratch::next_descriptor(), next_fd_);
    EXPECT_NO_RECORD();
  }

  size_t stored_size() const {
    struct stat file;
    return stat(("/dev/shm" + name).c_str(), &file) == 0 ? static_cast<size_t>(file.st_size) : 0;
  }

  const std::string name = "/vorn_shm_test_" + std::to_string(getpid());

private:
  int next_fd_ = -1;
};

TEST_F(Shm, TheCreatorAndItsOtherUsersShareTheMemory) {
  const auto open_as = [this](int flags) {
    return static_cast<char *>(vorn_shm_create_ext(name.c_str(), flags, 0600, kSize));
  };
  char *created = open_as(O_CREAT | O_EXCL | O_RDWR);
  ASSERT_NE(created, nullptr);
  EXPECT_EQ(stored_size(), kSize);

  // another creator learns that it is not the first, and attaches
  EXPECT_EQ(open_as(O_CREAT | O_EXCL | O_RDWR), nullptr);
  EXPECT_EQ(errno, EEXIST);
  EXPECT_NO_RECORD();
  auto *attached = static_cast<char *>(vorn_shm_create(name.c_str(), kSize));
  const char *readable = open_as(O_RDONLY);
  created[kSize - 1] = 'x';
  EXPECT_EQ(attached[kSize - 1], 'x');
  EXPECT_EQ(readable[kSize - 1], 'x');
  EXPECT_DEATH(const_cast<volatile char *>(readable)[0] = 1, "");

  munmap(created, kSize);
  EXPECT_EQ(vorn_shm_destroy(name.c_str()), 0);
  EXPECT_EQ(attached[kSize - 1], 'x');
  EXPECT_EQ(open_as(O_RDWR), nullptr);
  EXPECT_ONE_RECORD(EVLOG_INFO, "vorn_shm_posix.c", "vorn_shm_create_ext",
                    "Open shm fail, fd<-1> errno<2>.");
}

TEST_F(Shm, MemoryThatTheMachineLacksIsNotMapped) {
  fallocate_error = ENOSPC;
  EXPECT_EQ(vorn_shm_create(name.c_str(), kSize), nullptr);
  EXPECT_EQ(errno, ENOSPC);
  EXPECT_ONE_RECORD(EVLOG_INFO, "vorn_shm_posix.c", "vorn_shm_create_ext",
                    "Fallocate shm fail, ret<-1> errno<28>.");
  for (const int error : {EINTR, EOPNOTSUPP, EBADF}) {
    fallocate_error = error;
    void *address = vorn_shm_create(name.c_str(), kSize);
    ASSERT_NE(address, nullptr) << error;
    munmap(address, kSize);
  }
}

TEST_F(Shm, WhatCannotBeMappedOrNamedIsReportedAndClosed) {
  EXPECT_EQ(vorn_shm_create(name.c_str(), 0), nullptr);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_ONE_RECORD(EVLOG_INFO, "vorn_shm_posix.c", "vorn_shm_create_ext",
                    "Mmap shm mem fail, errno<22>.");
  void *address = vorn_shm_create_ext(name.c_str(), O_ACCMODE, 0600, kSize); // the system's to say
  EXPECT_EQ(capture::take_texts().at(0), "Oflag open failed, oflag<3>.");
  if (address != nullptr) munmap(address, kSize);
  EXPECT_EQ(vorn_shm_create(nullptr, kSize), nullptr);
  EXPECT_NO_RECORD();
  EXPECT_EQ(vorn_shm_destroy(nullptr), -1);
  EXPECT_ONE_RECORD(EVLOG_INFO, "vorn_shm_posix.c", "vorn_shm_destroy",
                    "Destroy shm fail, ret<-1> errno<22>.");
}

TEST_F(Shm, SystemVSegmentsGoWithTheirLastUser) {
  const int key = 0x56000000 | (getpid() & 0xFFFFFF);
  EXPECT_EQ(vorn_shmget_ex(key, kSize, 0600), -1);
  const int id = vorn_shmget(key, kSize);
  ASSERT_GE(id, 0);
  EXPECT_EQ(vorn_shmget_ex(key, kSize, 0), id);
  auto *first = static_cast<char *>(vorn_shmat(id, nullptr, 0));
  auto *second = static_cast<char *>(vorn_shmat(id, nullptr, SHM_RDONLY));
  first[kSize - 1] = 'x';
  EXPECT_EQ(second[kSize - 1], 'x');
  EXPECT_EQ(vorn_shmdel(id), 0);
  EXPECT_EQ(shmdt(first), 0);
  EXPECT_EQ(shmdt(second), 0);
  EXPECT_EQ(vorn_shmdel(id), -1);
}

} // namespace
