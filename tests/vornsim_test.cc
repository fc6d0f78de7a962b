// test-links: vornsim
// Tests the stand-in for the kernel module: its answers, and those that a test sets.
// SPDX-License-Identifier: Apache-2.0
#include "vornsim.h"

#include <array>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <ctime>
#include <gtest/gtest.h>
#include <sched.h>
#include <string>
#include <thread>
#include <unistd.h>

#include "support/log_capture.hpp"
#include "support/scratch.hpp"
#include "vorn_cpu.h"
#include "vorn_cpufreq.h"
#include "vorn_sched.h"
#include "vorn_syscall.h"
#include "vorn_thrd.h"
#include "vorn_thread_dump.h"
#include "vorn_time.h"
#include "vorn_tty.h"

namespace {

using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;

int64_t seconds = 0;
uint32_t word = 0;
int32_t number = 0;
unsigned long size = 0;
uint32_t nothing = 0; // a word that ends a wait at once
int64_t ticks = 9;
unsigned int unknown_thread = 1u << 30;
vornsim_cpu_task_info_s info;

// An operation, valid arguments and the answer to them, and invalid arguments and their errno,
// which is 0 if it refuses nothing.
struct Row {
  unsigned int operation;
  std::array<const void *, 3> good;
  long answer;
  std::array<const void *, 3> bad;
  int error;
};

const void *value(unsigned long plain) { return reinterpret_cast<const void *>(plain); }
const void *const kNoCpu = value(1024);

const Row kRows[] = {
    {0x000, {}, 0, {}, 0},
    {0x001, {value(7), value(1), value('x')}, 0, {}, 0},
    {0x002, {nullptr, nullptr, &word}, 0, {}, EFAULT},
    {0x003, {"text"}, 0, {}, EFAULT},
    {0x100, {&seconds, &word}, 0, {&seconds}, EFAULT},
    {0x101, {value(0), &seconds}, 0, {value(INT64_MAX), &seconds}, EOVERFLOW},
    {0x102, {&seconds, &word}, 0, {nullptr, &word}, EFAULT},
    {0x103, {value(0), &number}, 0, {value(INT64_MAX), &number}, EOVERFLOW},
    {0x104, {&number, &number}, 0, {&number}, EFAULT},
    {0x200, {}, 0, {}, 0},
    {0x201, {}, 0, {}, 0},
    {0x202, {}, 0, {}, 0},
    {0x203, {}, 0, {}, 0},
    {0x301, {}, 0, {}, 0},
    {0x302, {}, 0, {}, 0},
    {0x303, {}, 0, {}, 0},
    {0x300, {}, 0, {}, 0},
    {0x304, {}, 1000000, {}, 0},
    {0x305, {value(1023), &word}, 0, {kNoCpu, &word}, EINVAL},
    {0x306, {value(1023), &word}, 0, {kNoCpu, &word}, EINVAL},
    {0x307, {value(1023), &info}, 0, {kNoCpu, &info}, EINVAL},
    {0x400, {&size}, 0, {}, EFAULT},
    {0x401, {&size}, 0, {}, EFAULT},
    {0x402, {}, 0, {}, 0},
    {0x500, {}, 0, {value(unknown_thread)}, ESRCH},
    {0x701, {&unknown_thread}, -1, {}, EFAULT},
    {0x702, {value(1023)}, 0, {kNoCpu}, EINVAL},
    {0x703, {value(1023)}, 0, {kNoCpu}, EINVAL},
    {0x704, {value(unknown_thread)}, -1, {nullptr}, EBUSY},
    {0x800, {&nothing, &ticks, &size}, 1, {&nothing, &ticks}, EFAULT},
};

long ask(unsigned int operation, const std::array<const void *, 3> &arguments) {
  unsigned long words[3];
  for (int i = 0; i < 3; ++i)
    words[i] = reinterpret_cast<unsigned long>(arguments[static_cast<size_t>(i)]);
  errno = 0;
  return vorn_private_syscall(VORN_SYSCALL_COMMAND(operation), words[0], words[1], words[2], ~0ul);
}

TEST(StandIn, AnswersEveryOperationOrFailsItOnRequest) {
  CaptureStderr();
  for (const Row &row : kRows) {
    SCOPED_TRACE(row.operation);
    EXPECT_EQ(ask(row.operation, row.good), row.answer);
    if (row.error != 0) {
      EXPECT_EQ(ask(row.operation, row.bad), -1);
      EXPECT_EQ(errno, row.error);
    }
    const unsigned long before = vornsim_count(row.operation);
    EXPECT_EQ(vornsim_fail(row.operation, EPERM), 0);
    EXPECT_EQ(ask(row.operation, row.good), -1);
    EXPECT_EQ(errno, EPERM);
    EXPECT_EQ(vornsim_fail_call(row.operation, 2, EIO), 0);
    EXPECT_EQ(ask(row.operation, row.good), row.answer);
    EXPECT_EQ(ask(row.operation, row.good), -1);
    EXPECT_EQ(errno, EIO);
    EXPECT_EQ(ask(row.operation, row.good), row.answer);
    EXPECT_EQ(vornsim_answer_call(row.operation, 0, -77), 0);
    EXPECT_EQ(ask(row.operation, row.good), -77);
    EXPECT_EQ(vornsim_fail(row.operation, 0), 0);
    EXPECT_EQ(ask(row.operation, row.good), row.answer);
    EXPECT_EQ(vornsim_count(row.operation), before + 6);
    vornsim_call_s call;
    EXPECT_EQ(vornsim_last_call(row.operation, &call), 0);
    EXPECT_EQ(call.arguments[0], reinterpret_cast<unsigned long>(row.good[0]));
    EXPECT_EQ(vornsim_fail(row.operation, EPERM), 0);
  }
  vornsim_reset();
  for (const Row &row : kRows)
    EXPECT_EQ(vornsim_count(row.operation), 0u);
  EXPECT_EQ(ask(0x304, {}), 2600000);
  EXPECT_EQ(ask(0x306, {}), -1);
  EXPECT_EQ(errno, EFAULT);
  for (const unsigned int none : {0x004u, 0x700u, 0x801u, ~0u}) {
    EXPECT_EQ(vornsim_fail(none, EPERM), -1);
    EXPECT_EQ(ask(none, {}), -1);
    EXPECT_EQ(errno, ENOSYS);
  }
  EXPECT_EQ(vorn_private_syscall(380ul << 32, 0, 0, 0, 0), -1); // another module's
  GetCapturedStderr();
}

TEST(StandIn, StoresItsSettings) {
  EXPECT_EQ(vorn_cpufreq_down_allcpu_freq_by_step(0, 0), 0);
  EXPECT_EQ(vorn_get_local_cpufreq(0, 0), 2400000);
  EXPECT_EQ(vorn_cpufreq_set_low_all(0, 0), 0);
  EXPECT_EQ(vorn_get_local_cpufreq(0, 0), 1000000);
  EXPECT_EQ(vorn_cpufreq_set_high_all(0, 0), 0);
  EXPECT_EQ(vorn_cpufreq_up_allcpu_freq_by_step(0, 0), 0);
  EXPECT_EQ(vorn_get_local_cpufreq(0, 0), 2600000);

  EXPECT_EQ(vorn_set_idle_no_cstates(5, 9), 0);
  EXPECT_EQ(vorn_get_idle_no_cstates(5, &word), 0);
  EXPECT_EQ(word, 9u);
  EXPECT_EQ(vorn_get_idle_no_cstates(4, &word), 0);
  EXPECT_EQ(word, 0u);

  const char given[] = "a module's own record";
  char got[sizeof given];
  EXPECT_EQ(vornsim_set_cpu_task_info(given, sizeof given), 0);
  EXPECT_EQ(vorn_get_cpu_task_info(0, got), 0);
  EXPECT_STREQ(got, given);
  EXPECT_EQ(vornsim_set_cpu_task_info(given, 257), -1);
  EXPECT_EQ(vornsim_set_cpu_task_info(nullptr, 1), -1);
  EXPECT_EQ(vornsim_set_cpu_task_info(nullptr, 0), 0);

  setenv("TZ", "IST-5:30", 1);
  vornsim_shift_clock(1000000);
  EXPECT_EQ(vorn_time_getlocaltime(&seconds, &word), 0);
  EXPECT_NEAR(seconds, time(nullptr) + 1000000 + 19800, 100);
  EXPECT_EQ(vorn_time_gettime(&seconds, &word), 0);
  EXPECT_NEAR(seconds, time(nullptr) + 1000000, 100);
  EXPECT_EQ(vorn_time_getdsttime(&number, &number), 0);
  EXPECT_EQ(number, 19800);
  EXPECT_EQ(ask(0x101, {value(0), &seconds}), 0);
  EXPECT_EQ(seconds, 19800);
}

TEST(StandIn, ShowsThreadsAndTheirStacks) {
  cpu_set_t here;
  CPU_ZERO(&here);
  const int cpu = sched_getcpu();
  CPU_SET(cpu, &here);
  ASSERT_EQ(sched_setaffinity(0, sizeof here, &here), 0);
  const auto tid = static_cast<unsigned int>(gettid());
  std::atomic<unsigned int> sleeper = 0;
  std::atomic<bool> done = false;
  std::thread thread([&] {
    pthread_setname_np(pthread_self(), "a) sleeper (");
    sleeper = static_cast<unsigned int>(gettid());
    done.wait(false);
  });
  while (sleeper == 0)
    std::this_thread::yield();
  usleep(50000);

  bool survived = false;
  CaptureStderr();
  const int descriptor = scratch::next_descriptor();
  EXPECT_EQ(vorn_get_cpu_task_info(static_cast<unsigned int>(cpu), &info), 0);
  vorn_thrd_getstatus(sleeper);
  EXPECT_EQ(vorn_thrd_dump_thread_stack_if_not_running(sleeper, 0), 0);
  EXPECT_EQ(vorn_thrd_dump_thread_stack_if_not_running(tid, 0), -1);
  EXPECT_EQ(errno, EBUSY);
  EXPECT_EQ(vorn_thrd_dump_cpu_stack(static_cast<unsigned int>(cpu), 0), 0);
  EXPECT_EQ(vorn_thrd_dump_cpu_stack(1023, 0), 0); // looks at every thread
  std::thread([&] {                                // reads /proc, but is not a cancellation point
    pthread_cancel(pthread_self());
    EXPECT_EQ(ask(0x500, {}), 0);
    survived = true;
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr); // a std::thread cannot be cancelled
  })
      .join();
  EXPECT_EQ(vorn_tty_printoff(0, 0), 0);
  EXPECT_EQ(vorn_thrd_dump_cpu_stack_knl(static_cast<unsigned int>(cpu), 0), 0);
  EXPECT_EQ(vorn_tty_printon(0, 0), 0);
  EXPECT_EQ(scratch::next_descriptor(), descriptor);
  const std::string text = GetCapturedStderr();
  done = true;
  done.notify_all();
  thread.join();

