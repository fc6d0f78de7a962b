// The pool: threads that wait, each on the semaphore of its own record, for a job.
//
//   dispatcher                                    pool thread
//   state 4 -> 8 (compare-and-swap)               state 4 (idle)
//   argument, then entry (release)                waits on its semaphore
//   posts the semaphore        ------------->     takes the entry (acquire), runs it
//                                                 clears the entry, state 4 (release)
//
// Whoever makes the 8 is the only one to write the job, until the thread says 4 again. There is
// one post for a job, and the thread waits for one before it looks: posts neither pile up nor get
// lost, and those of vorn_thread_pool_destroy find either no job or one whose own post is due.
#define VORN_FILE "vorn_thrd.c"
#include <algorithm>
#include <cerrno>
#include <chrono>

#include "arch/pause.hpp"
#include "base/log.hpp"
#include "thread/vorn_thrd.hpp"
#include "vorn_sched.h"
#include "vorn_smp.h"

namespace vorn::thread {
namespace {

constexpr std::uint32_t kMostThreads = VORN_THRD_SLOT_COUNT;
constexpr unsigned int kStopMilliseconds = 10;

// The threads that were started; 0: there is no pool.
constinit std::atomic<std::uint32_t> pool_size{0};
constinit std::atomic<bool> stopping{false};

// For the spawner, which the creator starts behind writing them.
std::uint32_t remainder_count; // of threads that it starts, itself included
pthread_attr_t pool_attributes;
bool small_stacks;

pthread_attr_t *attributes() { return small_stacks ? &pool_attributes : nullptr; }

vorn_thrd_entry_f job_of(const vorn_thread_s &record) {
  return __atomic_load_n(&record.entry, __ATOMIC_ACQUIRE);
}

void run_job(vorn_thread_s &record, vorn_thrd_entry_f job) {
  vorn_thrd_setname("OSThrdPoolRun");
  job(record.argument);
  if (t_record != &record) return;
  ++record.jobs;
  __atomic_store_n(&record.entry, nullptr, __ATOMIC_RELAXED);
  vorn_thrd_setname("OSThrdPoolNull");
  set_state(record, kIdle);
  // Neither binding nor strategy of a job is the next one's.
  vorn_thrd_bindAllCfgCpu();
  vorn_setCurThreadStrategy(VORN_THRD_STRATEGY_DEFAULT);
}

// Whether the thread may leave. One that has been given a job meanwhile runs it first.
bool leaves_idle(const vorn_thread_s &record) {
  if (!stopping.load()) return false;
  std::uint32_t state = kIdle;
  return record.slot->state.compare_exchange_strong(state, kExited, std::memory_order_acq_rel);
}

// A thread that has just run a job often gets the next at once. It looks for that so long before it
// sleeps, which spares the dispatcher the call that wakes it. On a single CPU it would be in the
// way.
constexpr std::chrono::microseconds kLookout{20};

bool finds_post_soon(vorn_thread_s &record) {
  if (record.jobs == 0 || num_config_cpus() == 1) return false;
  const auto end = std::chrono::steady_clock::now() + kLookout;
  do {
    if (sem_trywait(&record.job) == 0) return true;
    arch::pause();
  } while (std::chrono::steady_clock::now() < end);
  return false;
}

void wait_for_post(vorn_thread_s &record) {
  if (finds_post_soon(record)) return;
  while (sem_wait(&record.job) != 0 && errno == EINTR) {
  }
}

void run_pool(vorn_thread_s &record) {
  set_state(record, kRunning);
  vorn_thrd_setname("OSThrdPoolNull");
  set_state(record, kIdle);
  while (!leaves_idle(record)) {
    wait_for_post(record);
    const vorn_thrd_entry_f job = job_of(record);
    if (job != nullptr) run_job(record, job);
    if (t_record != &record) return; // the job has cleared the record: the thread is no one's
  }
  leave(&record);
}

void begin(vorn_thread_s &record) {
  enter(&record);
  vorn_setCurThreadStrategy(VORN_THRD_STRATEGY_DEFAULT);
}

void *start_pooled(void *argument) {
  auto &record = *static_cast<vorn_thread_s *>(argument);
  begin(record);
  run_pool(record);
  return nullptr;
}

// Starts a thread of the pool. 0, or -1 after a record.
int create_thread_pool_base(vorn_thrd_entry_f start_routine, pthread_attr_t *own) {
  vorn_thread_s *record = take_record(nullptr, nullptr);
  // Without a slot nobody could give it a job.
  if (record == nullptr || record->slot == nullptr) {
    VORN_LOG(kInfo, "Create thread info fail.");
    if (record != nullptr) vorn_thrd_putthreadinfo(record);
    return -1;
  }
  record->pooled = 1;
  const int result = start_detached(record, start_routine, &record->handle, own, __func__);
  if (result == 0) return 0;
  const int error = errno;
  if (result > 0) VORN_LOG(kError, "Create thread failed, error %d, errno %d.", result, error);
  vorn_thrd_putthreadinfo(record);
  return -1;
}

std::uint32_t start_threads(std::uint32_t count) {
  std::uint32_t started = 0;
  for (std::uint32_t i = 0; i < count; ++i)
    started += create_thread_pool_base(start_pooled, attributes()) == 0 ? 1 : 0;
  return started;
}

// Starts the rest of the pool, so that its creator need not wait for them, and joins it.
void *start_spawner(void *argument) {
  auto &record = *static_cast<vorn_thread_s *>(argument);
  begin(record);
  pool_size.fetch_add(start_threads(remainder_count - 1));
  if (small_stacks) pthread_attr_destroy(&pool_attributes);
  run_pool(record);
  return nullptr;
}

void prepare_attributes() {
  small_stacks = false;
  if (vorn_get_instant_map_flag() != 1) return;
  pthread_attr_init(&pool_attributes);
  small_stacks = set_small_stack(&pool_attributes, "vorn_thread_pool_create", kInfo) == 0;
}

// Raises every thread of the pool, and tells how many there are.
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

// Whether this call has claimed the thread of the slot.
bool claim(Slot &slot) {
  std::uint32_t state = kIdle;
  while (!slot.state.compare_exchange_weak(state, kClaimed, std::memory_order_acq_rel)) {
    if (state != kIdle) return false;
  }
  return true;
}

} // namespace

// What the pool's locks and threads were is not in the child; a pool can be created there anew.
void forget_pool() {
  pool_size.store(0);
  stopping.store(false);
}

} // namespace vorn::thread

