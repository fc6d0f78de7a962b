// test-wraps: open sysconf sysinfo pthread_create
// Tests CPU usage and the sampler.
// SPDX-License-Identifier: Apache-2.0
#include "vorn_sysinfo.h"

#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <functional>
#include <gtest/gtest.h>
#include <optional>
#include <string>
#include <sys/sysinfo.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "support/child.hpp"
#include "support/create_error.hpp"
#include "support/log_capture.hpp"
#include "support/scratch.hpp"
#include "support/threads.hpp"
#include "sysinfo/usage.hpp"
#include "vorn_cfg.h"

static std::string stat_file = "/proc/stat";
static long present = 2;
static std::optional<struct sysinfo> memory;

extern "C" {
int __real_open(const char *path, int flags, mode_t mode);
int __wrap_open(const char *path, int flags, mode_t mode) {
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

namespace fs = std::filesystem;
using capture::outcome;
using Lines = std::vector<std::string>;

const std::string kObjects = "/dev/shm/SYSINFO_";
const std::string kUsage = kObjects + "PUICPUUSAGE_NOROOT";
const std::string kDenied = "E lock file(" + kUsage + ") failed, errno is ";

struct Sysinfo : testing::Test {
  void SetUp() override {
    if (!scratch::cover_directory("/dev/shm")) GTEST_SKIP() << scratch::kNoMounts;
  }
  void sample_by_hand() const {
    scratch::write_file(folder / "ini", "[VORN]\nSYSINFO_CPUUSAGE_THREAD_FLAG=0\n");
    ASSERT_EQ(vorn_cfg_init((folder / "ini").c_str()), 0);
    ASSERT_EQ(outcome(sysinfo_init()), "0");
  }
  scratch::Directory folder;
};

// Takes a sample, and returns its outcome and the figures of the machine, CPU 0 and CPU 1.
std::string sampled() {
  std::string text = outcome(sysinfo_update_all_cpu_usage());
  uint32_t all[] = {vorn_sysinfo_cpu_usage(), 999, 999, 999};
  EXPECT_EQ(vorn_get_cpu_usage_array(&all[1], 9), 2);
  for (uint32_t cpu = 0; cpu < 4; ++cpu)
    EXPECT_EQ(vorn_sysinfo_core_usage(&cpu), all[cpu < 2 ? cpu + 1 : 0]) << cpu;
  EXPECT_EQ(vorn_sysinfo_core_usage(nullptr), all[0]);
  for (int i = 0; i < 3; ++i)
    text += " " + std::to_string(all[i]);
  return text;
}

TEST_F(Sysinfo, SamplesAreTheBusyShareSinceTheLast) {
  uint32_t one = 7;
  EXPECT_EQ(vorn_sysinfo_cpu_usage() + vorn_sysinfo_core_usage(&one), 0u);
  EXPECT_EQ(vorn_get_cpu_usage_array(&one, 1), 0);
  EXPECT_EQ(outcome(sysinfo_update_all_cpu_usage()), "-1");
  EXPECT_EQ(one, 7u);
  sample_by_hand();
  stat_file = folder / "stat";
  const std::string wide = "cpu" + std::string(600, ' ');
  const struct {
    std::string text;
    std::string wanted;
  } rows[] = {
      {"cpu  10 0 0 30 0 0 0 500 500 500\ncpu0 1 1 1 1\ncpu1 0 0 0 7\n", "0 25 75 0"},
      {"cpu  20 1 2 30 3 4 0\ncpu0 1 1 1 1 1 1 1 9\ncpu1 0 0 0 7 0 0 0\n", "0 100 100 0"},
      {"cpu 20 1 2 130 3 4 0\ncpu1 9 0 0 8\ncpu0 4 1 1 2 1 1 1\n", "0 0 75 90"}, // any order
      {"cpu 20 1 2 136 3 6 0\ncpu2 9 9 9 0\ncpu4294967296 9 9 9 0\n"
       "cpu18446744073709551616 9 9 9 0\ncpu1 9 0 1 8\n",
       "0 25 75 100"},
      {"cpu 21 1 2 136 3 6 0\ncpu0 5 1 1\ncpu1 9 0 1 9\n", "0 100 75 100"}, // CPU 0 lacks a value
      {"cpu 21 1 2 137 3 6 0\nintr 1 2 3\ncpu1 9 0 1 9\n", "0 0 75 100"},
      {"cpu 21 1 2 138 2 6 0\n", "0 0 75 100"}, // ticks of another kind
      {"cpu 21 1 2 138 12 6 0\n", "0 100 75 100"},
      {"cpu 21 1 2\ncpu1 9 0 1 9\n", "-1 100 75 100"},
      {wide + "99 0 0 0\n", "-1 100 75 100"},
      {"", "-1; E Get CPU stat (/proc/stat) file failed. 100 75 100"},
  };
  const int descriptor = scratch::next_descriptor();
  for (const auto &row : rows) {
    scratch::write_file(stat_file, row.text);
    EXPECT_EQ(sampled(), row.wanted) << row.text;
  }
  fs::remove(stat_file);
  EXPECT_EQ(sampled(), "-1; E Open cpu stat file /proc/stat failed. 100 75 100");
  EXPECT_EQ(vorn::sysinfo::usage_percent.load()[3], 0u); // the figures of a third CPU are ignored
  EXPECT_EQ(vorn_get_cpu_usage_array(&one, 1), 1);
  EXPECT_EQ(one, 75u);
  EXPECT_EQ(outcome(vorn_get_cpu_usage_array(nullptr, 1)),
            "-1; E vorn_get_cpu_usage_array: data is NULL");
  EXPECT_EQ(scratch::next_descriptor(), descriptor);
  EXPECT_EQ(fs::file_size(kUsage), 12u);
  EXPECT_EQ(fs::file_size(kObjects + "PULLCPULASTIDLE_NOROOT"), 24u);
}

TEST_F(Sysinfo, ALockIsHeldOnceUntilItIsReleased) {
  int fd = -1;
  int other = -1;
  vorn_file_lock_s lock{};
  EXPECT_EQ(outcome(sysinfo_lock(&fd, &lock)), "-1; " + kDenied + "6.");
  sample_by_hand();
  ASSERT_EQ(sysinfo_lock(&fd, &lock), 0);
  EXPECT_EQ(fcntl(fd, F_GETFD), FD_CLOEXEC);
  EXPECT_EQ(outcome(sysinfo_lock(&other, &lock)), "-1; " + kDenied + "11.");
  EXPECT_EQ(outcome(sysinfo_lock(&fd, nullptr)), "-1; E Parameter is null.");
  EXPECT_EQ(outcome(sysinfo_unlock(fd, nullptr)), "-1; E Parameter is null.");
  sysinfo_exit();
  EXPECT_EQ(sysinfo_init(), 0);
  EXPECT_EQ(sysinfo_alloc_mem(), 0);
  const auto lock_in_child = [&] { // a child has neither the lock nor the descriptor
    return run_in_child([&] { return fcntl(fd, F_GETFD) == -1 ? sysinfo_lock(&other, &lock) : 2; });
  };
  EXPECT_EQ(lock_in_child(), 255);
  EXPECT_EQ(sysinfo_unlock(fd, &lock), 0);
  EXPECT_EQ(fcntl(fd, F_GETFD), -1);
  EXPECT_EQ(lock_in_child(), 0);
  EXPECT_EQ(sysinfo_lock(&fd, &lock), 0);
}

// Starts a process that runs work and then waits for a kill.
pid_t start_process(const std::function<void()> &work) {
  const pid_t child = fork();
  if (child != 0) return child;
  alarm(60);
  work();
  for (;;)
    pause();
}

void end(pid_t process) {
  ASSERT_GT(process, 0);
  kill(process, SIGKILL);
  waitpid(process, nullptr, 0);
}

// Returns the process that holds the lock, or 0. Not for the holder itself.
pid_t sampler() {
  const int fd = open(kUsage.c_str(), O_RDWR | O_CLOEXEC);
  struct flock lock = {};
  lock.l_type = F_WRLCK;
  const bool asked = fcntl(fd, F_GETLK, &lock) == 0 && lock.l_type != F_UNLCK;
  close(fd);
  return asked ? lock.l_pid : 0;
}

// Returns the errors, except those about the missing driver, which the rate limiter's clock logs.
Lines errors() {
  Lines lines = capture::take_lines();
  std::erase_if(lines, [](const std::string &line) {
    return !line.starts_with("E ") || line.find("jiffies") != std::string::npos;
  });
  return lines;
}

// Starts the sampling thread, and returns whether it found another process sampling.
bool starts_and_loses() {
  Lines lines;
  sysinfo_init();
  soon([&] {
    for (const std::string &line : errors())
      lines.push_back(line);
    return lines.size() >= 2;
  });
  return lines == Lines{kDenied + "11.", "E sysinfo lock failed."};
}

TEST_F(Sysinfo, OneProcessSamplesAndALaterOneReplacesAKilledOne) {
  const pid_t first = start_process([] { // a start-up after its first changes nothing
    for (int i = 0; i < 50; ++i) {
      sysinfo_init();
      sysinfo_exit();
      if (run_in_child([] { return 0; }) != 0) _exit(1);
    }
    if (errors().empty()) scratch::write_file("/dev/shm/done", "");
  });
  ASSERT_GT(first, 0);
  EXPECT_TRUE(soon([] { return fs::exists("/dev/shm/done"); }));
  ASSERT_EQ(sampler(), first);
  const std::string names = "/proc/" + std::to_string(first) + "/task/*/comm";
  EXPECT_EQ(std::system(("grep -qx vorn_sysinfo " + names).c_str()), 0);
  const auto last_total = [] { return scratch::read_file(kObjects + "PULLCPULASTTOTAL_NOROOT"); };
  const std::string before = last_total();
  EXPECT_TRUE(soon([&] { return last_total() != before; }));
  ASSERT_EQ(kill(first, SIGSTOP), 0); // no process waits for the sampler
  const pid_t second = start_process(
      [] { scratch::write_file("/dev/shm/outvoted", starts_and_loses() ? "yes" : "no"); });
  ASSERT_GT(second, 0);
  EXPECT_TRUE(soon([] { return scratch::read_file("/dev/shm/outvoted") == "yes"; }));
  sample_by_hand();
  EXPECT_LE(vorn_sysinfo_cpu_usage(), 100u);
  EXPECT_EQ(sampler(), first);
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

TEST_F(Sysinfo, AFailedStartIsTriedAgain) {
  const auto start = [] { return outcome(sysinfo_init()); };
  present = 0;
  EXPECT_EQ(start(), "-1");
  present = 2;
  for (const auto &[object, array] : {std::pair{"PUICPUUSAGE_NOROOT", "g_puiCpuUsage"},
                                      {"PULLCPULASTIDLE_NOROOT", "g_pullCpuLastIdle"},
                                      {"PULLCPULASTTOTAL_NOROOT", "g_pullCpuLastTotal"}}) {
    fs::create_directory(kObjects + object);
    EXPECT_EQ(start(), "-1; Open shm fail, fd<-1> errno<22>.; E Vorn sysinfo alloc " +
                           std::string(array) + " mem failed.");
    fs::remove(kObjects + object);
  }
  create_error = EAGAIN;
  EXPECT_TRUE(start().starts_with("-1; "));
  create_error = 0;
  EXPECT_EQ(sysinfo_init(), 0); // not initialised, and no candidate is left
  EXPECT_TRUE(
      soon([] { return run_in_child([] { return sampler() == getppid() ? 0 : 1; }) == 0; }));
}

TEST(SysinfoFigures, AreOfTheMachine) {
  EXPECT_EQ(vorn_sysinfo_mem_usage(), 0u);
  memory.emplace(); // of size 0
  EXPECT_EQ(vorn_sysinfo_mem_usage(), 0u);
  memory->totalram = 1000;
  memory->freeram = 251;
  memory->bufferram = 500;
  EXPECT_EQ(vorn_sysinfo_mem_usage(), 74u);
  EXPECT_EQ(vorn_get_cache_line_size(), 128u);
  EXPECT_EQ(vorn_sysinfo_present_cpu_num(), 2u);
  present = 9;
  EXPECT_EQ(sysinfo_get_cpu_num(), 2u); // as it was
}

} // namespace
