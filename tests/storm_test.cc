// test-wraps: bind connect
// test-without: log_capture
// test-links: evlog
// Uses every family of the library in threads that are cancelled at random moments, and in children
// that are forked at random moments. No lock, descriptor, thread record or waiter may be left.
// SPDX-License-Identifier: Apache-2.0
#include <atomic>
#include <cstring>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <pthread.h>
#include <random>
#include <string>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "evlog.h"
#include "support/child.hpp"
#include "support/scratch.hpp"
#include "support/shown.hpp"
#include "vorn.h"

namespace {

// The server's port, which the system has chosen.
std::atomic<in_port_t> port{0};

template <class Call> int at_own_port(const sockaddr *address, Call call) {
  sockaddr_in own{};
  std::memcpy(&own, address, sizeof own);
  own.sin_port = port;
  return call(reinterpret_cast<sockaddr *>(&own));
}

} // namespace

extern "C" {
// The C library's own lock in tzset(3) is not known to the thread sanitizer.
const char *__tsan_default_suppressions() { return "race:tzset_internal\n"; }

int __real_bind(int, const sockaddr *, socklen_t);
int __real_connect(int, const sockaddr *, socklen_t);

int __wrap_bind(int socket, const sockaddr *address, socklen_t size) {
  return at_own_port(address, [=](sockaddr *own) {
    const int result = __real_bind(socket, own, size);
    socklen_t length = size;
    getsockname(socket, own, &length);
    port = reinterpret_cast<sockaddr_in *>(own)->sin_port;
    return result;
  });
}

int __wrap_connect(int socket, const sockaddr *address, socklen_t size) {
  return at_own_port(address, [=](sockaddr *own) { return __real_connect(socket, own, size); });
}
}

