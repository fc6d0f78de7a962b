// test-wraps: pthread_create malloc vorn_private_syscall
// Tests thread records, creation and lookups.
// SPDX-License-Identifier: Apache-2.0
#include "vorn_thrd.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <functional>
#include <gtest/gtest.h>
#include <latch>
#include <map>
#include <optional>
#include <pthread.h>
#include <string>
#include <sys/prctl.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "evlog.h"
#include "support/child.hpp"
#include "support/create_error.hpp"
#include "support/log_capture.hpp"
#include "support/shown.hpp"
#include "thread/id_table.hpp"
#include "thread/vorn_thrd.hpp"
#include "vorn_syscall.h"

static std::atomic<std::size_t> refused_size{0};
static std::optional<vorn::thread::Reference> looker; // at slot 1, while memory for it is refused
static unsigned int asked_tid = 0;

extern "C" {
void *__real_malloc(std::size_t size);
void *__wrap_malloc(std::size_t size) {
  if (refused_size == 0 || size < refused_size) return __real_malloc(size);
  looker.emplace(vorn::thread::slots()[1]);
  errno = ENOMEM;
  return nullptr;
}

// The kernel module knows only thread 42.
long __wrap_vorn_private_syscall(unsigned long command, unsigned long a1, unsigned long,
                                 unsigned long, unsigned long) {
  if (command != VORN_SYSCALL_COMMAND(0x701)) return -1;
  asked_tid = *reinterpret_cast<unsigned int *>(a1);
  return asked_tid == 42 ? 0 : 1;
}
}

namespace {

std::string listing() { return shown::by(vorn_thrd_list); }

// A thread of the library that runs body and then waits for its release.
class Thread {
public:
  explicit Thread(std::function<void()> body) : body_(std::move(body)) {
    EXPECT_EQ(vorn_thrd_create_attr(run, this, nullptr, nullptr), 0);
    ready_.wait();
  }
  ~Thread() { end(); }

  void end() {
    if (ended_) return;
    ended_ = true;
    const vorn::thread::Slot *slot = record->slot;
    const int before = left;
    may_end_.count_down();
    while (left == before)
      usleep(100);
    // It is detached: its end shows in its slot.
    while (slot != nullptr && (slot->state & vorn::thread::kAlive) != 0)
      usleep(100);
  }

  vorn_thread_s *record = nullptr;
  long tid = 0;

private:
  static void *run(void *argument) {
    auto &self = *static_cast<Thread *>(argument);
    self.record = vorn_thrd_currentthreadinfo();
    self.tid = gettid();
    self.body_();
    auto &may_end = self.may_end_;
    self.ready_.count_down();
    may_end.wait();
    ++left;
    return nullptr;
  }

