// test-wraps: read write malloc
#include "vorn_fileops.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <deque>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <string>
#include <unistd.h>

#include "evlog.h"
#include "support/log_capture.hpp"
#include "support/scratch.hpp"

static size_t most_read = SIZE_MAX; // bytes that one call moves
static size_t most_written = SIZE_MAX;
static std::deque<int> read_errors; // 0: none
static std::deque<int> write_errors;
static bool fail_next_malloc = false;

template <class Call> static ssize_t scripted(std::deque<int> &errors, Call call, size_t most) {
  const int error = errors.empty() ? 0 : errors.front();
  if (!errors.empty()) errors.pop_front();
  if (error == 0) return call(most);
  errno = error;
  return -1;
}

extern "C" {
ssize_t __real_read(int fd, void *buf, size_t count);
ssize_t __wrap_read(int fd, void *buf, size_t count) {
  return scripted(
      read_errors, [=](size_t most) { return __real_read(fd, buf, most); },
      std::min(count, most_read));
}

ssize_t __real_write(int fd, const void *buf, size_t count);
ssize_t __wrap_write(int fd, const void *buf, size_t count) {
  return scripted(
      write_errors, [=](size_t most) { return __real_write(fd, buf, most); },
      std::min(count, most_written));
}

void *__real_malloc(size_t size);
void *__wrap_malloc(size_t size) {
  if (!fail_next_malloc) return __real_malloc(size);
  fail_next_malloc = false;
  return nullptr;
}
}

namespace {

constexpr char kFile[] = "vorn_fileops.c";

class Fileops : public testing::Test {
protected:
  void SetUp() override {
    most_read = SIZE_MAX;
    most_written = SIZE_MAX;
    read_errors = {};
    write_errors = {};
    next_fd_ = scratch::next_descriptor();
  }
  void TearDown() override {
    EXPECT_EQ(scratch::next_descriptor(), next_fd_);
    EXPECT_NO_RECORD();
  }

  scratch::Directory directory;
  const std::string file = directory / "file";
  const std::string other = directory / "other";

private:
  int next_fd_ = -1;
};

TEST_F(Fileops, DoesWhatTheSystemDoes) {
  const int fd = vorn_open(file.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0640);
  ASSERT_GE(fd, 0);
  EXPECT_EQ(vorn_open(file.c_str(), O_RDWR | O_CREAT | O_EXCL, 0640), -1);
  EXPECT_EQ(errno, EEXIST);
  EXPECT_EQ(vorn_write(fd, "some\0text", 9), 9);
  EXPECT_EQ(vorn_sync(fd), 0);
  EXPECT_EQ(vorn_lseek(fd, -4, SEEK_END), 5);
  char bytes[8];
  EXPECT_EQ(vorn_read(fd, bytes, sizeof bytes), 4);
  EXPECT_EQ(std::string(bytes, 4), "text");
  struct stat known;
  ASSERT_EQ(vorn_stat(file.c_str(), &known), 0);
  EXPECT_EQ(known.st_size, 9);
  EXPECT_EQ(known.st_mode & 0777, 0640u);
  EXPECT_EQ(vorn_close(fd), 0);
  EXPECT_EQ(vorn_close(fd), -1);
  EXPECT_EQ(vorn_access(file.c_str(), F_OK), 0);
  EXPECT_EQ(vorn_access(other.c_str(), F_OK), -1);
  struct statfs system;
  EXPECT_EQ(vorn_statfs(file.c_str(), &system), 0);
  EXPECT_GT(system.f_bsize, 0);
}

TEST_F(Fileops, CopiesEveryByteHoweverTheSystemMovesThem) {
  for (const size_t size : {0u, 1u, 131072u, 400001u}) {
    for (const size_t most : {SIZE_MAX, size_t{4999}}) {
      std::string content(size, '\0');
      for (size_t i = 0; i < size; ++i)
        content[i] = static_cast<char>(i * 31 + i / 251);
      scratch::write_file(file, content);
      scratch::write_file(other, "what was there before, and longer than some");
      most_read = most;
      most_written = most / 3;
      read_errors = {EINTR, 0, EINTR};
      write_errors = {EINTR, EINTR};
      ASSERT_EQ(vorn_copy(file.c_str(), other.c_str()), 0);
      SetUp();
      EXPECT_TRUE(scratch::read_file(other) == content) << size << " bytes, at most " << most;
    }
  }
}

TEST_F(Fileops, ACopyIsItsOwnersAloneAndAFileCopiedToItselfStaysWhole) {
  scratch::write_file(file, "text");
  umask(0);
  ASSERT_EQ(vorn_copy(file.c_str(), other.c_str()), 0);
  struct stat known;
  ASSERT_EQ(stat(other.c_str(), &known), 0);
  EXPECT_EQ(known.st_mode & 0777, 0600u);

  const std::string twin = directory / "twin";
  ASSERT_EQ(link(file.c_str(), twin.c_str()), 0);
  for (const std::string &to : {file, twin})
    EXPECT_EQ(vorn_copy(file.c_str(), to.c_str()), 0);
  EXPECT_EQ(scratch::read_file(file), "text");
}

TEST_F(Fileops, AFailedCopyTellsWhere) {
  scratch::write_file(file, "text");
  const std::string missing = directory / "missing/file", folder = directory.path();
  const struct {
    std::string from, to;
    int write_error, error;
    std::string text;
  } rows[] = {
      {missing, other, 0, ENOENT, "Open srcFile " + missing + " error."},
      {file, missing, 0, ENOENT, "Open pDestFile " + missing + " error."},
      {folder, other, 0, EISDIR,
       "copydata read from srcFile=" + folder + " to destfile=" + other + " error."},
      {file, other, ENOSPC, ENOSPC,
       "copydata WRITE from srcFile=" + file + " to destfile=" + other + " error."},
  };
  for (const auto &row : rows) {
    write_errors = {row.write_error};
    EXPECT_NE(vorn_copy(row.from.c_str(), row.to.c_str()), 0);
    EXPECT_EQ(errno, row.error);
    EXPECT_ONE_RECORD(EVLOG_ERROR, kFile, "vorn_copy", row.text);
  }
  write_errors = {};
  EXPECT_EQ(vorn_copy(nullptr, "b"), -1);
  EXPECT_ONE_RECORD(EVLOG_ERROR, kFile, "vorn_copy", "Param is NULL.");
  scratch::write_file(other, "kept");
  fail_next_malloc = true;
  EXPECT_EQ(vorn_copy(file.c_str(), other.c_str()), -12);
  EXPECT_EQ(scratch::read_file(other), "kept");
  EXPECT_EQ(capture::take().size(), 1u); // the allocator's
}

} // namespace
