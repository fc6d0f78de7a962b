// test-wraps: read pread
#include "vorn_fileops.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <deque>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <string>
#include <sys/prctl.h>
#include <unistd.h>
#include <vector>

#include "support/scratch.hpp"

// What the next reads come to: an error, or at most so many bytes.
static std::deque<int> next_errors;
static size_t most_bytes = SIZE_MAX;
static const char *rename_after_read = nullptr;

template <class Call> static ssize_t scripted(Call call, size_t count) {
  if (!next_errors.empty()) {
    const int error = next_errors.front();
    next_errors.pop_front();
    if (error != 0) {
      errno = error;
      return -1;
    }
  }
  const ssize_t length = call(std::min(count, most_bytes));
  if (rename_after_read != nullptr) prctl(PR_SET_NAME, rename_after_read);
  return length;
}

extern "C" {
ssize_t __real_read(int fd, void *buf, size_t count);
ssize_t __wrap_read(int fd, void *buf, size_t count) {
  return scripted([=](size_t most) { return __real_read(fd, buf, most); }, count);
}

ssize_t __real_pread(int fd, void *buf, size_t count, off_t offset);
ssize_t __wrap_pread(int fd, void *buf, size_t count, off_t offset) {
  return scripted([=](size_t most) { return __real_pread(fd, buf, most, offset); }, count);
}
}

namespace {

// The contract in its plain form: byte by byte.
class Model {
public:
  explicit Model(std::string content) : content_(std::move(content)) {}

  // False: NULL. line is what lies before the zero.
  bool read_line(size_t size, std::string *line) {
    line->clear();
    while (line->size() + 1 < size && position_ < content_.size()) {
      const char byte = content_[position_++];
      if (byte == '\r') continue;
      *line += byte;
      if (byte == '\n') break;
    }
    return !line->empty();
  }

  size_t position() const { return position_; }

private:
  std::string content_;
  size_t position_ = 0;
};

constexpr char kUntouched = 0x55;

// Reads all of fd, which holds content and stands at its start, beside the model.
void expect_as_model(int fd, const std::string &content, int size, bool positioned) {
  Model model(content);
  for (bool more = true; more;) {
    std::string line;
    more = model.read_line(static_cast<size_t>(size), &line);
    std::vector<char> bytes(static_cast<size_t>(size) + 2, kUntouched); // one more on each side
    std::vector<char> wanted = bytes;
    char *const buffer = bytes.data() + 1;
    ASSERT_EQ(vorn_readline(fd, buffer, size), more ? buffer : nullptr);
    std::memcpy(wanted.data() + 1, line.c_str(), line.size() + 1);
    wanted[static_cast<size_t>(size)] = '\0';
    ASSERT_EQ(bytes, wanted);
    if (positioned) {
      ASSERT_EQ(lseek(fd, 0, SEEK_CUR), static_cast<off_t>(model.position()));
    }
  }
}

class Readline : public testing::Test {
protected:
  int opened(const std::string &content) {
    scratch::write_file(directory / "file", content);
    const int fd = open((directory / "file").c_str(), O_RDONLY | O_CLOEXEC);
    EXPECT_GE(fd, 0);
    return fd;
  }

  std::string next(int fd, int size = 128) {
    std::vector<char> buffer(static_cast<size_t>(size));
    const char *line = vorn_readline(fd, buffer.data(), size);
    return line == nullptr ? "(null)" : line;
  }

  scratch::Directory directory;
};

TEST_F(Readline, AgreesWithTheModelWhateverTheBufferAndTheSource) {
  using namespace std::string_literals;
  const std::vector<std::string> contents = {
      "",
      "\r\n",
      "one\r",
      "one\ntwo\nthree",
      "a\rb\r\rc\n\rd\n\r\n\r",
      "nul\0 inside\0\n\0\n\0"s,
      std::string(511, 'x') + "\nsecond\n",
      std::string(510, 'x') + "\r\nsecond\r\n",
      std::string(1536, 'y') + "\r\n" + std::string(4096, 'z') + "\n",
      std::string(700, '\r') + "\n",
  };
  for (const std::string &content : contents) {
    for (const int size : {1, 2, 3, 13, 512, 513, 514, 9000}) {
      for (const size_t most : {SIZE_MAX, size_t{3}}) {
        SCOPED_TRACE(testing::Message() << content.size() << " bytes, buffer of " << size);
        most_bytes = most;
        next_errors = {EINTR, 0, EINTR, EINTR};
        const int file = opened(content);
        expect_as_model(file, content, size, true);
        close(file);

        next_errors = {EINTR, 0, EINTR};
        int pipe_ends[2];
        ASSERT_EQ(pipe2(pipe_ends, O_CLOEXEC), 0);
        ASSERT_EQ(write(pipe_ends[1], content.data(), content.size()),
                  static_cast<ssize_t>(content.size()));
        close(pipe_ends[1]);
        expect_as_model(pipe_ends[0], content, size, false);
        close(pipe_ends[0]);
      }
    }
  }
  char byte = kUntouched;
  EXPECT_EQ(vorn_readline(0, nullptr, 10), nullptr);
  EXPECT_EQ(vorn_readline(0, &byte, 0), nullptr);
  EXPECT_EQ(byte, kUntouched);
}

TEST_F(Readline, AFailedReadEndsTheLineAndTheNextCallTellsWhy) {
  most_bytes = 4;
  next_errors = {0, EIO, EIO};
  const int fd = opened("abcdefgh\n");
  EXPECT_EQ(next(fd), "abcd");
  EXPECT_EQ(lseek(fd, 0, SEEK_CUR), 4);
  errno = 0;
  EXPECT_EQ(next(fd), "(null)");
  EXPECT_EQ(errno, EIO);
  EXPECT_EQ(next(fd), "efgh\n");
  close(fd);

  int ends[2];
  ASSERT_EQ(pipe2(ends, O_CLOEXEC | O_NONBLOCK), 0);
  ASSERT_EQ(write(ends[1], "ab", 2), 2);
  EXPECT_EQ(next(ends[0]), "ab");
  EXPECT_EQ(next(ends[0]), "(null)");
  EXPECT_EQ(errno, EAGAIN);
  close(ends[1]);
  errno = 0;
  EXPECT_EQ(next(ends[0]), "(null)");
  EXPECT_EQ(errno, 0); // the end is no failure
  close(ends[0]);
}

// The kernel writes such a file's text anew after a seek.
TEST_F(Readline, ATextThatTheKernelMakesUpIsNotTorn) {
  ASSERT_EQ(prctl(PR_SET_NAME, "lower-case"), 0);
  const int fd = open("/proc/thread-self/comm", O_RDONLY | O_CLOEXEC);
  ASSERT_GE(fd, 0);
  rename_after_read = "UPPER-CASE";
  EXPECT_EQ(next(fd, 7), "lower-");
  EXPECT_EQ(next(fd), "case\n");
  close(fd);
}

} // namespace
