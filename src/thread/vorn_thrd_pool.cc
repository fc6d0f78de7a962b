// Implements the thread pool: its threads wait for jobs, each on the semaphore in its thread
// record.
//
//   dispatcher                                    pool thread
//   state 4 -> 8 (compare-and-swap)               state 4 (idle)
//   argument, then entry (release)                waits on its semaphore
//   posts the semaphore        ------------->     takes the entry (acquire), runs it
//                                                 clears the entry, state 4 (release)
//
// Only the dispatcher that changes the state to 8 writes the job, until the thread stores 4 again.
// Each job has one post, and the thread waits for a post before it reads the job: posts neither
// accumulate nor get lost. After a post of vorn_thread_pool_destroy, the thread finds no job, or
// one whose own post is still to come.
//
// A thread of the pool can be cancelled only in its jobs. A cancellation that is pending at the end
// of a job takes effect then, while the state is still 8. A later one finds the thread idle or with
// its next job, and takes effect before that begins: the thread that replaces this one gets the
// job. A thread is also replaced if a job calls pthread_exit or gives the thread record up.
// SPDX-License-Identifier: Apache-2.0
#define VORN_FILE "vorn_thrd.c"
#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <utility>

#include "base/atomic_word.hpp"
#include "base/cancellation_guard.hpp"
#include "base/log.hpp"
#include "base/system.hpp"
#include "thread/vorn_thrd.hpp"
#include "vorn_sched.h"
#include "vorn_smp.h"

namespace vorn::thread {
namespace {

constexpr std::uint32_t kMostThreads = VORN_THRD_SLOT_COUNT;
constexpr unsigned int kStopMilliseconds = 10;

// The number of threads started; 0 if there is no pool.
constinit std::atomic<std::uint32_t> pool_size{0};
constinit std::atomic<bool> stopping{false};
constinit std::atomic<std::uint32_t> missing{0}; // threads that died and were not replaced

// Written by the creator of the pool before it starts the first thread.
std::uint32_t remainder_count; // threads that the spawner starts, including itself
sigset_t job_mask;             // the signal mask at the beginning of each job
bool small_stacks;

// The relation of the calling thread to the pool.
enum class Place : std::uint8_t {
  kOutside,
  kInside,
  kGivenJob, // a job that it has not begun
};
thread_local constinit Place t_place __attribute__((tls_model("initial-exec"))) = Place::kOutside;

struct Job {
  vorn_thrd_entry_f entry = nullptr;
  void *argument = nullptr;
};

vorn_thrd_entry_f job_of(const vorn_thread_s &record) {
  return atomic_word(record.entry).load(std::memory_order_acquire);
}

// Returns false if a job has given the thread record up, which another thread may use by now, or if
// the job has forked and this is the child.
bool is_member(const vorn_thread_s &record) { return t_record == &record && record.pooled == 1; }

// Enables deferred cancellation for a job. A pending cancellation ends the thread here.
void allow_cancellation() {
  pthread_setcanceltype(PTHREAD_CANCEL_DEFERRED, nullptr);
  pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, nullptr);
  pthread_testcancel();
}

void forbid_cancellation() { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr); }

// Lets a signal wake a thread that was created with all signals blocked.
sigset_t creation_mask() {
  sigset_t mask;
  pthread_sigmask(SIG_BLOCK, nullptr, &mask);
  sigdelset(&mask, SIGWAKEUP);
  return mask;
}

// Resets what a job, or the thread that started this one, has changed.
void begin_afresh(vorn_thread_s &record) {
  pthread_sigmask(SIG_SETMASK, &job_mask, nullptr);
  record.context = VORN_THRD_CONTEXT_NORMAL;
  record.iod_thread_id = ~0u;
  vorn_thrd_core_set(-1);
  vorn_thrd_numaId_set(-1);
  vorn_thrd_bindAllCfgCpu();
  vorn_setCurThreadStrategy(VORN_THRD_STRATEGY_DEFAULT);
}

void run_job(vorn_thread_s &record, vorn_thrd_entry_f job) {
  vorn_thrd_setname("OSThrdPoolRun");
  t_place = Place::kGivenJob;
  allow_cancellation();
  t_place = Place::kInside;
  job(record.argument);
  allow_cancellation();
  forbid_cancellation();
  if (!is_member(record)) return;
  ++record.jobs;
  atomic_word(record.entry).store(nullptr, std::memory_order_relaxed);
  vorn_thrd_setname("OSThrdPoolNull");
  set_state(record, kIdle);
  begin_afresh(record);
}

