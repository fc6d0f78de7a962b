// test-wraps: vfork getdtablesize vorn_mallocsubstandard vorn_freesub
// Tests guarded commands when the system fails.
// SPDX-License-Identifier: Apache-2.0
#include "vorn_cmd.h"

#include <cerrno>
#include <cstdio>
#include <gtest/gtest.h>
#include <string>
#include <tuple>
#include <unistd.h>
#include <utility>
#include <vector>

#include "support/scratch.hpp"
#include "vorn_mem.h"

static int limit = 100;
static bool out_of_memory = false;
static void (*meanwhile)() = nullptr; // what another thread does during an allocation
using Block = std::tuple<unsigned int, unsigned int, std::string>; // module, size, tag
static std::vector<Block> allocated;
static std::vector<std::string> freed;

extern "C" {
pid_t __wrap_vfork() { return errno = EAGAIN, -1; }
int __wrap_getdtablesize() { return limit; }

void *__real_vorn_mallocsubstandard(unsigned int pid, unsigned int size, unsigned long flags,
                                    const char *function, unsigned int line);
void *__wrap_vorn_mallocsubstandard(unsigned int pid, unsigned int size, unsigned long flags,
                                    const char *function, unsigned int line) {
  if (out_of_memory) return nullptr;
  allocated.push_back({pid, size, function});
  if (meanwhile != nullptr) std::exchange(meanwhile, nullptr)();
  return __real_vorn_mallocsubstandard(pid, size, flags, function, line);
}

void __real_vorn_freesub(void *ptr, const char *function, unsigned int line);
void __wrap_vorn_freesub(void *ptr, const char *function, unsigned int line) {
  freed.push_back(function);
  __real_vorn_freesub(ptr, function, line);
}
}

namespace {

const Block kTableOf100{381, 400, "vorn_popen_init"};

TEST(CommandSystem, StreamNeedsATableAndAProcess) {
  for (const int bad : {0, -1}) {
    limit = bad;
    EXPECT_EQ(vorn_popen("true", "r"), nullptr);
  }
  EXPECT_TRUE(allocated.empty());
  limit = 100;
  out_of_memory = true;
  EXPECT_EQ(vorn_popen("true", "r"), nullptr);
  out_of_memory = false;

  const int before = scratch::next_descriptor();
  int pid = 5;
  for (const char *mode : {"r", "w"}) {
    EXPECT_EQ(vorn_popen("true", mode), nullptr);
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_EQ(vorn_popen_with_pid("true", mode, &pid), nullptr);
  }
  EXPECT_EQ(vorn_system("true"), -1);
  EXPECT_EQ(pid, 5);
  EXPECT_EQ(scratch::next_descriptor(), before);
  EXPECT_EQ(allocated, std::vector{kTableOf100});
}

TEST(CommandSystem, StreamNeedsAnEntryOfTheTable) {
  const int first = scratch::next_descriptor();
  limit = first + 1;
  EXPECT_EQ(vorn_popen("true", "r"), nullptr);
  EXPECT_EQ(errno, EAGAIN); // it had an entry
  EXPECT_EQ(vorn_popen("true", "w"), nullptr);
  EXPECT_EQ(errno, EMFILE); // the end to write to is the second
  EXPECT_EQ(scratch::next_descriptor(), first);
  const int place = dup(0);
  FILE *beyond = std::fopen("/dev/null", "re");
  EXPECT_EQ(vorn_pclose(beyond), -1);
  EXPECT_EQ(std::fclose(beyond), 0);
  close(place);
}

TEST(CommandSystem, SecondTableIsFreed) {
  meanwhile = [] {
    limit = 200;
    vorn_popen("true", "r");
  };
  EXPECT_EQ(vorn_popen("true", "r"), nullptr);
  EXPECT_EQ(allocated, (std::vector{kTableOf100, kTableOf100})); // of the size settled first
  EXPECT_EQ(freed, std::vector<std::string>{"vorn_popen_init"});
}

} // namespace
