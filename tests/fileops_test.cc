// test-wraps: read pread write malloc
// Tests file wrappers and line reading.
// SPDX-License-Identifier: Apache-2.0
#include "vorn_fileops.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <string>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <vector>

#include "evlog.h"
#include "support/log_capture.hpp"
#include "support/scratch.hpp"

static size_t most_read = SIZE_MAX, most_written = SIZE_MAX; // of a call
static std::deque<int> read_errors, write_errors;            // of the next calls; 0: none
static bool fail_next_malloc = false;
static const char *rename_after_read = nullptr;

static bool fails_next(std::deque<int> &errors) {
  if (errors.empty()) return false;
  errno = errors.front();
  errors.pop_front();
  return errno != 0;
}

extern "C" {
ssize_t __real_pread(int fd, void *buf, size_t count, off_t offset);
ssize_t __wrap_pread(int fd, void *buf, size_t count, off_t offset) {
  if (fails_next(read_errors)) return -1;
  count = std::min(count, most_read);
  const ssize_t length =
      offset < 0 ? ::syscall(SYS_read, fd, buf, count) : __real_pread(fd, buf, count, offset);
  if (rename_after_read != nullptr) prctl(PR_SET_NAME, rename_after_read);
  return length;
}
ssize_t __wrap_read(int fd, void *buf, size_t count) { return __wrap_pread(fd, buf, count, -1); }

ssize_t __real_write(int fd, const void *buf, size_t count);
ssize_t __wrap_write(int fd, const void *buf, size_t count) {
  return fails_next(write_errors) ? -1 : __real_write(fd, buf, std::min(count, most_written));
}

void *__real_malloc(size_t size);
void *__wrap_malloc(size_t size) {
  if (!fail_next_malloc) return __real_malloc(size);
  fail_next_malloc = false;
  return nullptr;
}
}

namespace {

class Fileops : public testing::Test {
protected:
  ~Fileops() override {
    EXPECT_EQ(scratch::next_descriptor(), next_fd_);
    EXPECT_NO_MESSAGE();
  }

  scratch::Directory directory;
  const std::string file = directory / "file";
  const std::string other = directory / "other";

private:
  const int next_fd_ = scratch::next_descriptor();
};

TEST_F(Fileops, CopiesEveryByteInPiecesOfAnySize) {
  for (const size_t size : {0u, 131072u, 400001u}) {
    std::string content(size, '\0');
    for (size_t i = 0; i < size; ++i)
      content[i] = static_cast<char>(i * 31 + i / 251);
    scratch::write_file(file, content);
    for (const size_t most : {SIZE_MAX, size_t{4999}}) {
      scratch::write_file(other, "an old text that is longer than some");
      most_read = most;
      most_written = most / 3;
      read_errors = {EINTR, 0, EINTR};
      write_errors = {EINTR, EINTR};
      ASSERT_EQ(vorn_copy(file.c_str(), other.c_str()), 0);
      most_read = most_written = SIZE_MAX;
      read_errors = write_errors = {};
      EXPECT_TRUE(scratch::read_file(other) == content) << size << " bytes, at most " << most;
    }
  }
}

TEST_F(Fileops, CopyIsPrivateAndAFileCopiedToItselfStaysWhole) {
  scratch::write_file(file, "text");
  umask(0);
  ASSERT_EQ(vorn_copy(file.c_str(), other.c_str()), 0);
  struct stat known;
  ASSERT_EQ(vorn_stat(other.c_str(), &known), 0);
  EXPECT_EQ(known.st_mode & 0777, 0600u);

  const std::string twin = directory / "twin";
  ASSERT_EQ(link(file.c_str(), twin.c_str()), 0);
  EXPECT_EQ(vorn_copy(file.c_str(), twin.c_str()), 0);
  EXPECT_EQ(scratch::read_file(file), "text");
}

TEST_F(Fileops, FailedCopyIsLogged) {
  scratch::write_file(file, "text");
  const std::string missing = directory / "missing/file", folder = directory.path();
  const struct {
    std::string from, to;
    int result, error;
    std::string text;
  } rows[] = {
      {missing, other, -125, ENOENT, "Open srcFile " + missing + " error."},
      {file, missing, -1, ENOENT, "Open pDestFile " + missing + " error."},
      {folder, other, -1, EISDIR,
       "copydata read from srcFile=" + folder + " to destfile=" + other + " error."},
      {file, other, -1, ENOSPC,
       "copydata WRITE from srcFile=" + file + " to destfile=" + other + " error."},
  };
  for (const auto &row : rows) {
    write_errors = {ENOSPC};
    EXPECT_EQ(vorn_copy(row.from.c_str(), row.to.c_str()), row.result);
    EXPECT_EQ(errno, row.error);
    EXPECT_ONE_MESSAGE(EVLOG_ERROR, "vorn_fileops.c", "vorn_copy", row.text);
  }
  scratch::write_file(other, "kept");
  fail_next_malloc = true;
  EXPECT_EQ(vorn_copy(file.c_str(), other.c_str()), -12);
  EXPECT_EQ(scratch::read_file(other), "kept");
  EXPECT_EQ(capture::take().size(), 1u); // the allocator's
}

// A plain model, byte by byte: the text before the NUL, "" for NULL.
std::string next_line(const std::string &content, size_t *position, size_t size) {
  std::string line;
  while (line.size() + 1 < size && *position < content.size()) {
    const char byte = content[(*position)++];
    if (byte == '\r') continue;
    line += byte;
    if (byte == '\n') break;
  }
  return line;
}

constexpr char kUntouched = 0x55;

// Reads all of fd, which holds content and is at its start, and compares with the model.
void expect_as_model(int fd, const std::string &content, size_t size) {
  const bool positioned = lseek(fd, 0, SEEK_CUR) == 0;
  size_t position = 0;
  for (bool more = true; more;) {
    const std::string line = next_line(content, &position, size);
    more = !line.empty();
    std::vector<char> bytes(size + 2, kUntouched); // and one on each side
    std::vector<char> wanted = bytes;
    char *const buffer = bytes.data() + 1;
    ASSERT_EQ(vorn_readline(fd, buffer, static_cast<int>(size)), more ? buffer : nullptr);
    std::memcpy(wanted.data() + 1, line.c_str(), line.size() + 1);
    wanted[size] = '\0';
    ASSERT_EQ(bytes, wanted);
    ASSERT_EQ(lseek(fd, 0, SEEK_CUR), positioned ? static_cast<off_t>(position) : -1);
  }
  close(fd);
}

class Readline : public Fileops {
protected:
  int opened(const std::string &content) {
    scratch::write_file(file, content);
    return open(file.c_str(), O_RDONLY | O_CLOEXEC);
  }

