// test-wraps: open sysconf sysinfo pthread_create
#include "vorn_sysinfo.h"

#include <chrono>
#include <csignal>
#include <cstdarg>
#include <fcntl.h>
#include <filesystem>
#include <functional>
#include <gtest/gtest.h>
#include <optional>
#include <string>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/sysinfo.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "evlog.h"
#include "support/child.hpp"
#include "support/create_error.hpp"
#include "support/log_capture.hpp"
#include "support/scratch.hpp"
#include "sysinfo/usage.hpp"
#include "vorn_cfg.h"

static std::string stat_file = "/proc/stat";
static long present = 2;
static std::optional<struct sysinfo> memory;

extern "C" {
int __real_open(const char *path, int flags, ...);
int __wrap_open(const char *path, int flags, ...) {
  std::va_list args;
  va_start(args, flags);
  const mode_t mode = va_arg(args, mode_t);
  va_end(args);
  return __real_open(std::string(path) == "/proc/stat" ? stat_file.c_str() : path, flags, mode);
}
long __real_sysconf(int name);
long __wrap_sysconf(int name) {
  return name == _SC_NPROCESSORS_CONF ? present : __real_sysconf(name);
}
int __wrap_sysinfo(struct sysinfo *info) {
  if (!memory) return -1;
  *info = *memory;
  return 0;
}
}

