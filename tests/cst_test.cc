// test-wraps: open ioctl
#include "vorn_cst.h"

#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <string>
#include <sys/ioctl.h>
#include <vector>

#include "support/log_capture.hpp"

// The kernel module: what it was asked, byte by byte, and what it answers.
struct Call {
  unsigned long request;
  std::string block; // "(none)": NULL
  std::string input;
};
static std::vector<Call> calls;
static int open_flags = 0;
static int last_fd = -1;
static int open_error = 0;
static int ioctl_result = 0;
static int ioctl_error = 0;
static std::string reply_value;

static uint64_t number(const std::string &bytes, size_t offset, size_t size) {
  uint64_t value = 0;
  std::memcpy(&value, bytes.data() + offset, size);
  return value;
}

template <class Type> static Type *pointer(const std::string &block, size_t offset) {
  return reinterpret_cast<Type *>(number(block, offset, 8));
}

static void take_call(unsigned long request, const char *block) {
  Call call{request, "(none)", ""};
  if (block != nullptr) {
    call.block.assign(block, 32);
    call.input.assign(pointer<const char>(call.block, 16), number(call.block, 0, 4));
    char *reply = pointer<char>(call.block, 24);
    if (reply != nullptr) std::memcpy(reply + 33, reply_value.data(), reply_value.size());
  }
  calls.push_back(call);
}

extern "C" {
int __real_open(const char *path, int flags, ...);
int __wrap_open(const char *path, int flags, ...) {
  if (std::string(path) != "/proc/nyx/syscall") return __real_open(path, flags);
  open_flags = flags;
  errno = open_error;
  last_fd = open_error != 0 ? -1 : __real_open("/dev/null", flags);
  return last_fd;
}

int __wrap_ioctl(int fd, unsigned long request, ...) {
  EXPECT_EQ(fd, last_fd);
  va_list args;
  va_start(args, request);
  take_call(request, va_arg(args, const char *));
  va_end(args);
  errno = ioctl_error;
  return ioctl_result;
}
}

namespace {

// The record of an item as the kernel module reads it.
std::string item_bytes(std::string section, std::string name, std::string value) {
  section.resize(35);
  name.resize(33);
  value.resize(257);
  return section + name + value;
}

const std::string kSection(34, 's');
const std::string kItem(32, 'i');
const std::string kValue(256, 'v');

struct ConfigurationStore : testing::Test {
  ConfigurationStore() {
    calls.clear();
    open_flags = 0;
  }
};

// What goes to the kernel module: 325 bytes of the section's, the item's and the value's.
TEST_F(ConfigurationStore, AsksTheKernelModule) {
  reply_value = std::string("on\0behind", 9);
  char out[VORN_CST_VALUE_SIZE];
  ASSERT_EQ(vorn_cst_getItem(kSection.c_str(), kItem.c_str(), out, sizeof out), 0);
  EXPECT_STREQ(out, "on");
  EXPECT_EQ(open_flags, O_RDWR | O_CLOEXEC);
  EXPECT_EQ(fcntl(last_fd, F_GETFD), -1); // closed
  ASSERT_EQ(vorn_cst_setItem(kSection.c_str(), kItem.c_str(), kValue.c_str()), 0);
  ASSERT_EQ(vorn_cst_reloadConfig(), 0);

  ASSERT_EQ(calls.size(), 3u);
  EXPECT_EQ(calls[0].request, 256u);
  EXPECT_EQ(number(calls[0].block, 0, 4), 325u);
  EXPECT_EQ(number(calls[0].block, 4, 4), 290u);
  EXPECT_EQ(calls[0].input, item_bytes(kSection, kItem, ""));
  EXPECT_EQ(calls[1].request, 257u);
  EXPECT_EQ(calls[1].input, item_bytes(kSection, kItem, kValue));
  EXPECT_EQ(number(calls[1].block, 24, 8), 0u); // there is no reply
  EXPECT_EQ(calls[2].request, 258u);
  EXPECT_EQ(calls[2].block, "(none)");
  EXPECT_NO_RECORD();
}

TEST_F(ConfigurationStore, StoresNoMoreThanThereIsRoomFor) {
  const std::string unterminated(257, 'v');
  const struct {
    std::string reply;
    uint32_t size;
    int result;
    std::string out;
  } rows[] = {
      {"four", 5, 0, "four"},         {"four", 4, -1, ""},
      {"four", 0, -1, "before"},      {"", 1, 0, ""},
      {kValue, 257, 0, kValue},       {kValue, 256, -1, ""},
      {unterminated, 257, 0, kValue}, {unterminated, UINT32_MAX, 0, kValue},
  };
  for (const auto &row : rows) {
    reply_value = row.reply;
    char out[300] = "before";
    EXPECT_EQ(vorn_cst_getItem("s", "i", out, row.size), row.result);
    EXPECT_EQ(out, row.out);
    EXPECT_NO_RECORD();
  }
}

} // namespace
