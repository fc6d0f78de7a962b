// Holds the table of thread records and counts the references to them.
// SPDX-License-Identifier: Apache-2.0
#include "vorn_thrd.h"

#include <atomic>
#include <cerrno>
#include <cstring>
#include <new>
#include <unistd.h>

#include "base/atomic_word.hpp"
#include "base/cancellation_guard.hpp"
#include "base/fork_gate.hpp"
#include "base/kernel_request.hpp"
#include "base/log.hpp"
#include "base/once.hpp"
#include "base/thread_id.hpp"
#include "thread/id_table.hpp"
#include "thread/vorn_thrd.hpp"
#include "vorn_mem.h"
#include "vorn_sig_calltrace.h"

namespace vorn::thread {
namespace {

// The layout is part of the ABI.
static_assert(offsetof(vorn_thread_s, slot) == 0);
static_assert(offsetof(vorn_thread_s, handle) == 8);
static_assert(offsetof(vorn_thread_s, entry) == 16);
static_assert(offsetof(vorn_thread_s, argument) == 24);
static_assert(offsetof(vorn_thread_s, name) == 32);
static_assert(offsetof(vorn_thread_s, tid) == 48);
static_assert(offsetof(vorn_thread_s, pid) == 56);
static_assert(offsetof(vorn_thread_s, strategy) == 60);
static_assert(offsetof(vorn_thread_s, context) == 64);
static_assert(offsetof(vorn_thread_s, iod_thread_id) == 68);
static_assert(offsetof(vorn_thread_s, os_stack_low) == 72);
static_assert(offsetof(vorn_thread_s, os_stack_high) == 80);
static_assert(offsetof(vorn_thread_s, sig_stack) == 88);
static_assert(offsetof(vorn_thread_s, job) == 96);
static_assert(offsetof(vorn_thread_s, preempt_flag) == 128);
static_assert(offsetof(vorn_thread_s, switch_trace) == 272);
static_assert(sizeof(vorn_thread_s) == 544);

constinit Slot table[VORN_THRD_SLOT_COUNT];

// Only says where to look: a lookup relies on the id of a thread record that it holds a reference
// to and whose state is alive.
constinit IdTable tids;

// The key whose destructor gives back the thread record of a thread that did not return from its
// entry. Written once, under the flag.
constinit Once prepared{OncePolicy::kRetry};
pthread_key_t end_of_thread;

std::size_t index_of(const Slot &slot) { return static_cast<std::size_t>(&slot - table); }

vorn_thread_s *allocate_record() {
  auto *stack = static_cast<unsigned char *>(vorn_malloc(kModuleId, VORN_THRD_SIGSTACK_SIZE));
  if (stack == nullptr)
    return VORN_FAIL(nullptr, "Vorn_malloc sig stack for vorn_thread_s failed, errno=%d.", errno);
  void *memory = vorn_malloc(kModuleId, sizeof(vorn_thread_s));
  if (memory == nullptr) {
    VORN_LOG(kError, "Vorn_malloc vorn_thread_s failed, errno=%d.", errno);
    vorn_free(stack);
    return nullptr;
  }
  auto *record = new (memory) vorn_thread_s{};
  record->sig_stack = stack;
  return record;
}

void free_record(vorn_thread_s *record) {
  vorn_free(record->sig_stack);
  vorn_free(record);
}

// Takes and returns the first free slot, or returns NULL.
Slot *take_slot() {
  for (Slot &slot : table) {
    std::uint32_t count = slot.count.load(std::memory_order_relaxed);
    if (count != 0 || !slot.count.compare_exchange_strong(count, 1, std::memory_order_acq_rel))
      continue;
    slot.state.store(kAllocated, std::memory_order_release);
    return &slot;
  }
  return nullptr;
}

// Returns the slot's thread record, which the first use allocates. Logs an error and returns NULL
// if memory runs out.
vorn_thread_s *record_of(Slot &slot) {
  vorn_thread_s *record = slot.record.load(std::memory_order_relaxed);
  if (record != nullptr) return record;
  record = allocate_record();
  if (record == nullptr) return nullptr;
  record->slot = &slot;
  slot.record.store(record, std::memory_order_release);
  return record;
}

void initialise(vorn_thread_s &record, vorn_thrd_entry_f entry, void *argument) {
  Slot *slot = record.slot;
  unsigned char *stack = record.sig_stack;
  std::memset(&record, 0, sizeof record);
  record.slot = slot;
  record.sig_stack = stack;
  record.entry = entry;
  record.argument = argument;
  store_name(record, {"[NULL]"});
  set_tid(record, 0);
  record.pid = vorn_thrd_getpid_accl();
  record.strategy = VORN_THRD_STRATEGY_NONE;
  record.iod_thread_id = ~0u;
  sem_init(&record.job, 0, 0);
}

// Gives back one of count references; returns false if there is none.
bool drop(Slot &slot, std::uint32_t *left) {
  std::uint32_t count = slot.count.load(std::memory_order_relaxed);
  do {
    if (count == 0) return false;
  } while (!slot.count.compare_exchange_weak(count, count - 1, std::memory_order_acq_rel,
                                             std::memory_order_relaxed));
  *left = count - 1;
  return true;
}

// Takes a reference and returns the slot's thread record if it is that of a running thread with
// this id. Else returns NULL.
vorn_thread_s *hold(Slot &slot, std::int64_t tid) {
  Reference reference(slot);
  if (!reference || !reference.alive()) return nullptr;
  vorn_thread_s *record = reference.record();
  if (atomic_word(record->tid).load(std::memory_order_relaxed) != tid) return nullptr;
  reference.release();
  return record;
}

// In a child of fork(), only the forking thread exists, under other ids. Frees what other threads
// held or referred to.
void keep_own_thread() {
  const vorn_thread_s *own = t_record;
  for (Slot &slot : table) {
    if (own != nullptr && own->slot == &slot) continue;
    slot.state.store(0, std::memory_order_relaxed);
    slot.count.store(0, std::memory_order_relaxed);
  }
  forget_pool();
  if (own == nullptr) return;
  t_record->pid = getpid();
  set_tid(*t_record, gettid());
}

const ForkChild forget_others{keep_own_thread};

// Called if the thread was cancelled, called pthread_exit, or returned without giving its thread
// record back. t_record is still valid: the C library destroys thread-local words after the keys.
void end_thread(void *) {
  if (end_in_pool()) return;
  if (t_record != nullptr) leave(t_record);
}

int prepare() {
  vorn_thread_signal_init();
  const int result = pthread_key_create(&end_of_thread, end_thread);
  if (result == 0) return 0;
  return VORN_FAIL_AS("vorn_thrd_module_init", -1, "Create key of threads failed, error %d.",
                      result);
}

} // namespace

thread_local constinit vorn_thread_s *t_record = nullptr;

void watch_end(vorn_thread_s *record) {
  if (prepared.done()) pthread_setspecific(end_of_thread, record);
}

std::span<Slot> slots() { return table; }

Reference::Reference(Slot &slot) : slot_(&slot) {
  std::uint32_t count = slot.count.load(std::memory_order_relaxed);
  do {
    if (count == 0) {
      slot_ = nullptr;
      return;
    }
  } while (!slot.count.compare_exchange_weak(count, count + 1, std::memory_order_acq_rel,
                                             std::memory_order_relaxed));
}

Reference::~Reference() {
  std::uint32_t left = 0;
  if (slot_ != nullptr) drop(*slot_, &left);
}

vorn_thread_s *take_record(vorn_thrd_entry_f entry, void *argument) {
  Slot *slot = take_slot();
  vorn_thread_s *record = slot != nullptr ? record_of(*slot) : allocate_record();
  if (record != nullptr) {
    initialise(*record, entry, argument);
  } else if (slot != nullptr) {
    // A thread that reads the slot meanwhile holds its own reference.
    std::uint32_t left = 0;
    drop(*slot, &left);
  }
  return record;
}

void set_state(const vorn_thread_s &record, State state) {
  if (record.slot != nullptr) record.slot->state.store(state, std::memory_order_release);
}

void set_tid(vorn_thread_s &record, std::int64_t tid) {
  atomic_word(record.tid).store(tid, std::memory_order_relaxed);
  if (record.slot != nullptr) tids.store(index_of(*record.slot), tid);
}

} // namespace vorn::thread