namespace {

using Lines = std::vector<std::string>;
using Figures = std::vector<uint32_t>;

const std::string kObjects = "/dev/shm/SYSINFO_";
const std::string kUsage = kObjects + "PUICPUUSAGE_NOROOT";
const Lines kOutvoted{"E lock file(" + kUsage + ") failed, errno is 11.", "E sysinfo lock failed."};

// The machine, CPU 0, CPU 1.
Figures figures() {
  Figures all(3, 999);
  all[0] = vorn_sysinfo_cpu_usage();
  EXPECT_EQ(vorn_get_cpu_usage_array(&all[1], 9), 2);
  for (uint32_t cpu = 0; cpu < 4; ++cpu)
    EXPECT_EQ(vorn_sysinfo_core_usage(&cpu), all[cpu < 2 ? cpu + 1 : 0]) << cpu;
  EXPECT_EQ(vorn_sysinfo_core_usage(nullptr), all[0]);
  return all;
}

// The process that holds the lock; 0: none. Not for one that holds it.
pid_t sampler() {
  const int fd = open(kUsage.c_str(), O_RDWR | O_CLOEXEC);
  struct flock lock = {};
  lock.l_type = F_WRLCK;
  const bool asked = fcntl(fd, F_GETLK, &lock) == 0 && lock.l_type != F_UNLCK;
  close(fd);
  return asked ? lock.l_pid : 0;
}

template <class Condition> bool soon(Condition condition) {
  for (int i = 0; i < 5000 && !condition(); ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds{1});
  return condition();
}

std::ptrdiff_t threads() {
  const std::filesystem::directory_iterator tasks("/proc/self/task");
  return std::distance(begin(tasks), end(tasks));
}

struct Sysinfo : testing::Test {
  void SetUp() override {
    if (!scratch::cover_directory("/dev/shm")) GTEST_SKIP() << scratch::kNoMounts;
  }
  void sample_by_hand() const {
    scratch::write_file(folder / "ini", "[VORN]\nSYSINFO_CPUUSAGE_THREAD_FLAG=0\n");
    ASSERT_EQ(vorn_cfg_init((folder / "ini").c_str()), 0);
    ASSERT_EQ(sysinfo_init(), 0);
    capture::take();
  }
  scratch::Directory folder;
};

TEST_F(Sysinfo, SamplesAreTheBusyShareSinceTheLastOne) {
  uint32_t one = 7;
  EXPECT_EQ(vorn_sysinfo_cpu_usage(), 0u);
  EXPECT_EQ(vorn_sysinfo_core_usage(&one), 0u);
  EXPECT_EQ(vorn_get_cpu_usage_array(&one, 1), 0);
  EXPECT_EQ(sysinfo_update_all_cpu_usage(), -1);
  EXPECT_EQ(one, 7u);
  sample_by_hand();
  stat_file = folder / "stat";
  const std::string wide = std::string(600, ' ') + "\n";
  const struct {
    std::string text;
    Figures wanted;
    int result = 0;
    Lines lines = {};
  } rows[] = {
      {"cpu  10 0 0 30 0 0 0 500 500 500\ncpu0 1 1 1 1\ncpu1 0 0 0 7\n", {25, 75, 0}},
      {"cpu  20 1 2 30 3 4 0\ncpu0 1 1 1 1 1 1 1 9\ncpu1 0 0 0 7 0 0 0\n", {100, 100, 0}},
      {"cpu 20 1 2 130 3 4 0\ncpu1 9 0 0 8\ncpu0 4 1 1 2 1 1 1\n", {0, 75, 90}}, // any order
      {"cpu 20 1 2 136 3 6 0\ncpu2 9 9 9 0\ncpu4294967296 9 9 9 0\ncpu18446744073709551616 9 9 9 "
       "0\n"
       "cpu1 9 0 1 8\n",
       {25, 75, 100}},
      {"cpu 21 1 2 136 3 6 0\ncpu0 5 1 1\ncpu1 9 0 1 9\n", {100, 75, 100}}, // a CPU lacks a value
      {"cpu 21 1 2 137 3 6 0\nintr 1 2 3\ncpu1 9 0 1 9\n", {0, 75, 100}},
      {"cpu 21 1 2\ncpu1 9 0 1 9\n", {0, 75, 100}, -1},
      {wide + "cpu 99 0 0 0\n", {0, 75, 100}, -1},
      {"", {0, 75, 100}, -1, {"E Get CPU stat (/proc/stat) file failed."}},
      {"(none)", {0, 75, 100}, -1, {"E Open cpu stat file /proc/stat failed."}},
  };
  const int descriptor = scratch::next_descriptor();
  for (const auto &row : rows) {
    scratch::write_file(stat_file, row.text);
    if (row.text == "(none)") std::filesystem::remove(stat_file);
    EXPECT_EQ(sysinfo_update_all_cpu_usage(), row.result) << row.text;
    EXPECT_EQ(figures(), row.wanted) << row.text;
    EXPECT_EQ(capture::take_lines(), row.lines);
  }
  EXPECT_EQ(vorn::sysinfo::usage_percent.load()[3], 0u); // what was said of a third CPU
  EXPECT_EQ(vorn_get_cpu_usage_array(&one, 1), 1);
  EXPECT_EQ(one, 75u);
  EXPECT_EQ(vorn_get_cpu_usage_array(nullptr, 1), -1);
  EXPECT_ONE_RECORD(EVLOG_ERROR, "vorn_sysinfo.c", "vorn_get_cpu_usage_array",
                    "vorn_get_cpu_usage_array: data is NULL");
  EXPECT_EQ(scratch::next_descriptor(), descriptor);
  EXPECT_EQ(std::filesystem::file_size(kObjects + "PULLCPULASTIDLE_NOROOT"), 24u);
}

TEST_F(Sysinfo, ALockIsHadOnceAndKeptUntilItIsGivenBack) {
  sample_by_hand();
  int fd = -1;
  int other = -1;
  vorn_file_lock_s lock{};
  ASSERT_EQ(sysinfo_lock(&fd, &lock), 0);
  EXPECT_EQ(fcntl(fd, F_GETFD), FD_CLOEXEC);
  EXPECT_EQ(sysinfo_lock(&other, &lock), -1);
  sysinfo_exit();
  EXPECT_EQ(sysinfo_init(), 0);
  EXPECT_EQ(sysinfo_alloc_mem(), 0);
  const auto lock_in_child = [&] { // which has neither the lock nor the descriptor
    return run_in_child([&] { return fcntl(fd, F_GETFD) == -1 ? sysinfo_lock(&other, &lock) : 2; });
  };
  EXPECT_EQ(lock_in_child(), 255);
  EXPECT_EQ(other, -1);
  EXPECT_EQ(sysinfo_unlock(fd, &lock), 0);
  EXPECT_EQ(fcntl(fd, F_GETFD), -1);
  EXPECT_EQ(lock_in_child(), 0);
}

// Without the missing driver's, which the ticks of the rate limiter log.
Lines errors() {
  Lines lines = capture::take_lines();
  std::erase_if(lines, [](const std::string &line) {
    return !line.starts_with("E ") || line.find("jiffies") != std::string::npos;
  });
  return lines;
}

// What a process does until it is killed.
pid_t start_process(const std::function<void()> &work) {
  const pid_t parent = getpid();
  const pid_t child = fork();
  if (child != 0) return child;
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (getppid() != parent) _exit(1);
  work();
  for (;;)
    pause();
}

void end(pid_t process) {
  ASSERT_GT(process, 0);
  kill(process, SIGKILL);
  waitpid(process, nullptr, 0);
}

// Starts the sampling thread and gives what it logged.
Lines start_and_lose() {
  Lines lines;
  sysinfo_init();
  soon([&] {
    for (auto &line : errors())
      lines.push_back(line);
    return lines.size() >= 2;
  });
  return lines;
}

TEST_F(Sysinfo, OneProcessSamplesUntilItIsKilledAndALaterOneTakesOver) {
  const pid_t first = start_process([] { sysinfo_init(); });
  ASSERT_GT(first, 0);
  ASSERT_TRUE(soon([&] { return sampler() == first; }));
  ASSERT_EQ(kill(first, SIGSTOP), 0); // nobody waits for the sampler
  EXPECT_EQ(run_in_child([] { return start_and_lose() == kOutvoted ? 0 : 1; }), 0);
  sample_by_hand();
  EXPECT_LE(vorn_sysinfo_cpu_usage(), 100u);
  const pid_t second = start_process([] {
    if (start_and_lose() != kOutvoted) _exit(1);
  });
  ASSERT_GT(second, 0);
  ASSERT_EQ(kill(first, SIGCONT), 0);
  EXPECT_EQ(sampler(), first);
  const auto last_total = [] { return scratch::read_file(kObjects + "PULLCPULASTTOTAL_NOROOT"); };
  const std::string before = last_total();
  EXPECT_TRUE(soon([&] { return last_total() != before; }));
  end(first);
  EXPECT_EQ(sampler(), 0);               // the second one has asked already
  const pid_t third = start_process([] { // as a second start-up of the process would
    vorn_cfg_destroy();
    sysinfo_exit();
    sysinfo_init();
  });
  ASSERT_GT(third, 0);
  EXPECT_TRUE(soon([&] { return sampler() == third; }));
  end(third);
  end(second);
}

TEST_F(Sysinfo, AProcessThatSamplesStartsNoSecondThreadAndKeepsTheLock) {
  const pid_t process = start_process([] {
    sysinfo_init();
    const auto before = threads();
    for (int i = 0; i < 50; ++i) {
      sysinfo_exit();
      sysinfo_init();
      if (run_in_child([] { return 0; }) != 0) _exit(1);
    }
    if (threads() != before || vorn_sysinfo_cpu_usage() > 100) _exit(1);
    if (!errors().empty()) _exit(1);
    scratch::write_file("/dev/shm/done", "");
  });
  ASSERT_GT(process, 0);
  EXPECT_TRUE(soon([] { return std::filesystem::exists("/dev/shm/done"); }));
  EXPECT_EQ(sampler(), process);
  end(process);
}

TEST_F(Sysinfo, WhatCannotBeSharedOrStartedFailsAndIsTriedAgain) {
  present = 0;
  EXPECT_EQ(sysinfo_init(), -1);
  EXPECT_NO_RECORD();
  present = 2;
  const struct {
    const char *object;
    const char *array;
  } rows[] = {{"PUICPUUSAGE_NOROOT", "g_puiCpuUsage"},
              {"PULLCPULASTIDLE_NOROOT", "g_pullCpuLastIdle"},
              {"PULLCPULASTTOTAL_NOROOT", "g_pullCpuLastTotal"}};
  for (const auto &row : rows) {
    std::filesystem::create_directory(kObjects + row.object);
    EXPECT_EQ(sysinfo_init(), -1);
    EXPECT_EQ(capture::take_lines().back(),
              "E Vorn sysinfo alloc " + std::string(row.array) + " mem failed.");
    std::filesystem::remove(kObjects + row.object);
  }
  create_error = EAGAIN;
  EXPECT_EQ(sysinfo_init(), -1);
  create_error = 0;
  EXPECT_EQ(sysinfo_init(), 0); // not initialised, and no candidate left behind
  EXPECT_TRUE(
      soon([] { return run_in_child([] { return sampler() == getppid() ? 0 : 1; }) == 0; }));
}

TEST(SysinfoFigures, MemoryAndSizes) {
  EXPECT_EQ(vorn_sysinfo_mem_usage(), 0u);
  struct sysinfo figures = {};
  memory = figures;
  EXPECT_EQ(vorn_sysinfo_mem_usage(), 0u);
  memory->totalram = 1000;
  memory->freeram = 251;
  memory->bufferram = 500;
  EXPECT_EQ(vorn_sysinfo_mem_usage(), 74u);
  EXPECT_EQ(vorn_get_cache_line_size(), 128u);
  EXPECT_EQ(vorn_sysinfo_present_cpu_num(), 2u);
  present = 9;
  EXPECT_EQ(sysinfo_get_cpu_num(), 2u);
}

} // namespace
