// test-wraps: open ioctl
// Tests the kernel module's configuration store.
// SPDX-License-Identifier: Apache-2.0
#include "vorn_cst.h"

#include <cstdarg>
#include <cstring>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <string>
#include <sys/ioctl.h>
#include <vector>

#include "support/log_capture.hpp"

// The kernel module: how it reads a request, the request, and its answer.
struct Block {
  uint32_t input_length;
  uint32_t output_length;
  uint64_t reserved;
  const char *input;
  char *output;
};
struct Call {
  unsigned long request;
  Block block;
  std::string input;
};
static std::vector<Call> calls;
static int open_flags = 0;
static int last_fd = -1;
static std::string reply_value;

extern "C" {
int __real_open(const char *path, int flags, ...);
int __wrap_open(const char *path, int flags, ...) {
  if (std::string(path) != "/proc/nyx/syscall") return __real_open(path, flags);
  open_flags = flags;
  return last_fd = __real_open("/dev/null", flags);
}

int __wrap_ioctl(int fd, unsigned long request, ...) {
  EXPECT_EQ(fd, last_fd);
  va_list args;
  va_start(args, request);
  const Block *block = va_arg(args, const Block *);
  va_end(args);
  if (block == nullptr) {
    calls.push_back({request, {}, ""});
    return 0;
  }
  calls.push_back({request, *block, std::string(block->input, block->input_length)});
  if (block->output != nullptr)
    std::memcpy(block->output + 33, reply_value.data(), reply_value.size());
  return 0;
}
}

namespace {

// The structure of an item as the kernel module reads it.
std::string item_bytes(std::string section, std::string name, std::string value) {
  section.resize(35);
  name.resize(33);
  value.resize(257);
  return section + name + value;
}

const std::string kSection(34, 's');
const std::string kItem(32, 'i');
const std::string kValue(256, 'v');

// The kernel module gets the first 325 bytes of the section, the item and the value.
TEST(ConfigurationStore, AsksTheKernelModule) {
  reply_value = std::string("on\0after", 8);
  char out[VORN_CST_VALUE_SIZE];
  ASSERT_EQ(vorn_cst_getItem(kSection.c_str(), kItem.c_str(), out, sizeof out), 0);
  EXPECT_STREQ(out, "on");
  EXPECT_EQ(open_flags, O_RDWR | O_CLOEXEC);
  EXPECT_EQ(fcntl(last_fd, F_GETFD), -1); // closed
  ASSERT_EQ(vorn_cst_setItem(kSection.c_str(), kItem.c_str(), kValue.c_str()), 0);
  ASSERT_EQ(vorn_cst_reloadConfig(), 0);

  ASSERT_EQ(calls.size(), 3u);
  EXPECT_EQ(calls[0].request, 256u);
  EXPECT_EQ(calls[0].block.output_length, 290u);
  EXPECT_EQ(calls[0].input, item_bytes(kSection, kItem, ""));
  EXPECT_EQ(calls[1].request, 257u);
  EXPECT_EQ(calls[1].input, item_bytes(kSection, kItem, kValue));
  EXPECT_EQ(calls[1].block.output, nullptr); // there is no reply
  EXPECT_EQ(calls[2].request, 258u);
  EXPECT_EQ(calls[2].block.input, nullptr);
  EXPECT_NO_MESSAGE();
}

TEST(ConfigurationStore, WritesNoMoreThanTheBufferHolds) {
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
    EXPECT_NO_MESSAGE();
  }
}

} // namespace