using namespace vorn::thread;

vorn_thread_s *vorn_thrd_currentthreadinfo() { return t_record; }

vorn_thread_s *vorn_thrd_getthreadinfobytid(long tid) {
  return tids.find(tid, [tid](std::size_t slot) { return hold(table[slot], tid); });
}

int vorn_thrd_putthreadinfo(vorn_thread_s *thread) {
  if (thread == nullptr) return VORN_FAIL(-1, "Put of a thread record that is null.");
  if (thread->slot == nullptr) {
    free_record(thread);
    return 0;
  }
  std::uint32_t left = 0;
  if (!drop(*thread->slot, &left))
    VORN_LOG(vorn::kError, "Put of thread slot %zu, which no thread holds.",
             index_of(*thread->slot));
  return static_cast<int>(left);
}

int vorn_thrd_setcurthreadinfo() {
  vorn_thrd_module_init();
  if (t_record != nullptr) return 0;
  vorn_thread_s *record = take_record(nullptr, nullptr);
  if (record == nullptr) {
    VORN_LOG(vorn::kInfo, "Create thread info fail.");
    return -1;
  }
  enter(record);
  vorn_setCurThreadStrategy(VORN_THRD_STRATEGY_DEFAULT);
  set_state(*record, kRunning);
  return 0;
}

int vorn_thrd_clearcurthreadinfo() {
  vorn_thread_s *record = t_record;
  if (record == nullptr) return -1;
  leave(record);
  return 0;
}

int vorn_thrd_module_init() {
  prepared.run(prepare);
  return 0;
}

int vorn_thrd_list(vorn_print_f print) {
  if (print == nullptr) return VORN_FAIL(-1, "Print function is null.");
  const vorn::CancellationGuard off; // print runs while this holds a reference
  print("list threads flag(0:preempt 1:nonpreempt) created by vorn:\n");
  print("%-5s %-18s %-11s %-8s\n", "tid", "name", "preemptflag", "strategy");
  for (Slot &slot : table) {
    const Reference reference(slot);
    if (!reference || !reference.alive()) continue;
    const vorn_thread_s &record = *reference.record();
    print("%5lu %-18s %-11d %-8d\n",
          static_cast<unsigned long>(vorn::atomic_word(record.tid).load(std::memory_order_relaxed)),
          load_name(record).text, 0,
          vorn::atomic_word(record.strategy).load(std::memory_order_relaxed));
  }
  return 0;
}

void vorn_thrd_getstatus(unsigned int tid) {
  if (vorn::kernel_call(VORN_SYSCALL_THREAD_STATUS, &tid) != 0)
    VORN_LOG(vorn::kInfo, "Vorn syscall for thrd_getstatus failed.");
}