unsigned int vorn_thread_pool_create(unsigned int count) {
  using namespace vorn::thread;
  vorn_thrd_module_init();
  if (count == 0) return 0;
  count = std::min(count, kMostThreads);
  std::uint32_t none = 0;
  if (!pool_size.compare_exchange_strong(none, count)) {
    VORN_LOG(vorn::kInfo, "OS thread pool just allowed create once %u.", count);
    return 0;
  }
  prepare_attributes();
  const std::uint32_t direct = count / 4;
  std::uint32_t started = start_threads(direct);
  remainder_count = count - direct;
  started += create_thread_pool_base(start_spawner, attributes()) == 0 ? 1 : 0;
  if (started == count) return count;
  VORN_LOG(vorn::kInfo, "Create OS thread pool %u, success %u.", count, started);
  pool_size.store(started);
  return started;
}

int create_thread_from_thread_pool(vorn_thrd_entry_f entry, void *argument, pthread_t *out) {
  using namespace vorn::thread;
  if (entry == nullptr || pool_size.load(std::memory_order_relaxed) == 0) return -1;
  for (Slot &slot : slots()) {
    if (slot.state.load(std::memory_order_relaxed) != kIdle) continue;
    const Reference reference(slot);
    if (!reference || !claim(slot)) continue;
    vorn_thread_s &record = *reference.record();
    record.argument = argument;
    __atomic_store_n(&record.entry, entry, __ATOMIC_RELEASE);
    if (out != nullptr) *out = record.handle;
    sem_post(&record.job);
    return 0;
  }
  return -1;
}

int vorn_thread_pool_destroy() {
  using namespace vorn::thread;
  if (pool_size.load() == 0) return 0;
  stopping.store(true);
  const int first = post_all();
  vorn_msleep(kStopMilliseconds);
  const int second = post_all();
  VORN_LOG(vorn::kInfo, "TBA:res1 %d, res2 %d.", first, second);
  return second;
}