  EXPECT_EQ(info.cpu, static_cast<unsigned int>(cpu));
  EXPECT_EQ(info.tid, static_cast<int>(tid));
  const std::string shown =
      std::to_string(sleeper) + " (a) sleeper (): state S, CPU " + std::to_string(cpu) + "\n";
  EXPECT_NE(text.find("vornsim: thread " + shown), text.npos) << text;
  const std::string own = "vornsim: stack of thread " + std::to_string(tid) + " (";
  EXPECT_NE(text.find(own), text.npos) << text;
  EXPECT_TRUE(survived);
  EXPECT_EQ(text.find(own), text.rfind(own)) << "printing was off";
  EXPECT_NO_MESSAGE();
}

TEST(StandIn, WaitsUntilItIsWokenOrTheTimeIsOver) {
  uint32_t waits = 1;
  EXPECT_EQ(vorn_wait_comm(&waits, 5), 0u);
  const auto tid = static_cast<uint32_t>(gettid());
  std::thread waker([&] {
    usleep(20000);
    std::atomic_ref(waits).store(0);
    EXPECT_EQ(vorn_wake_up_process(tid), 0);
  });
  const uint64_t left = vorn_wait_comm(&waits, 250000);
  waker.join();
  EXPECT_TRUE(left > 240000 && left <= 250000) << left;
  EXPECT_GT(vorn_wait_comm(&waits, VORN_WAIT_FOREVER), 1ul << 60);
  EXPECT_EQ(vornsim_count(VORN_SYSCALL_WAIT), 3u);
  waits = 1;
  vornsim_fail_call(VORN_SYSCALL_WAIT, 1, EIO);
  EXPECT_EQ(vorn_wait_comm(&waits, 250000), 0u); // at once

  const int64_t none = 0;
  EXPECT_EQ(ask(0x800, {&nothing, &none, &size}), 1);
  EXPECT_EQ(size, 1u);
  EXPECT_EQ(ask(0x800, {reinterpret_cast<char *>(&waits) + 1, &none, &size}), -1);
  EXPECT_EQ(errno, EINVAL);
  std::thread signaller([&] {
    usleep(20000);
    EXPECT_EQ(vorn_wake_up_process(tid), 0);
  });
  const int64_t five_seconds = 5 * 250;
  EXPECT_EQ(ask(0x800, {&waits, &five_seconds, &size}), 1); // a signal ends it
  signaller.join();
}

} // namespace
