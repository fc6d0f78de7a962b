// test-wraps: __cxa_demangle dup2 elf_begin fallocate fchmod fchown fcntl fdopen fdopendir fgets
// test-wraps: flock free fstat fsync ftruncate lseek malloc mmap open pipe2 prctl
// test-wraps: pthread_attr_setdetachstate pthread_cond_init pthread_condattr_init
// test-wraps: pthread_condattr_setclock pthread_create pthread_getattr_np pthread_key_create
// test-wraps: pthread_mutex_init pthread_setaffinity_np read readdir readlink rename setpriority
// test-wraps: shm_open sigaction sigaltstack syscall sysconf unlink vfork waitpid write
// Tests that each allocation and each call of the system may fail: the n-th call of a function
// fails, alone or with all later ones. The result is an ordinary error, nothing leaks, and the same
// operation succeeds next.
// SPDX-License-Identifier: Apache-2.0
#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <filesystem>
#include <fstream>
#include <functional>
#include <gtest/gtest.h>
#include <string>
#include <sys/mman.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "support/child.hpp"
#include "support/log_capture.hpp"
#include "support/scratch.hpp"
#include "support/threads.hpp"
#include "vorn.h"

namespace {

// Each of the first kThorough calls of a function fails; of the later ones, every kThorough-th. At
// most kMostFaults calls fail: a start under the thread sanitizer takes a second.
#ifdef __SANITIZE_THREAD__
constexpr int kThorough = 1, kMostFaults = 2;
#elif defined(VORN_TEST_EMULATED) || defined(__SANITIZE_ADDRESS__)
constexpr int kThorough = 3, kMostFaults = INT_MAX; // at a tenth of the speed
#else
constexpr int kThorough = 100, kMostFaults = INT_MAX;
#endif

// A function that can be made to fail.
struct Function {
  explicit Function(const char *text) : name(text), number(all.size()) { all.push_back(this); }
  const char *name;
  std::size_t number;
  static inline std::vector<const Function *> all;
};

// Its calls that fail: all after the first so many, or the next of them alone.
struct Fault {
  const Function *function = nullptr;
  int passed = 0;
  bool lasting = false;
};
Fault fault;
std::atomic<bool> armed{false};
std::atomic<int> blocks{0}; // that the library has allocated

// The resources of a process.
struct Held {
  int descriptors, threads, mappings, blocks; // mappings of files
  bool within(const Held &most) const {
    return descriptors <= most.descriptors && threads <= most.threads &&
           mappings <= most.mappings && blocks <= most.blocks;
  }
};

std::ostream &operator<<(std::ostream &out, const Held &held) {
  return out << ", descriptors " << held.descriptors << ", threads " << held.threads
             << ", mappings " << held.mappings << ", blocks " << held.blocks;
}

// Written by a child, and by the children of that.
struct Report {
  std::atomic<int> calls[64]; // of each function
  std::atomic<int> failures;
  Held held;
  char why[64];
};
Report &report = *static_cast<Report *>(
    mmap(nullptr, sizeof(Report), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));

bool fails(const Function &function, int error) {
  if (!armed) return false;
  const int call = report.calls[function.number]++;
  if (&function != fault.function || call < fault.passed) return false;
  if (call > fault.passed && !fault.lasting) return false;
  ++report.failures;
  errno = error;
  return true;
}

const Function a_malloc{"malloc"};
const Function a_vfork{"vfork"};

} // namespace

