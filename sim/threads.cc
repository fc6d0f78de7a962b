// Prints the state and the stacks of threads on the console, as far as /proc shows them.
// SPDX-License-Identifier: Apache-2.0
#include <climits>
#include <cstring>
#include <sys/syscall.h>
#include <unistd.h>

#include "answers.hpp"
#include "console.hpp"
#include "proc.hpp"
#include "vornsim.h"

namespace vornsim {
namespace {

// Prints where the thread sleeps, if it does, and its kernel stack, if the process may read that.
void print_stack(const ThreadState &thread) {
  print("vornsim: stack of thread %d (%s), state %c, CPU %d\n", thread.tid, thread.name,
        thread.state, thread.cpu);
  char text[2048];
  if (read_thread_file(thread.tid, "wchan", text, sizeof text) && std::strcmp(text, "0") != 0)
    print("vornsim:   sleeps in %s\n", text);
  if (read_thread_file(thread.tid, "syscall", text, sizeof text)) // "running" while it runs
    print("vornsim:   system call, its arguments, stack pointer, instruction: %s\n", text);
  if (!read_thread_file(thread.tid, "stack", text, sizeof text)) return;
  char *rest = nullptr;
  for (char *line = strtok_r(text, "\n", &rest); line != nullptr;
       line = strtok_r(nullptr, "\n", &rest))
    print("vornsim:   %s\n", line);
}

// Returns the thread that argument 1 of a request names; 0 names the caller.
bool asked_thread(const Arguments &arguments, ThreadState *out) {
  if (arguments[0] == 0) return find_thread(static_cast<int>(syscall(SYS_gettid)), out);
  return arguments[0] <= INT_MAX && find_thread(static_cast<int>(arguments[0]), out);
}

} // namespace

long thread_status(const Arguments &arguments) {
  const auto *tid = pointer<const unsigned int>(arguments[0]);
  if (tid == nullptr) return refuse(EFAULT);
  ThreadState thread;
  if (!find_thread(static_cast<int>(*tid), &thread)) return refuse(ESRCH);
  print("vornsim: thread %d (%s): state %c, CPU %d\n", thread.tid, thread.name, thread.state,
        thread.cpu);
  return 0;
}

long thread_stack(const Arguments &arguments) {
  ThreadState thread;
  if (!asked_thread(arguments, &thread)) return refuse(ESRCH);
  print_stack(thread);
  return 0;
}

long stack_if_not_running(const Arguments &arguments) {
  ThreadState thread;
  if (!asked_thread(arguments, &thread)) return refuse(ESRCH);
  if (thread.state == 'R') return refuse(EBUSY);
  print_stack(thread);
  return 0;
}

long cpu_stack(const Arguments &arguments) {
  if (arguments[0] >= VORNSIM_CPU_COUNT) return refuse(EINVAL);
  const int cpu = static_cast<int>(arguments[0]);
  ThreadState thread;
  if (find_thread_on(cpu, &thread))
    print_stack(thread);
  else
    print("vornsim: CPU %d runs no thread of this process\n", cpu);
  return 0;
}

} // namespace vornsim