namespace {

std::string ini;
std::string copy;

vorn_sem_enhance_s units;
vorn_wait_queue_head_s queue;
vorn_spinlock_s spin_lock = VORN_SPINLOCK_INIT;
vorn_rwlock_s rw_lock = VORN_RWLOCK_INIT;

int32_t add(uint32_t, kram_call_s *call) { return static_cast<int32_t>(call->input_length); }

int ignore(const char *, ...) { return 0; }

bool log() {
  evlog(900, EVLOG_WARNING, "storm.c", __LINE__, __func__, 0, "%d", 1);
  return printk("%d\n", 2) > 0;
}

bool memory() {
  void *block = vorn_malloc(900, 64);
  vorn_free(block);
  return block != nullptr && vorn_get_available_usage() <= 100;
}

bool names() {
  char name[64];
  return vorn_pid_get_name(381) != nullptr && vorn_get_process_name(name, sizeof name) == 0;
}

bool registry() {
  char value[32];
  const bool found = vorn_cfg_getItemValue_ex(ini.c_str(), "A", "ITEM", value, sizeof value) == 0;
  return vorn_cfg_init(ini.c_str()) == 0 && vorn_cfg_destroy_ex(ini.c_str()) == 0 && found;
}

bool edit() { return vorn_cfg_file_setItemValue(ini.c_str(), "A", "ITEM", "2") == 0; }

bool private_call() {
  kram_request_s request = {};
  return KRAM_SysCall(0x500, &request) == 0;
}

bool semaphore() {
  vorn_sem_enhance_down(&units);
  vorn_yield();
  vorn_sem_enhance_up(&units);
  return true;
}

bool waiting() {
  vorn_wait_entry_s entry;
  vorn_wait_entry_init(&entry, static_cast<uint32_t>(gettid()));
  prepare_to_wait(&queue, &entry);
  sched_wait_timeout(&entry, 1);
  finish_wait(&queue, &entry);
  __wake_up(&queue);
  return true;
}

bool locks() {
  vorn_spinlock_lock(&spin_lock);
  vorn_spinlock_unlock(&spin_lock);
  vorn_rwlock_write_lock_mayblock(&rw_lock);
  vorn_rwlock_write_unlock(&rw_lock);
  return true;
}

bool files() { return vorn_copy(ini.c_str(), copy.c_str()) == 0; }

bool clock() {
  int64_t seconds = 0;
  uint32_t nanoseconds = 0;
  return vorn_time_getlocaltime(&seconds, &nanoseconds) == 0 &&
         vorn_time_zone_name_set("UTC", 3) == 0;
}

bool thread_record() {
  if (vorn_thrd_setcurthreadinfo() != 0) return false;
  vorn_thrd_setname("storm");
  vorn_thread_s *found = vorn_thrd_getthreadinfobytid(gettid());
  if (found != nullptr) vorn_thrd_putthreadinfo(found);
  vorn_thrd_list(ignore);
  return found != nullptr; // the thread record ends with its thread
}

bool commands() {
  FILE *stream = vorn_popen("echo x", "r");
  char line[8] = "";
  if (stream == nullptr) return false;
  const bool read = vorn_readline(fileno(stream), line, sizeof line) != nullptr;
  return vorn_pclose(stream) == 0 && read && vorn_system(":") == 0;
}

bool symbols() {
  char name[64];
  return vorn_symbol_init() == 0 &&
         vorn_symbol_addr_to_string(reinterpret_cast<uintptr_t>(&getpid), name, sizeof name) == 0;
}

bool start() {
  vorn_destory();
  return vorn_Init() == 0;
}

std::atomic<bool> *called(void *flag) { return static_cast<std::atomic<bool> *>(flag); }
void *call(void *flag) {
  *called(flag) = true;
  return nullptr;
}

// Whether what begin has started calls call(flag) soon.
template <class Begin> bool calls(Begin begin) {
  std::atomic<bool> flag{false};
  if (!begin(&flag)) return false;
  while (!flag) // the alarm ends what hangs
    usleep(100);
  return true;
}

bool thread() {
  return calls([](void *flag) { return vorn_thrd_create(call, flag, nullptr) == 0; });
}

bool work() {
  thread_local vorn_sched_work_s item;
  return calls([](void *flag) {
    vorn_sched_init_work(
        &item, [](vorn_sched_work_s *work) { call(work->pData); }, flag);
    return vorn_sched_add_work(&item) == 0;
  });
}

bool timer() {
  thread_local vorn_timer_s timer;
  return calls([](void *flag) {
    vorn_timer_init(&timer); // it was the parent's
    return vorn_timer_set(&timer, 1, reinterpret_cast<uint64_t>(flag),
                          [](uint64_t data) { call(reinterpret_cast<void *>(data)); }) == 0 &&
           vorn_timer_add(&timer) == 0;
  });
}

bool instance() {
  uint64_t id = LWP_NONE;
  const bool made = LwpModuleInit() == 0 && calls([&](void *flag) {
                      return (id = LwpInstNew("storm", nullptr, call, flag)) != LWP_NONE;
                    });
  return made && LwpInstDelete(id, -1) == 0;
}

struct Family {
  const char *name;
  bool (*use)();
  int cancellations; // rounds of the storm
  int every;         // one of this many children uses it
  bool allocates = true;
  bool closes = true; // descriptors
  bool starts_threads = false;
};

void PrintTo(const Family &family, std::ostream *out) { *out << family.name; }

constexpr Family kFamilies[] = {
    {"log", log, 1500, 1, false, false},
    {"memory", memory, 1000, 1},
    {"names", names, 1000, 1, false},
    {"registry", registry, 1000, 1},
    {"edit", edit, 700, 3},
    {"private_call", private_call, 1000, 0, false}, // its server is the parent's
    // A service's own objects: their waiters are the parent's.
    {"semaphore", semaphore, 1000, 0, false, false},
    {"waiting", waiting, 700, 0, false, false},
    {"locks", locks, 800, 0, false, false},
    {"files", files, 500, 1},
    {"clock", clock, 500, 1},
    {"thread_record", thread_record, 700, 1},
    {"commands", commands, 60, 20},
    {"symbols", symbols, 20, 50},
    {"start", start, 20, 50, true, true, true},
    // Only in children.
    {"thread", thread, 0, 20, true, true, true},
    {"work", work, 0, 20, true, true, true},
    {"timer", timer, 0, 20, true, true, true},
    {"instance", instance, 0, 20, true, true, true},
};

class Storm : public testing::Test {
protected:
  void SetUp() override {
    alarm(280); // the last line shown names the family that hangs
    ini = directory_ / "storm.ini";
    copy = directory_ / "copy.ini";
    // another process may sample the CPUs
    scratch::write_file(ini, "[A]\nITEM=1\n[VORN]\nSYSINFO_CPUUSAGE_THREAD_FLAG=0\n");
    ASSERT_EQ(evlog_init("storm", directory_.path().c_str()), 0);
    const int null = open("/dev/null", O_WRONLY);
    dup2(null, STDERR_FILENO);
    close(null);
    ASSERT_EQ(vorn_cfg_init(ini.c_str()), 0);
    ASSERT_EQ(vorn_Init(), 0);
    vorn_sem_enhance_init(&units, 1);
    __init_waitqueue_head(&queue);
    static const kram_entry_s entry = {0x500, KRAM_SYSCALL_DIRECT, add};
    ASSERT_EQ(KRAM_PrivateSysCallInit(), 0);
    ASSERT_EQ(KRAM_RegSysCall(5, &entry, 1), 0);
    while (port == 0 || !private_call())
      usleep(1000);
    for (const Family &family : kFamilies)
      ASSERT_TRUE(family.use()) << family.name;
  }