// Returns whether the thread may leave. If it has got a job meanwhile, it runs the job first.
bool leaves_idle(const vorn_thread_s &record) {
  if (!stopping.load()) return false;
  std::uint32_t state = kIdle;
  return record.slot->state.compare_exchange_strong(state, kExited, std::memory_order_acq_rel);
}

// The time that a thread looks for the next job before it sleeps: the next job often follows at
// once, and the dispatcher then makes no system call to wake the thread. Not done on a single CPU.
constexpr std::chrono::microseconds kLookout{20};

bool finds_post_soon(vorn_thread_s &record) {
  if (record.jobs == 0 || num_config_cpus() == 1) return false;
  const auto end = std::chrono::steady_clock::now() + kLookout;
  do {
    if (sem_trywait(&record.job) == 0) return true;
    sched_yield(); // the dispatcher may be waiting for this CPU
  } while (std::chrono::steady_clock::now() < end);
  return false;
}

void wait_for_post(vorn_thread_s &record) {
  if (!finds_post_soon(record)) sys::wait(&record.job);
}

void run_pool(vorn_thread_s &record) {
  set_state(record, kRunning);
  vorn_thrd_setname("OSThrdPoolNull");
  vorn_thrd_entry_f job = job_of(record); // of the thread that this one replaces
  set_state(record, job != nullptr ? kClaimed : kIdle);
  for (;;) {
    if (job != nullptr) run_job(record, job);
    if (!is_member(record)) return;
    if (leaves_idle(record)) break;
    wait_for_post(record);
    job = job_of(record);
  }
  t_place = Place::kOutside;
  leave(&record);
}

void begin(vorn_thread_s &record) {
  forbid_cancellation();
  t_place = Place::kInside;
  enter(&record);
  pthread_sigmask(SIG_SETMASK, &job_mask, nullptr);
  vorn_setCurThreadStrategy(VORN_THRD_STRATEGY_DEFAULT);
}

void *start_pooled(void *argument) {
  auto &record = *static_cast<vorn_thread_s *>(argument);
  begin(record);
  run_pool(record);
  return nullptr;
}

// Any thread that notices the loss starts the replacement, which therefore resets its settings.
void *start_replacement(void *argument) {
  auto &record = *static_cast<vorn_thread_s *>(argument);
  begin(record);
  begin_afresh(record);
  run_pool(record);
  return nullptr;
}

// Starts a thread of the pool, which begins with job if that is set. Returns 0; on failure, logs an
// error and returns -1.
int create_thread_pool_base(vorn_thrd_entry_f start_routine, const Job &job = {}) {
  vorn_thread_s *record = take_record(job.entry, job.argument);
  // No dispatcher could find a thread without a slot.
  if (record == nullptr || record->slot == nullptr) {
    VORN_LOG(kInfo, "Create thread info fail.");
    if (record != nullptr) vorn_thrd_putthreadinfo(record);
    return -1;
  }
  record->pooled = 1;
  pthread_attr_t attributes; // never destroyed: it holds no resources
  pthread_attr_init(&attributes);
  if (small_stacks) pthread_attr_setstacksize(&attributes, kSmallStack);
  const auto log_failed = [](int error) {
    VORN_LOG_AS("create_thread_pool_base", kError, "Create thread failed, error %d, errno %d.",
                error, errno);
  };
  return start_thread(record, start_routine, &record->handle, &attributes, __func__, log_failed);
}

std::uint32_t start_threads(std::uint32_t count) {
  std::uint32_t started = 0;
  for (std::uint32_t i = 0; i < count; ++i)
    started += create_thread_pool_base(start_pooled) == 0 ? 1 : 0;
  return started;
}

// Starts a replacement of a dead thread. If it cannot, a later dispatch tries again.
bool replace(const Job &job) {
  if (stopping.load()) return false;
  if (create_thread_pool_base(start_replacement, job) == 0) return true;
  missing.fetch_add(1);
  return false;
}

void replace_missing() {
  std::uint32_t count = missing.load(std::memory_order_relaxed);
  while (count != 0) {
    if (!missing.compare_exchange_weak(count, count - 1)) continue;
    if (!replace({})) return;
    count = missing.load();
  }
}

// Runs a job on a thread that is ending, without cancellation.
void run_at_last(const Job &job) {
  vorn_thrd_setcurthreadinfo();
  job.entry(job.argument);
  vorn_thrd_clearcurthreadinfo();
}

