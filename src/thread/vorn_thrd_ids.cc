// Returns the ids of the process and of the calling thread, and the context that it runs in.
// SPDX-License-Identifier: Apache-2.0
#define VORN_FILE "vorn_thrd.c"
#include <sched.h>
#include <unistd.h>

#include "base/fork_gate.hpp"
#include "base/thread_id.hpp"
#include "thread/vorn_thrd.hpp"

namespace vorn::thread {
namespace {

constexpr pthread_t kNoThread = static_cast<pthread_t>(-1);

// Threads read and write each as a whole. All threads get the one handle in cached_thread.
constinit std::atomic<pid_t> cached_pid{0};
constinit std::atomic<pthread_t> cached_thread{kNoThread};

thread_local constinit int t_core __attribute__((tls_model("initial-exec"))) = -1;
thread_local constinit int t_numa_node __attribute__((tls_model("initial-exec"))) = -1;

void forget_in_child() {
  cached_pid.store(0, std::memory_order_relaxed);
  cached_thread.store(kNoThread, std::memory_order_relaxed);
}

const ForkChild forget{forget_in_child};

bool in_context(std::uint32_t context) {
  return t_record != nullptr && t_record->context == context;
}

} // namespace
} // namespace vorn::thread

using namespace vorn::thread;

long vorn_thread_get_knl_tid() {
  return t_record != nullptr ? static_cast<long>(t_record->tid) : vorn::thread_id();
}

void vorn_thrd_setpid_accl(pid_t pid) { cached_pid.store(pid, std::memory_order_relaxed); }

pid_t vorn_thrd_getpid_accl() {
  pid_t pid = cached_pid.load(std::memory_order_relaxed);
  if (pid > 0) return pid;
  pid = getpid();
  cached_pid.store(pid, std::memory_order_relaxed);
  return pid;
}

void vorn_thrd_settid_accl(pthread_t thread) {
  cached_thread.store(thread, std::memory_order_relaxed);
}

pthread_t vorn_thrd_gettid_accl() {
  pthread_t thread = cached_thread.load(std::memory_order_relaxed);
  if (thread != kNoThread) return thread;
  thread = pthread_self();
  cached_thread.store(thread, std::memory_order_relaxed);
  return thread;
}

void vorn_thrd_yield() { sched_yield(); }

int smp_processor_id() {
  const int core = t_core;
  return core >= 0 ? core : sched_getcpu();
}

void vorn_thrd_core_set(int core) { t_core = core; }

void vorn_thrd_numaId_set(int node) { t_numa_node = node; }

int vorn_thrd_numaId_get() { return t_numa_node; }

void vorn_thread_run_in_iod_context_init(unsigned int id) {
  if (t_record == nullptr) return;
  t_record->context = VORN_THRD_CONTEXT_IOD;
  t_record->iod_thread_id = id;
}

int vorn_thread_run_in_iod_context_check() { return in_context(VORN_THRD_CONTEXT_IOD) ? 1 : 0; }

unsigned int vorn_thread_iod_thread_id_get() {
  return t_record != nullptr ? t_record->iod_thread_id : 0;
}

void vorn_thread_run_in_irq_context_save(unsigned int *saved) {
  if (t_record == nullptr || saved == nullptr) return;
  *saved = t_record->context;
  t_record->context = VORN_THRD_CONTEXT_IRQ;
}

void vorn_thread_run_in_irq_context_restore(unsigned int saved) {
  if (t_record != nullptr) t_record->context = saved;
}

int vorn_thread_run_in_irq_context_check() { return in_context(VORN_THRD_CONTEXT_IRQ) ? 1 : 0; }
