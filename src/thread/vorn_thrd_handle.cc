// Implements the handles by which threads wait for the end of other threads' functions.
//
// The thread's function runs inside run_function, which stores the result and then ends the
// handle's word:
//
//   the thread                                a thread that waits
//   the function's effects, the result
//   word = kEnded (release)   ------------->  reads kEnded (acquire)
//   wakes the word                            reads the result
//
// The release store and the acquire load make everything that the thread did before visible to each
// thread that has waited. A cancellation or pthread_exit(3) unwinds the function's frames first,
// with their clean-up handlers, and then calls the handler of run_function, which ends the word the
// same way. No thread starts outside run_function and ends without it: only the function, and the
// threads that it tells its id, can cancel the thread. In a thread of the pool, a cancellation that
// is meant for an earlier job leaves the job, run_function with it, to another thread.
//
// The caller and the thread own one reference each. The thread gives back its reference after it
// has woken the word, so the word still exists then.
//
// fork() waits while a thread stores the result, so a child finds both or none. Of a thread that
// has not ended, the child has only the handle, unless the thread itself has called fork(). The
// handle's generation says so: every child begins a new one, to which it moves the handle of its
// only thread.
// SPDX-License-Identifier: Apache-2.0
#define VORN_FILE "vorn_thrd.c"
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <ctime>
#include <pthread.h>

#include "base/atomic_word.hpp"
#include "base/errno_guard.hpp"
#include "base/fork_gate.hpp"
#include "base/futex.hpp"
#include "base/log.hpp"
#include "base/timespec.hpp"
#include "mem/owned.hpp"
#include "thread/vorn_thrd.hpp"

namespace {

constexpr std::uint32_t kRuns = 0;
constexpr std::uint32_t kEnded = 1;

} // namespace

struct vorn_thrd_handle {
  vorn_thrd_entry_f entry = nullptr;
  void *argument = nullptr;
  void *result = nullptr;
  std::atomic<std::uint32_t> word{kRuns};
  std::atomic<std::uint32_t> references{2};
  std::uint32_t generation = 0; // of the process in which the thread exists
};

namespace vorn::thread {
namespace {

using Handle = vorn_thrd_handle_s;

constexpr std::uint64_t kNanosecondsPerMillisecond = 1000000;
constexpr int kForever = -1;

// The handle whose function the calling thread runs, or NULL.
thread_local constinit Handle *t_handle __attribute__((tls_model("initial-exec"))) = nullptr;

// Changes only in a child of fork() that has no other thread yet.
constinit std::uint32_t generation = 0;

const ForkChild begin_generation{[] {
  ++generation;
  if (t_handle != nullptr) t_handle->generation = generation;
}};

bool has_ended(const Handle &handle) {
  return handle.word.load(std::memory_order_acquire) == kEnded;
}

bool is_of_parent(const Handle &handle) { return handle.generation != generation; }

void drop(Handle *handle) {
  if (handle->references.fetch_sub(1, std::memory_order_acq_rel) == 1) mem::Release()(handle);
}

// The calling thread cannot be cancelled.
void end(Handle *handle, void *result) {
  t_handle = nullptr;
  enter_fork_gate();
  handle->result = result;
  handle->word.store(kEnded, std::memory_order_release);
  leave_fork_gate();
  const ErrnoGuard errno_stays;
  futex_wake_all(&handle->word);
  drop(handle);
}

void end_unwound(void *handle) { end(static_cast<Handle *>(handle), PTHREAD_CANCELED); }

// Makes the thread record name the function, as in a thread without a handle.
void show_function(const Handle &handle) {
  if (t_record == nullptr) return;
  t_record->argument = handle.argument;
  atomic_word(t_record->entry).store(handle.entry, std::memory_order_relaxed);
}

// The function may have set asynchronous cancellation, so the handler stays until a cancellation
// cannot act any more.
void *run_function(void *argument) {
  auto *handle = static_cast<Handle *>(argument);
  void *result = nullptr;
  int cancel_state = PTHREAD_CANCEL_ENABLE;
  t_handle = handle;
  show_function(*handle);
  pthread_cleanup_push(end_unwound, handle);
  result = handle->entry(handle->argument);
  pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &cancel_state);
  pthread_cleanup_pop(0);
  end(handle, result);
  pthread_setcancelstate(cancel_state, nullptr);
  return result;
}

// Returns 0 if the function has ended, ETIMEDOUT, or the errno of the system's refusal.
int wait_for_end(const Handle &handle, int timeout_ms) {
  timespec deadline{};
  if (timeout_ms > 0)
    deadline = monotonic_after(static_cast<std::uint64_t>(timeout_ms) * kNanosecondsPerMillisecond);
  const ErrnoGuard errno_stays;
  int error = timeout_ms == 0 ? ETIMEDOUT : EAGAIN;
  while (!has_ended(handle)) {
    if (error != 0 && error != EINTR && error != EAGAIN) return error;
    error = futex_wait(&handle.word, kRuns, timeout_ms == kForever ? nullptr : &deadline);
  }
  return 0;
}

} // namespace
} // namespace vorn::thread

using namespace vorn::thread;

int vorn_thrd_create_handle(vorn_thrd_entry_f entry, void *argument, vorn_thrd_handle_s **out) {
  if (entry == nullptr) return VORN_FAIL(-1, "Thread entry is null.");
  if (out == nullptr) return VORN_FAIL(-1, "Place for the thread's handle is null.");
  auto handle = vorn::mem::create<Handle>(); // logs a failure
  if (handle == nullptr) return -1;
  handle->entry = entry;
  handle->argument = argument;
  handle->generation = generation;
  if (vorn_thrd_create(run_function, handle.get(), nullptr) != 0) return -1;
  *out = handle.release();
  return 0;
}

int vorn_thrd_wait_handle(vorn_thrd_handle_s *handle, int timeout_ms, void **result) {
  if (handle == nullptr) return VORN_FAIL(-1, "Handle of the thread is null.");
  if (timeout_ms < kForever) return VORN_FAIL(-1, "Invalid time-out %d ms.", timeout_ms);
  if (handle == t_handle) return VORN_FAIL(-1, "A thread waits for its own end.");
  if (is_of_parent(*handle) && !has_ended(*handle))
    return VORN_FAIL(-1, "The thread exists only in the parent process.");
  const int error = wait_for_end(*handle, timeout_ms);
  if (error == ETIMEDOUT) return 1;
  if (error != 0) return VORN_FAIL(-1, "Wait for a thread failed, errno(%d).", error);
  if (result != nullptr) *result = handle->result;
  return 0;
}

void vorn_thrd_put_handle(vorn_thrd_handle_s *handle) {
  if (handle == nullptr) return;
  // The reference of a thread that exists only in the parent is never given back here.
  if (is_of_parent(*handle)) return vorn::mem::Release()(handle);
  drop(handle);
}
