// Runs the steps of a thread before and after its entry.
// SPDX-License-Identifier: Apache-2.0
#define VORN_FILE "vorn_thrd.c"
#include <csignal>
#include <cstring>

#include "base/log.hpp"
#include "base/thread_id.hpp"
#include "thread/vorn_thrd.hpp"

namespace vorn::thread {
namespace {

void vorn_thrd_setosstack(vorn_thread_s &record) {
  pthread_attr_t attributes;
  int result = pthread_getattr_np(pthread_self(), &attributes);
  if (result != 0) {
    VORN_LOG(kInfo, "Get thread attr ret:%d.", result);
    return;
  }
  void *base = nullptr;
  std::size_t size = 0;
  std::size_t guard = 0;
  pthread_attr_getguardsize(&attributes, &guard);
  result = pthread_attr_getstack(&attributes, &base, &size);
  pthread_attr_destroy(&attributes);
  if (result != 0) {
    VORN_LOG(kInfo, "Get os stack ret:%d.", result);
    return;
  }
  record.os_stack_low = reinterpret_cast<unsigned long>(base) + guard;
  record.os_stack_high = reinterpret_cast<unsigned long>(base) + size;
}

stack_t signal_stack(const vorn_thread_s &record, int flags) {
  stack_t stack{};
  stack.ss_sp = record.sig_stack;
  stack.ss_flags = flags;
  stack.ss_size = VORN_THRD_SIGSTACK_SIZE;
  return stack;
}

void vorn_thrd_setsigstack(const vorn_thread_s &record) {
  std::memset(record.sig_stack, 0, VORN_THRD_SIGSTACK_SIZE);
  const stack_t stack = signal_stack(record, SS_ONSTACK);
  if (sigaltstack(&stack, nullptr) != 0)
    VORN_LOG(kWarning, "Set thrd tid:%d sigaltstack fail.", static_cast<int>(record.tid));
}

void vorn_thrd_unsetsigstack(const vorn_thread_s &record) {
  const stack_t stack = signal_stack(record, SS_DISABLE);
  if (sigaltstack(&stack, nullptr) != 0)
    VORN_LOG(kWarning, "Disable signal stack failed, thrd tid:%d, errno:%d.",
             static_cast<int>(record.tid), errno);
}

void run(vorn_thread_s *record) {
  set_state(*record, kRunning);
  record->entry(record->argument);
  // If the entry has cleared the thread record itself, the thread has left already.
  if (t_record == record) leave(record);
}

} // namespace

void enter(vorn_thread_s *record) {
  // Set the id first, so that a signal handler that sees the thread record finds the id in it.
  set_tid(*record, thread_id());
  t_record = record;
  watch_end(record);
  vorn_thrd_setosstack(*record);
  vorn_thrd_setsigstack(*record);
}

void leave(vorn_thread_s *record) {
  set_state(*record, kExited);
  vorn_thrd_unsetsigstack(*record);
  t_record = nullptr;
  vorn_thrd_putthreadinfo(record);
}

void *start_plain(void *argument) {
  auto *record = static_cast<vorn_thread_s *>(argument);
  enter(record);
  run(record);
  return nullptr;
}

void *start_raw(void *argument) {
  auto *record = static_cast<vorn_thread_s *>(argument);
  enter(record);
  vorn_setCurThreadStrategy(VORN_THRD_STRATEGY_DEFAULT);
  run(record);
  return nullptr;
}

} // namespace vorn::thread
