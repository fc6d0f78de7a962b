// test-wraps: vorn_mallocsubstandard vorn_freesub fsync rename read write
// Tests that edits leak nothing, and leave whole files, if the system fails or a thread is
// cancelled.
// SPDX-License-Identifier: Apache-2.0
#include "vorn_cfg.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <functional>
#include <gtest/gtest.h>
#include <pthread.h>
#include <string>
#include <unistd.h>
#include <utility>
#include <vector>

#include "support/log_capture.hpp"
#include "support/scratch.hpp"

static int blocks = 0;     // the number of allocated blocks
static int fail_fsync = 0; // the errno to fail with, 0 for none
static int fail_rename = 0;
static int fail_read = 0;
static ssize_t write_limit = -1;
static std::function<void()> before_rename; // called once
static std::function<void()> after_reading; // called once, at the end of a file

static void do_once(std::function<void()> &what) {
  if (what) std::exchange(what, nullptr)();
}

static int fail(int error) {
  errno = error;
  return -1;
}

extern "C" {
void *__real_vorn_mallocsubstandard(unsigned int pid, unsigned int size, unsigned long flags,
                                    const char *function, unsigned int line);
void *__wrap_vorn_mallocsubstandard(unsigned int pid, unsigned int size, unsigned long flags,
                                    const char *function, unsigned int line) {
  ++blocks;
  return __real_vorn_mallocsubstandard(pid, size, flags, function, line);
}

void __real_vorn_freesub(void *block, const char *function, unsigned int line);
void __wrap_vorn_freesub(void *block, const char *function, unsigned int line) {
  --blocks;
  __real_vorn_freesub(block, function, line);
}

int __wrap_fsync(int) { return fail_fsync != 0 ? fail(fail_fsync) : 0; } // the real one is slow

int __real_rename(const char *from, const char *to);
int __wrap_rename(const char *from, const char *to) {
  do_once(before_rename);
  return fail_rename != 0 ? fail(fail_rename) : __real_rename(from, to);
}

// A signal interrupts each piece once.
ssize_t __real_read(int fd, void *buffer, size_t size);
ssize_t __wrap_read(int fd, void *buffer, size_t size) {
  static bool interrupted = false;
  interrupted = !interrupted;
  if (interrupted) return fail(EINTR);
  if (fail_read != 0 && lseek(fd, 0, SEEK_CUR) > 0) return fail(fail_read);
  const ssize_t length = __real_read(fd, buffer, std::min<size_t>(size, 7));
  if (length == 0) do_once(after_reading);
  return length;
}

ssize_t __real_write(int fd, const void *buffer, size_t size);
ssize_t __wrap_write(int fd, const void *buffer, size_t size) {
  if (write_limit < 0) return __real_write(fd, buffer, size);
  if (write_limit == 0) return fail(ENOSPC);
  const auto some = std::min(size, static_cast<size_t>(write_limit));
  write_limit -= static_cast<ssize_t>(some);
  return __real_write(fd, buffer, some);
}
}

namespace {

const std::string kText = "[s]\nk=1\n[t]\nl=2\nm=3\n";

class CfgFault : public testing::Test {
protected:
  CfgFault() { scratch::write_file(path, kText); }
  ~CfgFault() override { EXPECT_NE(access((path + ".temp").c_str(), F_OK), 0); }

  // The registered value.
  std::string value() {
    char text[64] = "?";
    vorn_cfg_getItemValue_ex(file, "s", "k", text, sizeof text);
    return text;
  }