extern "C" {
void *__real_malloc(size_t size);
void *__wrap_malloc(size_t size) {
  if (fails(a_malloc, ENOMEM)) return nullptr;
  ++blocks;
  return __real_malloc(size);
}
void __real_free(void *block);
void __wrap_free(void *block) {
  if (block != nullptr) --blocks;
  __real_free(block);
}
char *__real___cxa_demangle(const char *name, char *to, size_t *size, int *status);
char *__wrap___cxa_demangle(const char *name, char *to, size_t *size, int *status) {
  char *text = __real___cxa_demangle(name, to, size, status);
  if (text != nullptr && to == nullptr) ++blocks;
  return text;
}

// Uses fork(2): a child of vfork(2) must not return from the wrapping function.
pid_t __wrap_vfork() { return fails(a_vfork, EAGAIN) ? -1 : fork(); }

// All others take at most seven words, and return one.
#define WRAP(function, result, error)                                                              \
  static const Function a_##function{#function};                                                   \
  long __real_##function(long, long, long, long, long, long, long);                                \
  long __wrap_##function(long a, long b, long c, long d, long e, long f, long g) {                 \
    return fails(a_##function, error) ? result : __real_##function(a, b, c, d, e, f, g);           \
  }
WRAP(open, -1, EMFILE)
WRAP(shm_open, -1, EMFILE)
WRAP(fcntl, -1, EMFILE)
WRAP(pipe2, -1, EMFILE)
WRAP(fallocate, -1, ENOSPC)
WRAP(write, -1, ENOSPC)
WRAP(fstat, -1, EIO)
WRAP(ftruncate, -1, EIO)
WRAP(read, -1, EIO)
WRAP(lseek, -1, EIO)
WRAP(fsync, -1, EIO)
WRAP(rename, -1, EIO)
WRAP(unlink, -1, EIO)
WRAP(dup2, -1, EIO)
WRAP(fchmod, -1, EPERM)
WRAP(fchown, -1, EPERM)
WRAP(readlink, -1, EPERM)
WRAP(sigaction, -1, EPERM)
WRAP(sigaltstack, -1, EPERM)
WRAP(prctl, -1, EPERM)
WRAP(setpriority, -1, EPERM)
WRAP(flock, -1, EPERM)
WRAP(syscall, -1, ENOSYS)
WRAP(sysconf, -1, ENOSYS)
WRAP(mmap, -1, ENOMEM)
WRAP(fdopen, 0, ENOMEM)
WRAP(fdopendir, 0, ENOMEM)
WRAP(readdir, 0, ENOMEM)
WRAP(fgets, 0, ENOMEM)
WRAP(elf_begin, 0, ENOMEM)
WRAP(pthread_create, EAGAIN, 0)
WRAP(pthread_key_create, EAGAIN, 0)
WRAP(pthread_mutex_init, EAGAIN, 0)
WRAP(pthread_cond_init, EAGAIN, 0)
WRAP(pthread_condattr_init, EAGAIN, 0)
WRAP(pthread_condattr_setclock, EAGAIN, 0)
WRAP(pthread_getattr_np, EAGAIN, 0)
WRAP(pthread_setaffinity_np, EAGAIN, 0)
WRAP(pthread_attr_setdetachstate, EAGAIN, 0)
// As if the process ignored SIGCHLD: the child is gone, and its status is lost.
WRAP(waitpid, (__real_waitpid(a, b, c, d, e, f, g), errno = ECHILD, -1), 0)
}