  std::minstd_rand random_{11};

private:
  scratch::Directory directory_;
};

int threads_with_record() {
  const std::string list = shown::by(vorn_thrd_list);
  return static_cast<int>(std::count(list.begin(), list.end(), '\n'));
}

// A thread that has just started may have none yet.
int settled_threads_with_record() {
  int count = threads_with_record();
  for (int before = -1; before != count;) {
    before = count;
    usleep(100000);
    count = threads_with_record();
  }
  return count;
}

void *use_forever(void *family) {
  for (;;) {
    static_cast<const Family *>(family)->use();
    pthread_testcancel();
  }
}

class StormOf : public Storm, public testing::WithParamInterface<Family> {};

TEST_P(StormOf, CancellationsLeaveNothingHeld) {
  Family family = GetParam();
  const int threads = settled_threads_with_record();
  const int descriptor = scratch::next_descriptor();
  std::atomic<bool> done{false};
  std::thread rival([&] {
    while (!done) {
      family.use();
      usleep(50); // the lock is not fair
    }
  });
  for (int i = 0; i < family.cancellations; ++i) {
    pthread_t thread;
    ASSERT_EQ(pthread_create(&thread, nullptr, use_forever, &family), 0);
    usleep(static_cast<useconds_t>(random_() % 150));
    pthread_cancel(thread);
    void *result = nullptr;
    pthread_join(thread, &result);
    ASSERT_EQ(result, PTHREAD_CANCELED);
  }
  done = true;
  rival.join();
  EXPECT_TRUE(family.use());
  vorn_thrd_clearcurthreadinfo();
  EXPECT_EQ(scratch::next_descriptor(), descriptor);
  EXPECT_LE(settled_threads_with_record(), threads - 1); // a restarted pool may have fewer workers
}

INSTANTIATE_TEST_SUITE_P(, StormOf, testing::ValuesIn(kFamilies),
                         [](const auto &family) { return std::string(family.param.name); });

TEST_F(Storm, ChildrenForkedUnderLoadUseEveryFamily) {
  std::atomic<bool> done{false};
  std::atomic<int> rounds{0};
  std::vector<std::thread> users;
  for (int user = 0; user < 3; ++user) {
    users.emplace_back([&, user] {
      for (int i = user; !done; ++i, ++rounds) {
        const Family &family = kFamilies[static_cast<std::size_t>(i) % std::size(kFamilies)];
        if (family.allocates && !kMayForkBesideAllocation) continue;
        if (family.closes && !kMayForkBesideClosing) continue;
        // what they begin is dropped when another user starts the library anew
        if (family.starts_threads && family.use != start) continue;
        if (family.every < 2 || i % family.every == 0) family.use();
      }
    });
  }
  if (!kMayForkBesideAllocation) { // a thread's start allocates, and so does its first use of a
                                   // family
    while (rounds < 300)
      usleep(1000);
    settled_threads_with_record();
  }
  for (int i = 0; i < 1000; ++i) {
    usleep(static_cast<useconds_t>(random_() % 1000));
    const int result = run_in_child([i] {
      for (std::size_t at = 0; at < std::size(kFamilies); ++at) {
        const Family &family = kFamilies[at];
        if (family.every == 0 || i % family.every != 0) continue;
        if (family.starts_threads && !kMayStartThreadsInChild) continue;
        alarm(30);
        if (!family.use()) return static_cast<int>(at) + 1;
      }
      return 0;
    });
    ASSERT_EQ(result, 0) << (result > 0 ? kFamilies[result - 1].name : "killed") << ", child " << i;
  }
  done = true;
  for (std::thread &user : users)
    user.join();
}

} // namespace