  int piped(const std::string &content) {
    int ends[2];
    EXPECT_EQ(pipe2(ends, O_CLOEXEC), 0);
    EXPECT_EQ(write(ends[1], content.data(), content.size()), static_cast<ssize_t>(content.size()));
    close(ends[1]);
    return ends[0];
  }

  std::string next(int fd, int size = 128) {
    std::vector<char> buffer(static_cast<size_t>(size));
    const char *line = vorn_readline(fd, buffer.data(), size);
    return line == nullptr ? "(null)" : line;
  }
};

TEST_F(Readline, AgreesWithTheModelForAnyBufferAndSource) {
  using namespace std::string_literals;
  const std::vector<std::string> contents = {
      "one\ntwo\nthree",
      "a\rb\r\rc\n\rd\n\r\n\r",
      "nul\0 inside\0\n\0\n\0"s,
      std::string(510, 'x') + "\r\nsecond\r\n",
      std::string(1536, 'y') + "\r\n" + std::string(4096, 'z') + "\n",
      std::string(700, '\r') + "\n",
  };
  for (const std::string &content : contents) {
    for (const size_t size : {1u, 2u, 3u, 13u, 512u, 513u, 514u, 9000u}) {
      for (const size_t most : {SIZE_MAX, size_t{3}}) {
        SCOPED_TRACE(testing::Message() << content.size() << " bytes, buffer of " << size);
        most_read = most;
        for (const int fd : {opened(content), piped(content)}) {
          read_errors = {EINTR, 0, EINTR, EINTR};
          expect_as_model(fd, content, size);
        }
      }
    }
  }
  char byte = kUntouched;
  EXPECT_EQ(vorn_readline(0, nullptr, 10), nullptr);
  EXPECT_EQ(vorn_readline(0, &byte, 0), nullptr);
  EXPECT_EQ(byte, kUntouched);
}

TEST_F(Readline, FailedReadEndsTheLineAndTheNextCallSetsErrno) {
  most_read = 4;
  for (const int fd : {opened("abcdefgh\n"), piped("abcdefgh\n")}) {
    read_errors = {0, 0, 0, 0, EIO, EIO};
    if (lseek(fd, 0, SEEK_CUR) == 0) read_errors = {0, EIO, EIO};
    EXPECT_EQ(next(fd), "abcd");
    EXPECT_EQ(next(fd), "(null)");
    EXPECT_EQ(errno, EIO);
    EXPECT_EQ(next(fd), "efgh\n");
    errno = 0;
    EXPECT_EQ(next(fd), "(null)");
    EXPECT_EQ(errno, 0); // the end is not a failure
    close(fd);
  }
}

// The kernel generates the text of such a file anew after a seek.
TEST_F(Readline, GeneratedTextIsNotTorn) {
  ASSERT_EQ(prctl(PR_SET_NAME, "lower-case"), 0);
  const int fd = open("/proc/thread-self/comm", O_RDONLY | O_CLOEXEC);
  ASSERT_GE(fd, 0);
  rename_after_read = "UPPER-CASE";
  EXPECT_EQ(next(fd, 7), "lower-");
  EXPECT_EQ(next(fd), "case\n");
  close(fd);
}

} // namespace