namespace {

namespace fs = std::filesystem;

int entries(const char *directory) {
  return static_cast<int>(std::distance(fs::directory_iterator(directory), {}));
}

Held held_now() {
  std::ifstream maps("/proc/self/maps");
  int mappings = 0;
  for (std::string line; std::getline(maps, line);)
    mappings += line.find(" /") != line.npos ? 1 : 0;
  return {entries("/proc/self/fd"), entries("/proc/self/task"), mappings, blocks};
}

// The tasks of a process with one thread: an emulator has its own thread, and so has a sanitizer
// from the first thread on. A task may still be listed for a moment after its thread was joined.
int least_tasks() {
  std::thread([] {}).join();
  int least = entries("/proc/self/task");
  for (int i = 0; i < 5; ++i) {
    usleep(1000);
    least = std::min(least, entries("/proc/self/task"));
  }
  return least;
}

// --- The operations: each returns whether it succeeded ---

bool read_symbols() {
  vorn_symbol_fini();
  return vorn_symbol_init() == 0;
}

std::string ini;

int pass(void *, const vorn_cfg_line_s *) { return 0; }

// After each edit, the file is as before or as wanted.
bool edit() {
  std::string before = "[s]\nk=1\n[t]\nl=2\n";
  scratch::write_file(ini, before);
  const char *file = ini.c_str();
  char value[8];
  vorn_cfg_item_s item;
  const struct {
    std::function<int()> edit;
    std::string after;
  } edits[] = {
      {[&] { return vorn_cfg_init(file); }, before},
      {[&] { return vorn_cfg_walk(file, pass, nullptr); }, before},
      {[&] { return vorn_cfg_setItemValue("s", "k", "v"); }, before},
      {[&] { return vorn_cfg_setItemValue_ex(file, "s", "k", "v"); }, before},
      {[&] { return vorn_cfg_getItemValue("s", "k", value, sizeof value); }, before},
      {[&] { return vorn_cfg_getItemFromFile(file, "t", "l", &item); }, before},
      {[&] { return vorn_cfg_file_addItem(file, "u", "n", "4"); }, before + "[u]\nn=4\n"},
      {[&] { return vorn_cfg_file_setItemValue(file, "t", "l", "v"); },
       "[s]\nk=1\n[t]\nl=v\n[u]\nn=4\n"},
      {[&] { return vorn_cfg_file_delItem(file, "u", "n"); }, "[s]\nk=1\n[t]\nl=v\n"},
      {[&] { return vorn_cfg_file_delSection(file, "t"); }, "[s]\nk=1\n"},
  };
  bool worked = true;
  for (const auto &row : edits) {
    worked = row.edit() == 0;
    if (worked) before = row.after;
    if (scratch::read_file(ini) != before) _exit(10);
    if (!worked) break;
  }
  vorn_cfg_destroy();
  return worked;
}

bool write_item() {
  scratch::write_file(ini, "[s]\nk=1\n");
  return vorn_cfg_write_item_to_file(ini.c_str(), "s", "k", "23") == 0;
}

std::atomic<int> runs{0};
void *entry(void *) {
  ++runs;
  return nullptr;
}

int create_with_handle(vorn_thrd_entry_f function, void *argument, pthread_t *) {
  vorn_thrd_handle_s *handle = nullptr;
  if (vorn_thrd_create_handle(function, argument, &handle) != 0) return -1;
  const int result = vorn_thrd_wait_handle(handle, 2000, nullptr); // survives a lost wake-up
  vorn_thrd_put_handle(handle);
  return result;
}

bool create_threads() {
  const int tasks = least_tasks();
  for (const auto create :
       {vorn_thrd_create, create_thread_raw, create_thread_nopreempt_raw, create_with_handle}) {
    const int before = runs;
    if (create(entry, nullptr, nullptr) != 0) return false;
    if (!soon([&] { return runs == before + 1 && entries("/proc/self/task") <= tasks; })) _exit(11);
  }
  return true;
}

// Runs count threads at the same time, before anything fails: the thread records of their slots
// stay allocated.
bool use_slots(intptr_t count) {
  armed = false;
  const int before = least_tasks();
  static std::atomic<intptr_t> inside{0};
  const auto meet = [](void *all) -> void * {
    ++inside;
    soon([=] { return inside == reinterpret_cast<intptr_t>(all); });
    return nullptr;
  };
  for (intptr_t i = 0; i < count; ++i)
    create_thread_raw(meet, reinterpret_cast<void *>(count), nullptr);
  armed = soon([=] { return entries("/proc/self/task") <= before; });
  return armed;
}

// Creates a pool with as many threads as can start.
bool create_pool() {
  [[maybe_unused]] static const bool used = use_slots(16);
  static bool created = false;
  created = created || vorn_thread_pool_create(8) != 0;
  if (fault.function == nullptr) soon([] { return entries("/proc/self/task") > 8; });
  const int before = runs;
  return created && vorn_thrd_create(entry, nullptr, nullptr) == 0 &&
         soon([&] { return runs == before + 1; });
}

bool add_work() {
  [[maybe_unused]] static const bool used = use_slots(16);
  static vorn_sched_work_s work;
  sched_work_destroy();
  vorn_sched_init_work(
      &work, [](vorn_sched_work_s *) { ++runs; }, nullptr);
  const int before = runs;
  const bool ran = vorn_sched_add_work(&work) == 0 && soon([&] { return runs == before + 1; });
  vorn_sched_delete_work(&work);
  sched_work_destroy();
  return ran;
}

bool make_instance() {
  static const uint64_t initial = 5;
  static uint64_t variable = LWP_NONE;
  if (LwpModuleInit() != 0) return false;
  if (variable == LWP_NONE)
    variable = LwpVarRegister("v", &initial, sizeof initial, nullptr, nullptr);
  const uint64_t id = LwpInstNew("x", nullptr, entry, nullptr);
  if (id == LWP_NONE) return false;
  if (*static_cast<uint64_t *>(LwpVarRaw(id, variable)) != initial) _exit(12);
  return LwpInstDelete(id, -1) == 0;
}

struct Path {
  const char *name;
  int (*prepare)(); // called once before
  bool (*run)();
  bool lasting; // whether lasting faults are tried too
};

constexpr Path kPaths[] = {
    {"start", vorn_symbol_init, [] { return vorn_Init() == 0; }, false},
    {"symbols", nullptr, read_symbols, false},
    {"edit", nullptr, edit, true},
    {"write", nullptr, write_item, true},
    {"thread", vorn_thrd_module_init, create_threads, true},
    {"pool", vorn_thrd_module_init, create_pool, true},
    {"work", vorn_thrd_module_init, add_work, true},
    {"instance", vorn_thrd_module_init, make_instance, true},
};

void PrintTo(const Path &path, std::ostream *out) { *out << path.name; }

int fail(const char *why) {
  snprintf(report.why, sizeof report.why, "%s", why);
  return 1;
}

// Called in a child: runs the operation with the fault, then without it.
int try_once(const Path &path, const Held &most) {
  armed = true;
  const bool worked = path.run();
  armed = false;
  const bool silent = capture::take().empty();
  if (!worked && report.failures == 0) return fail("fails by itself");
  if (!worked && silent) return fail("fails without a log message");
  if (!path.run()) return fail("does not work afterwards");
  if (fault.function == nullptr) sleep(2); // until other threads are done
  const auto is_settled = [&] { return held_now().within(most); };
  if (!soon(is_settled))
    soon(is_settled); // a worker that missed its wake-up sleeps for ten seconds
  report.held = held_now();
  // If vorn_popen cannot make a stream, it leaves its end of the pipe open.
  if (fault.function == &a_fdopen) report.held.descriptors -= report.failures;
  return 0;
}

// Returns the exit code of a child, or 1 after a minute. Does not use SIGALRM, whose handler only
// dumps the stack.
int run_child(const Path &path, const Held &most) {
  for (const auto &object : fs::directory_iterator("/dev/shm"))
    fs::remove(object); // the child is the first process of the machine
  new (&report) Report{};
  const pid_t child = fork();
  if (child == 0) _exit(try_once(path, most));
  if (child < 0) return fail("cannot be forked");
  int status = 0;
  for (int i = 0; i < 60000; ++i) {
    if (waitpid(child, &status, WNOHANG) == child) return exit_code(status);
    usleep(1000);
  }
  kill(child, SIGKILL);
  waitpid(child, &status, 0);
  return fail("hangs");
}

class FaultInjection : public testing::TestWithParam<Path> {};

TEST_P(FaultInjection, ReturnsAnErrorAndLeaksNothing) {
  if (!scratch::cover_directory("/dev/shm")) GTEST_SKIP() << scratch::kNoMounts;
  const scratch::Directory directory;
  ini = directory / "f.ini";
  const Path &path = GetParam();
  if (path.prepare != nullptr) path.prepare();
  fault = {};
  constexpr int kMany = 1000;
  ASSERT_EQ(run_child(path, {kMany, kMany, kMany, kMany}), 0) << report.why;
  const Held most = report.held;
  const std::vector<int> calls(std::begin(report.calls), std::end(report.calls));
  int faults = 0;
  for (const Function *function : Function::all) {
    if (calls[function->number] == 0) continue;
    for (const bool lasting : {false, true}) {
      if (lasting && !path.lasting) continue;
      fault = {function, 0, lasting};
      for (int tried = 0; tried < kMostFaults; ++tried) {
        const int result = run_child(path, most);
        EXPECT_TRUE(result == 0 && report.held.within(most))
            << function->name << ' ' << fault.passed << (lasting ? " on" : "") << ": " << result
            << ' ' << report.why << report.held << " of at most" << most;
        if (report.failures == 0) break;
        ++faults;
        fault.passed += 1 + fault.passed / kThorough;
      }
    }
  }
  EXPECT_GT(faults, 0);
}

TEST(Restart, LeaksNothing) {
  if (!scratch::cover_directory("/dev/shm")) GTEST_SKIP() << scratch::kNoMounts;
  const auto restart = [](int times) {
    for (; times > 0; --times) {
      ASSERT_EQ(vorn_Init(), 0);
      vorn_destory();
      capture::take();
    }
  };
  ASSERT_TRUE(use_slots(16));
  armed = false;
  restart(3);
  usleep(500000);
  const Held most = held_now();
  restart(kThorough > 3 ? 100 : 10);
  EXPECT_TRUE(soon([&] { return held_now().within(most); })) << held_now() << " of at most" << most;
}

INSTANTIATE_TEST_SUITE_P(Paths, FaultInjection, testing::ValuesIn(kPaths),
                         [](const auto &path) { return path.param.name; });

} // namespace
