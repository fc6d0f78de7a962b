// Defines one function for each family; it releases all its resources before it returns.
// SPDX-License-Identifier: Apache-2.0
#include "families.hpp"

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <unistd.h>

#include "evlog.h"
#include "support/child.hpp"
#include "vorn.h"

namespace {

std::string ini;
constexpr unsigned int kModule = 900;

int ignore(const char *, ...) { return 0; }

// Waits for the condition. Returns false after half a minute.
template <class Condition> bool soon(Condition condition) {
  for (int i = 0; i < 30000 && !condition(); ++i)
    usleep(1000);
  return condition();
}

// --- Threads ---

bool use_threads() {
  static vorn_sem_enhance_s ended;
  static const bool is_made = vorn_sem_enhance_init(&ended, 0) == 0;
  const auto entry = [](void *) -> void * {
    vorn_thrd_setname("soak_short");
    vorn_setCurThreadStrategy(0);
    vorn_sem_enhance_up(&ended);
    return nullptr;
  };
  constexpr int kThreads = 4;
  for (int i = 0; i < kThreads; ++i) {
    if (create_thread_raw(entry, nullptr, nullptr) != 0) return false;
  }
  for (int i = 0; i < kThreads; ++i)
    vorn_sem_enhance_down(&ended);
  return is_made;
}

bool use_pool() {
  static std::atomic<int> done;
  static const unsigned int started = vorn_thread_pool_create(8);
  const auto job = [](void *) -> void * {
    ++done;
    return nullptr;
  };
  done = 0;
  return started > 0 && vorn_thrd_create(job, nullptr, nullptr) == 0 &&
         soon([] { return done == 1; });
}

bool use_registry() {
  if (vorn_thrd_setcurthreadinfo() != 0) return false;
  vorn_thread_s *found = vorn_thrd_getthreadinfobytid(gettid());
  if (found != nullptr) vorn_thrd_putthreadinfo(found);
  return found != nullptr && vorn_thrd_list(ignore) == 0 && vorn_thrd_clearcurthreadinfo() == 0;
}

// --- Timers and work ---

bool use_timers() {
  static std::atomic<int> fired;
  fired = 0;
  vorn_timer_s timers[16] = {};
  const auto count = [](uint64_t) { ++fired; };
  bool is_right = true;
  for (uint64_t i = 0; i < 16; ++i) {
    const bool is_long = i % 2 == 0;
    is_right = vorn_timer_set(&timers[i], is_long ? 3600000 : i, i, count) == 0 && is_right;
    is_right = vorn_timer_add(&timers[i]) == 0 && is_right;
  }
  is_right = vorn_timer_modify(&timers[0], 2) == 0 && is_right;
  is_right = soon([] { return fired == 9; }) && is_right;
  for (vorn_timer_s &timer : timers)
    is_right = vorn_timer_delete_sync(&timer) == 0 && is_right;
  return is_right;
}

bool use_hr_timers() {
  static std::atomic<int> fired;
  fired = 0;
  vorn_timer_s timer = {};
  const bool is_armed = vorn_timer_set(&timer, 100000, 0, [](uint64_t) { ++fired; }) == 0 &&
                        vorn_timer_add_ns(&timer) == 0;
  return is_armed && soon([] { return fired == 1; }) && vorn_timer_delete_sync(&timer) == 0;
}

bool use_work() {
  static std::atomic<int> run;
  run = 0;
  vorn_sched_work_s works[8];
  int taken_back = 0;
  for (vorn_sched_work_s &work : works) {
    vorn_sched_init_work(
        &work, [](vorn_sched_work_s *) { ++run; }, nullptr);
    if (vorn_sched_add_work(&work) != 0) return false;
    if (&work == &works[7]) taken_back = vorn_sched_delete_work(&work) == 0;
  }
  return soon([=] { return run == 8 - taken_back; });
}

// --- Objects that threads share ---

vorn_ring_s *ring() {
  static vorn_ring_s *const the_ring = vorn_ring_create(256, 0);
  return the_ring;
}

// put() and take() pass increasing numbers from one thread to the other, in order.
bool put() {
  static uintptr_t next = 1;
  while (vorn_ring_enqueue(ring(), reinterpret_cast<void *>(next)) == 0)
    ++next;
  usleep(100);
  return true;
}

bool take() {
  static uintptr_t last = 0;
  for (void *object = nullptr; vorn_ring_dequeue(ring(), &object) == 0; ++last) {
    if (reinterpret_cast<uintptr_t>(object) != last + 1) return false;
  }
  usleep(100);
  return true;
}

bool use_locks() {
  static vorn_spinlock_s spin = VORN_SPINLOCK_INIT;
  static vorn_rwlock_s rw = VORN_RWLOCK_INIT;
  vorn_spinlock_lock(&spin);
  vorn_spinlock_unlock(&spin);
  vorn_rwlock_write_lock_mayblock(&rw);
  vorn_rwlock_write_unlock(&rw);
  usleep(100);
  return true;
}

bool use_waits() {
  vorn_wait_queue_head_s queue;
  __init_waitqueue_head(&queue);
  vorn_wait_entry_s entry;
  vorn_wait_entry_init(&entry, static_cast<uint32_t>(gettid()));
  prepare_to_wait(&queue, &entry);
  sched_wait_timeout(&entry, 1);
  finish_wait(&queue, &entry);
  return true;
}

// --- Instances ---

bool use_instances() {
  static const uint64_t zero = 0;
  static const uint64_t variable =
      LwpModuleInit() == 0 ? LwpVarRegister("soak", &zero, sizeof zero, nullptr, nullptr)
                           : ~uint64_t{0};
  static std::atomic<int> counted;
  counted = 0;
  const auto entry = [](void *) -> void * {
    auto *value = static_cast<uint64_t *>(LwpVarRaw(0, variable));
    if (value != nullptr && ++*value == 1) ++counted;
    return nullptr;
  };
  const uint64_t instance = LwpInstNew("soak", nullptr, entry, nullptr);
  if (instance == ~uint64_t{0}) return false;
  return LwpInstDelete(instance, -1) == 0 && counted == 1;
}

// --- Dumps ---

bool use_dumps() {
  char name[64];
  usleep(20000); // a dump is hundreds of lines
  return dump_thread_stack_sig(getpid(), gettid()) == 0 && vorn_symbol_init() == 0 &&
         vorn_symbol_addr_to_string(reinterpret_cast<uintptr_t>(&printk), name, sizeof name) == 0;
}

// --- Settings, files, commands, memory ---

bool use_edits() {
  static int number = 0;
  const std::string value = std::to_string(++number);
  char found[32];
  return vorn_cfg_file_addItem(ini.c_str(), "T", "ADDED", value.c_str()) == 0 &&
         vorn_cfg_file_setItemValue(ini.c_str(), "T", "ADDED", "set") == 0 &&
         vorn_cfg_getItemValue_ex(ini.c_str(), "T", "ADDED", found, sizeof found) == 0 &&
         std::strcmp(found, "set") == 0 && vorn_cfg_file_delSection(ini.c_str(), "T") == 0;
}

bool use_settings() {
  char value[32];
  usleep(50);
  return vorn_cfg_getItemValue_ex(ini.c_str(), "A", "ITEM", value, sizeof value) == 0 &&
         std::strcmp(value, "1") == 0;
}

bool use_files() {
  const std::string copy = ini + ".copy";
  return vorn_copy(ini.c_str(), copy.c_str()) == 0 && vorn_cmd_rm(copy.c_str()) == 0;
}

bool use_commands() {
  FILE *stream = vorn_popen("echo x", "r");
  if (stream == nullptr) return false;
  char line[8] = "";
  const bool is_read = vorn_readline(fileno(stream), line, sizeof line) != nullptr;
  return vorn_pclose(stream) == 0 && is_read && vorn_system(":") == 0;
}

bool use_memory() {
  void *blocks[64];
  for (unsigned int i = 0; i < 64; ++i)
    blocks[i] = vorn_malloc(kModule, 16u << i % 12);
  bool is_right = true;
  for (void *block : blocks) {
    is_right = block != nullptr && is_right;
    vorn_free(block);
  }
  vorn_mem_show(ignore);
  return is_right;
}

bool use_log() {
  evlog(kModule, EVLOG_INFO, "soak.cc", __LINE__, __func__, 0, "%d", 1);
  usleep(200);
  return printk("%d\n", 2) > 0;
}

bool use_time() {
  int64_t seconds = 0;
  uint32_t nanoseconds = 0;
  usleep(200);
  return vorn_time_getlocaltime(&seconds, &nanoseconds) == 0 &&
         sysinfo_update_all_cpu_usage() == 0 && vorn_sysinfo_cpu_usage() <= 100;
}

Family all[] = {
    {"threads", use_threads},
    {"pool", use_pool},
    {"registry", use_registry},
    {"timers", use_timers},
    {"hr timers", use_hr_timers},
    {"work", use_work},
    {"ring, put", put},
    {"ring, take", take},
    {"locks", use_locks},
    {"waits", use_waits},
    {"instances", use_instances},
    {"dumps", use_dumps},
    {"edits", use_edits},
    {"settings", use_settings},
    {"files", use_files},
    {"memory", use_memory},
    {"log", use_log},
    {"time", use_time},
    {"commands", use_commands},
};

} // namespace

std::span<Family> families(const std::string &ini_file) {
  ini = ini_file;
  if (!kMayForkBesideClosing) return std::span(all).first(std::size(all) - 1); // no commands
  return all;
}