// Starts the rest of the pool, so that the pool's creator does not wait, and then joins the pool.
void *start_spawner(void *argument) {
  auto &record = *static_cast<vorn_thread_s *>(argument);
  begin(record);
  pool_size.fetch_add(start_threads(remainder_count - 1));
  run_pool(record);
  return nullptr;
}

bool wants_small_stacks() {
  if (vorn_get_instant_map_flag() != 1) return false;
  pthread_attr_t attributes;
  pthread_attr_init(&attributes);
  const int result = set_small_stack(&attributes, "vorn_thread_pool_create", kInfo);
  pthread_attr_destroy(&attributes);
  return result == 0;
}

// Wakes every thread of the pool, and returns their number.
int post_all() {
  int count = 0;
  for (Slot &slot : slots()) {
    const Reference reference(slot);
    if (!reference) continue;
    const std::uint32_t state = slot.state.load(std::memory_order_acquire);
    if (state != kIdle && state != kClaimed) continue;
    sem_post(&reference.record()->job);
    ++count;
  }
  return count;
}

// Claims the thread of the slot. Returns whether this call has claimed it.
bool claim(Slot &slot) {
  std::uint32_t state = kIdle;
  while (!slot.state.compare_exchange_weak(state, kClaimed, std::memory_order_acq_rel)) {
    if (state != kIdle) return false;
  }
  return true;
}

// Gives a job to an idle thread. Returns 0, or -1 if there is none.
int give(vorn_thrd_entry_f entry, void *argument, pthread_t *out) {
  for (Slot &slot : slots()) {
    if (slot.state.load(std::memory_order_relaxed) != kIdle) continue;
    const Reference reference(slot);
    if (!reference || !claim(slot)) continue;
    vorn_thread_s &record = *reference.record();
    record.argument = argument;
    atomic_word(record.entry).store(entry, std::memory_order_release);
    if (out != nullptr) *out = record.handle;
    sem_post(&record.job);
    return 0;
  }
  return -1;
}

} // namespace

// A job that has forked goes on in the child as a thread outside the pool.
void forget_pool() {
  pool_size.store(0);
  stopping.store(false);
  missing.store(0);
  t_place = Place::kOutside;
  if (t_record == nullptr || t_record->pooled == 0) return;
  t_record->pooled = 0;
  set_state(*t_record, kRunning);
}

bool end_in_pool() {
  const Place place = std::exchange(t_place, Place::kOutside);
  if (place == Place::kOutside) return false;
  Job job;
  if (place == Place::kGivenJob) job = {job_of(*t_record), t_record->argument};
  // Frees the slot for the replacement: there may be no other free slot.
  if (t_record != nullptr) leave(t_record);
  if (!replace(job) && job.entry != nullptr) run_at_last(job);
  return true;
}

} // namespace vorn::thread

using namespace vorn::thread;

unsigned int vorn_thread_pool_create(unsigned int count) {
  vorn_thrd_module_init();
  if (count == 0) return 0;
  count = std::min(count, kMostThreads);
  std::uint32_t none = 0;
  if (!pool_size.compare_exchange_strong(none, count)) {
    VORN_LOG(vorn::kInfo, "OS thread pool just allowed create once %u.", count);
    return 0;
  }
  job_mask = creation_mask();
  small_stacks = wants_small_stacks();
  const std::uint32_t direct = count / 4;
  std::uint32_t started = start_threads(direct);
  remainder_count = count - direct;
  started += create_thread_pool_base(start_spawner) == 0 ? 1 : 0;
  if (started == count) return count;
  VORN_LOG(vorn::kInfo, "Create OS thread pool %u, success %u.", count, started);
  pool_size.store(started);
  return started;
}

int create_thread_from_thread_pool(vorn_thrd_entry_f entry, void *argument, pthread_t *out) {
  if (entry == nullptr || pool_size.load(std::memory_order_relaxed) == 0) return -1;
  const int result = give(entry, argument, out);
  replace_missing();
  return result;
}

int vorn_thread_pool_destroy() {
  if (pool_size.load() == 0) return 0;
  const vorn::CancellationGuard off;
  stopping.store(true);
  const int first = post_all();
  vorn_msleep(kStopMilliseconds);
  const int second = post_all();
  VORN_LOG(vorn::kInfo, "TBA:res1 %d, res2 %d.", first, second);
  return second;
}