  static inline std::atomic<int> left; // the threads that no longer read their objects
  std::function<void()> body_;
  std::latch ready_{1};
  std::latch may_end_{1};
  bool ended_ = false;
};

void in_thread(std::function<void()> body) { Thread thread(std::move(body)); }

TEST(Registry, ThreadIsKnownWhileItRuns) {
  Thread thread([] {
    const vorn_thread_s *own = vorn_thrd_currentthreadinfo();
    vorn_thrd_setname("%s-%d", "a-long-thread-name", 7);
    EXPECT_STREQ(vorn_thrd_getname(), "a-long-thread-n");
    char kernel[16];
    pthread_getname_np(pthread_self(), kernel, sizeof kernel);
    EXPECT_STREQ(kernel, "a-long-thread-n");
    EXPECT_TRUE(own->tid == gettid() && own->pid == getpid() && own->iod_thread_id == ~0u);
    stack_t stack{};
    sigaltstack(nullptr, &stack);
    EXPECT_TRUE(stack.ss_sp == own->sig_stack && stack.ss_size == VORN_THRD_SIGSTACK_SIZE);
  });
  char line[64];
  snprintf(line, sizeof line, "%5lu %-18s %-11d %-8d\n", thread.tid, "a-long-thread-n", 0, -1);
  EXPECT_NE(listing().find(line), std::string::npos) << shown::text;

  vorn_thread_s *found = vorn_thrd_getthreadinfobytid(thread.tid);
  ASSERT_EQ(found, thread.record);
  thread.end();
  // While it is held, the thread record stays that thread's, but a lookup does not find it; then
  // the next thread gets it.
  EXPECT_EQ(vorn_thrd_getthreadinfobytid(thread.tid), nullptr);
  EXPECT_EQ(listing().find(line), std::string::npos);
  in_thread([&] { EXPECT_NE(vorn_thrd_currentthreadinfo(), found); });
  EXPECT_EQ(found->tid, thread.tid);
  while (found->slot->count != 1) // the thread gives its own reference back last
    usleep(100);
  EXPECT_EQ(vorn_thrd_putthreadinfo(found), 0);
  in_thread([&] { EXPECT_EQ(vorn_thrd_currentthreadinfo(), found); });

  capture::take();
  found->slot->count = 0;
  EXPECT_EQ(vorn_thrd_putthreadinfo(found), 0);
  EXPECT_EQ(found->slot->count, 0u);
  EXPECT_ONE_MESSAGE(EVLOG_ERROR, "vorn_thrd.c", "vorn_thrd_putthreadinfo",
                     "Put of thread slot 0, which no thread holds.");
}

TEST(Registry, FindsEveryIdOfACrowdedBucket) {
  static vorn::thread::IdTable table; // too large for a stack
  std::map<std::size_t, long> ids;    // of the threads that have not ended
  const auto find = [&](long id) {
    return table.find(id, [&](std::size_t slot) { return ids[slot] == id ? &ids[slot] : nullptr; });
  };
  // All ids have the same remainder. A later thread in another slot may get the id of an ended one.
  for (std::size_t step = 0; step < 400; ++step) {
    const std::size_t slot = VORN_THRD_SLOT_COUNT - 1 - (step * 7 + 9) % 20;
    const long id = 3 + 4096 * static_cast<long>(step % 13);
    if (long *ended = find(id)) *ended = 0;
    table.store(slot, ids[slot] = id);
    for (const auto &[at, present] : ids)
      EXPECT_TRUE(present == 0 || find(present) == &ids[at]) << step;
  }
}

TEST(Registry, ThreadBeyondTheTableRunsUnlisted) {
  std::vector<vorn_thread_s *> all;
  for (unsigned int i = 0; i < VORN_THRD_SLOT_COUNT; ++i)
    all.push_back(vorn::thread::take_record(nullptr, nullptr));
  EXPECT_EQ(all.back()->slot, &vorn::thread::slots()[VORN_THRD_SLOT_COUNT - 1]);
  Thread thread([] { vorn_thrd_setname("unseen"); });
  EXPECT_EQ(thread.record->slot, nullptr);
  EXPECT_STREQ(thread.record->name, "unseen");
  EXPECT_EQ(vorn_thrd_getthreadinfobytid(thread.tid), nullptr);
  EXPECT_EQ(listing().find("unseen"), std::string::npos);
  for (vorn_thread_s *record : all)
    vorn_thrd_putthreadinfo(record);
}

TEST(Registry, FailedStartsLeakNothing) {
  const auto entry = [](void *) -> void * { return nullptr; };
  create_error = EAGAIN;
  EXPECT_EQ(vorn_thrd_create(entry, nullptr, nullptr), -1);
  EXPECT_ONE_MESSAGE(EVLOG_ERROR, "vorn_thrd.c", "create_thread_raw_base",
                     "Create thread failed, error 11.");
  create_error = 0;
  // The first thread record exists; another thread needs memory for its thread record and its
  // stack.
  vorn_thread_s *cached = vorn::thread::take_record(nullptr, nullptr);
  EXPECT_EQ(cached->slot, &vorn::thread::slots()[0]);
  for (const std::size_t size : {std::size_t{60000}, sizeof(vorn_thread_s)}) {
    refused_size = size;
    EXPECT_EQ(vorn_thrd_create(entry, nullptr, nullptr), -1);
    refused_size = 0;
    EXPECT_EQ(vorn::thread::slots()[1].count, 1u) << "the looker holds it";
    looker.reset();
    EXPECT_EQ(vorn::thread::slots()[1].count, 0u);
    EXPECT_EQ(capture::take_lines().back(), "Create thread info fail.");
  }
  EXPECT_EQ(vorn_thrd_create(nullptr, nullptr, nullptr), -1);
  EXPECT_EQ(create_thread_raw_base(entry, nullptr, nullptr, nullptr, nullptr), -1);
  vorn_thrd_putthreadinfo(cached);
}

TEST(Registry, AdoptsAThreadAndLetsItGo) {
  capture::take();
  vorn_thrd_setname("x%d", 1);
  EXPECT_ONE_MESSAGE(EVLOG_ERROR, "vorn_thrd.c", "vorn_thrd_setname",
                     "Vorn set thrd name(x%d) fail, please use vorn or Kram create thrd.");
  EXPECT_EQ(vorn_thrd_clearcurthreadinfo(), -1);
  EXPECT_EQ(vorn_thrd_setcurthreadinfo(), 0);
  EXPECT_EQ(vorn_thrd_setcurthreadinfo(), 0);
  vorn_thread_s *own = vorn_thrd_getthreadinfobytid(gettid());
  ASSERT_EQ(own, vorn_thrd_currentthreadinfo());
  EXPECT_EQ(vorn_thrd_putthreadinfo(own), 1);
  EXPECT_EQ(vorn_thrd_clearcurthreadinfo(), 0);
  EXPECT_EQ(vorn_thrd_currentthreadinfo(), nullptr);
  EXPECT_EQ(vorn_thrd_getthreadinfobytid(gettid()), nullptr);
  EXPECT_EQ(vorn_thread_get_knl_tid(), gettid());
}

TEST(Registry, ChildOfForkSeesItselfAlone) {
  Thread other([] { vorn_thrd_setname("other"); });
  vorn_thrd_setcurthreadinfo();
  vorn_thrd_getpid_accl();
  vorn_thrd_settid_accl(0);
  const auto is_alone = [&] {
    return vorn_thrd_getpid_accl() == getpid() && vorn_thrd_gettid_accl() != 0 &&
                   vorn_thread_get_knl_tid() == gettid() &&
                   vorn_thrd_currentthreadinfo()->pid == getpid() &&
                   vorn_thrd_getthreadinfobytid(gettid()) == vorn_thrd_currentthreadinfo() &&
                   vorn_thrd_getthreadinfobytid(other.tid) == nullptr
               ? 0
               : 1;
  };
  EXPECT_EQ(run_in_child(is_alone), 0);
}

TEST(Registry, KernelModuleReportsTheStatus) {
  vorn_thrd_getstatus(42);
  EXPECT_NO_MESSAGE();
  vorn_thrd_getstatus(43);
  EXPECT_EQ(asked_tid, 43u);
  EXPECT_ONE_MESSAGE(EVLOG_INFO, "vorn_thrd.c", "vorn_thrd_getstatus",
                     "Vorn syscall for thrd_getstatus failed.");
}

TEST(Registry, ContextsBelongToTheThread) {
  unsigned int saved = 9;
  vorn_thread_run_in_irq_context_save(&saved);
  vorn_thread_run_in_iod_context_init(4);
  EXPECT_EQ(saved, 9u);
  EXPECT_EQ(vorn_thread_run_in_irq_context_check() + vorn_thread_run_in_iod_context_check(), 0);
  EXPECT_EQ(vorn_thread_iod_thread_id_get(), 0u);
  in_thread([] {
    unsigned int before = 9;
    vorn_thread_run_in_iod_context_init(4);
    vorn_thread_run_in_irq_context_save(&before);
    EXPECT_EQ(before, 1u);
    EXPECT_EQ(vorn_thread_run_in_irq_context_check(), 1);
    EXPECT_EQ(vorn_thread_run_in_iod_context_check(), 0);
    vorn_thread_run_in_irq_context_restore(before);
    EXPECT_EQ(vorn_thread_run_in_iod_context_check(), 1);
    EXPECT_EQ(vorn_thread_iod_thread_id_get(), 4u);
    EXPECT_EQ(vorn_thrd_numaId_get(), -1);
    vorn_thrd_core_set(77);
    EXPECT_EQ(smp_processor_id(), 77);
  });
  EXPECT_NE(smp_processor_id(), 77);
}

std::string kind_of(unsigned long address) {
  unsigned long low = 0, high = 0;
  const char *kind = nullptr;
  const int result = vorn_thrd_getcurrentstack(address, &low, &high, &kind);
  return std::string(kind) + (result == 0 ? "" : " refused");
}

TEST(Stacks, AddressHasItsKind) {
  static int global;
  const auto elsewhere = reinterpret_cast<unsigned long>(&global);
  const auto frame = [] { return reinterpret_cast<unsigned long>(__builtin_frame_address(0)); };
  EXPECT_EQ(kind_of(frame()), "UNKNOWN_STACK");
  EXPECT_EQ(kind_of(elsewhere), "INVALID_STACK refused");
  in_thread([&] {
    const vorn_thread_s &own = *vorn_thrd_currentthreadinfo();
    const auto signals = reinterpret_cast<unsigned long>(own.sig_stack);
    EXPECT_LT(own.os_stack_low, frame());
    EXPECT_EQ(kind_of(frame()), "OS_STACK");
    EXPECT_EQ(kind_of(own.os_stack_low - 4096), "OS_STACK");
    EXPECT_EQ(kind_of(own.os_stack_low - 4097), "INVALID_STACK refused");
    EXPECT_EQ(kind_of(own.os_stack_high + 16384), "INVALID_STACK refused");
    EXPECT_EQ(kind_of(signals + 65535), "SIG_STACK");
    unsigned long low = 0, high = 0;
    EXPECT_EQ(vorn_thread_get_specific_stack(gettid(), &low, &high), 0);
    EXPECT_TRUE(low == own.os_stack_low && high == own.os_stack_high);
    static bool bounds_known;
    const vorn_lwt_stack_ops_s ops = {[](unsigned long address) { return address == 64 ? 0 : 1; },
                                      [](unsigned long, unsigned long *from, unsigned long *to) {
                                        *from = 32;
                                        *to = 96;
                                        return bounds_known ? 0 : -1;
                                      }};
    EXPECT_EQ(register_lwt_stack_ops(nullptr), -1);
    EXPECT_EQ(register_lwt_stack_ops(&ops), 0);
    EXPECT_EQ(kind_of(64), "INVALID_LWT_STACK refused");
    bounds_known = true;
    EXPECT_EQ(kind_of(64), "LWT_STACK");
    EXPECT_EQ(kind_of(frame()), "OS_STACK");
    unregister_lwt_stack_ops();
    EXPECT_EQ(vorn_thrd_islwtstack(64), -1);
  });
}

[[gnu::noinline]] bool traced_from(unsigned long caller) {
  unsigned long addresses[2] = {};
  const auto own = reinterpret_cast<unsigned long>(__builtin_return_address(0));
  EXPECT_EQ(vorn_thrd_backtrace(addresses, 2, 1), 0);
  unsigned long many[4096];
  EXPECT_EQ(vorn_thrd_backtrace(many, 4096, 4096), -1);
  EXPECT_EQ(vorn_thrd_backtrace(many, 4096, 0), 0);
  EXPECT_EQ(many[4095], 0u);
  return addresses[0] == own && addresses[1] == caller && many[1] == own;
}

[[gnu::noinline]] bool traced() {
  const bool result = traced_from(reinterpret_cast<unsigned long>(__builtin_return_address(0)));
  asm volatile(""); // no tail call
  return result;
}

TEST(Stacks, BacktraceNamesTheCallers) {
  in_thread([] { EXPECT_TRUE(traced()); });
}

TEST(Names, OfProcessAndExecutable) {
  char name[32];
  capture::take();
  prctl(PR_SET_NAME, "");
  EXPECT_EQ(vorn_get_process_name(name, sizeof name), -1);
  EXPECT_EQ(capture::take().size(), 1u);
  prctl(PR_SET_NAME, "thrd_test");
  for (const unsigned int size : {32u, 65535u, 65536u, 1u << 20}) {
    std::vector<char> large(size);
    EXPECT_EQ(vorn_get_process_name(large.data(), size), 0);
    EXPECT_STREQ(large.data(), "thrd_test");
    large.assign(size, '\0');
    EXPECT_EQ(vorn_get_process_exe_name(large.data(), size), 0);
    EXPECT_STREQ(large.data(), "thrd_test");
  }
  EXPECT_EQ(vorn_get_process_name(name, 4), -1);
  EXPECT_ONE_MESSAGE(EVLOG_ERROR, "vorn_thrd.c", "vorn_get_process_name",
                     "strncpy_s failed, processName(thrd_test).");
  EXPECT_EQ(vorn_get_process_exe_name(nullptr, 32), -1);
  EXPECT_ONE_MESSAGE(EVLOG_ERROR, "vorn_thrd.c", "vorn_get_process_exe_name",
                     "programName is NULL.");
}

TEST(Watch, IsSharedWithAChild) {
  EXPECT_EQ(vorn_thread_watch_add(77), 0);
  EXPECT_EQ(vorn_thread_watch_get(), 77u);
  EXPECT_EQ(run_in_child(vorn_thread_watch_del), 0);
  EXPECT_EQ(vorn_thread_watch_get(), 0u);
}

} // namespace