  scratch::Directory directory;
  const std::string path = directory / "f.ini";
  const char *const file = path.c_str();
  vorn_cfg_item_s out;
  const std::vector<std::function<void()>> all_calls = {
      [&] { vorn_cfg_init(file); },
      [&] { vorn_cfg_setItemValue("s", "k", "v"); },
      [&] { vorn_cfg_setItemValue_ex(file, "s", "k", "v"); },
      [&] { vorn_cfg_getItemFromFile(file, "t", "m", &out); },
      [&] { vorn_cfg_write_item_to_file(file, "u", "n", "4"); },
      [&] { vorn_cfg_file_delItem(file, "t", "l"); },
      [&] { vorn_cfg_file_setItemValue(file, "t", "m", "v"); },
      [&] { vorn_cfg_file_addItem(file, "u", "n", "4"); },
      [&] { vorn_cfg_file_delSection(file, "t"); },
  };
};

TEST_F(CfgFault, KeepsTheOldFileIfItCannotBeWrittenOrReplaced) {
  ASSERT_EQ(vorn_cfg_init(file), 0);
  const std::string not_replaced = "E Replace file(" + path + ") failed, errno<5>.";
  const struct {
    int rename, fsync;
    ssize_t written;
    std::string text;
  } rows[] = {{EIO, 0, -1, not_replaced}, {0, EIO, -1, not_replaced}, {0, 0, 10, "E Wirte file ("}};
  for (const auto &row : rows) {
    fail_rename = row.rename;
    fail_fsync = row.fsync;
    write_limit = row.written;
    EXPECT_EQ(vorn_cfg_file_setItemValue(file, "s", "k", "new"), -1);
    EXPECT_TRUE(capture::take_lines().front().starts_with(row.text));
    EXPECT_EQ(scratch::read_file(path), kText);
    EXPECT_EQ(value(), "1");
  }
  // In place, a write that is cut short is only logged.
  write_limit = 10;
  EXPECT_EQ(vorn_cfg_write_item_to_file(file, "s", "k", "new"), 0);
  EXPECT_TRUE(capture::take_lines().at(0).starts_with("E Write error, iFd<"));
  vorn_cfg_destroy();
}

// A registration that has read the old file, during an edit or around a whole one.
TEST_F(CfgFault, RegistersWhatIsOnDiskInTheEnd) {
  ASSERT_EQ(vorn_cfg_init(file), 0);
  before_rename = [&] { EXPECT_EQ(vorn_cfg_init(file), 0); };
  EXPECT_EQ(vorn_cfg_file_setItemValue(file, "s", "k", "edited"), 0);
  EXPECT_EQ(value(), "edited");

  after_reading = [&] { EXPECT_EQ(vorn_cfg_file_setItemValue(file, "s", "k", "again"), 0); };
  EXPECT_EQ(vorn_cfg_init(file), 0);
  EXPECT_EQ(value(), "again");
  EXPECT_FALSE(before_rename || after_reading);
  vorn_cfg_destroy();
}

std::vector<std::function<void()>> calls;
bool returned = false;

void make_calls() {
  for (const auto &call : calls)
    call();
  returned = true;
}

// Has no local variables: the address sanitizer considers those of a cancelled thread in use.
void *call_with_a_pending_cancellation(void *) {
  pthread_cancel(pthread_self());
  make_calls();
  pthread_testcancel();
  return nullptr;
}

int wait_and_refuse(vorn_cfg_file_node_s *, const char *, const char *, const char *) {
  usleep(1);
  EXPECT_EQ(fcntl(0, F_GETFD), -1); // although it was free
  return -1;
}

TEST_F(CfgFault, DoesNotActOnACancellation) {
  vorn_cfg_oper_param_s param{file, "s", "k", "v"};
  const int fd = open(file, O_RDWR | O_CLOEXEC);
  const std::string name64(64, 'n');
  close(0);
  calls = {
      [&] { vorn_cfg_write_item_to_file(file, "s", name64.c_str(), "v"); },
      [&] { vorn_cfg_file_writeOperate(fd, &param, wait_and_refuse); },
      [&] { vorn_cfg_destroy(); },
  };
  calls.insert(calls.begin(), all_calls.rbegin(), all_calls.rend());
  const int held = blocks;
  const int free_descriptor = scratch::next_descriptor();
  pthread_t thread;
  void *result = nullptr;
  ASSERT_EQ(pthread_create(&thread, nullptr, call_with_a_pending_cancellation, nullptr), 0);
  pthread_join(thread, &result);
  EXPECT_TRUE(returned && result == PTHREAD_CANCELED);
  EXPECT_EQ(blocks, held);
  EXPECT_EQ(scratch::next_descriptor(), free_descriptor);
}

TEST_F(CfgFault, DoesNotUseAPartOfTheFile) {
  fail_read = EIO;
  EXPECT_EQ(vorn_cfg_init(file), -1);
  EXPECT_TRUE(capture::take_lines().front().starts_with("E Read file failed, fd"));
  EXPECT_EQ(vorn_cfg_write_item_to_file(file, "s", "k", "new"), -1);
  EXPECT_EQ(vorn_cfg_file_addItem(file, "s", "n", "new"), -1);
  fail_read = 0;
  EXPECT_EQ(scratch::read_file(path), kText);
}

} // namespace
