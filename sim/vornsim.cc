// Finds the operation of a request, saves its arguments, and answers with a rule or by itself.
// SPDX-License-Identifier: Apache-2.0
#include "vornsim.h"

#include <atomic>
#include <cstdlib>
#include <iterator>
#include <pthread.h>

#include "answers.hpp"
#include "console.hpp"
#include "rules.hpp"
#include "vorn_syscall.h"

namespace vornsim {
namespace {

// The state of an operation. A call writes the arguments one by one, so a reader may see arguments
// of two calls.
struct Operation {
  unsigned int code;
  Answer *answer;
  std::atomic<unsigned long> count{0};
  std::atomic<unsigned long> arguments[4] = {};
  std::atomic<Rule> rule{};
};
static_assert(std::atomic<Rule>::is_always_lock_free, "signal handlers make requests");

constinit Operation operations[] = {
    {VORN_SYSCALL_RESET_LOCAL_BOARD, reset_board},
    {VORN_SYSCALL_REBOOT, reboot},
    {VORN_SYSCALL_REBOOT_COUNT, read_reboot_count},
    {VORN_SYSCALL_PANIC, panic},
    {VORN_SYSCALL_LOCAL_TIME, local_time},
    {VORN_SYSCALL_LOCAL_TIME_FROM_UTC, local_time_from_utc},
    {VORN_SYSCALL_TIME, utc_time},
    {VORN_SYSCALL_DST_FROM_UTC, dst_from_utc},
    {VORN_SYSCALL_DST_TIME, dst_time},
    {VORN_SYSCALL_START_AGETTY_QUERY, start_login_query},
    {VORN_SYSCALL_STOP_AGETTY_QUERY, stop_login_query},
    {VORN_SYSCALL_TTY_PRINT_ON, printing_on},
    {VORN_SYSCALL_TTY_PRINT_OFF, printing_off},
    {VORN_SYSCALL_CPUFREQ_LOW_ALL, lowest_frequency},
    {VORN_SYSCALL_CPUFREQ_HIGH_ALL, highest_frequency},
    {VORN_SYSCALL_CPUFREQ_UP, frequency_up},
    {VORN_SYSCALL_CPUFREQ_DOWN, frequency_down},
    {VORN_SYSCALL_CPUFREQ_GET, read_frequency},
    {VORN_SYSCALL_GET_IDLE_NO_CSTATES, read_idle},
    {VORN_SYSCALL_SET_IDLE_NO_CSTATES, write_idle},
    {VORN_SYSCALL_CPU_TASK_INFO, cpu_task_info},
    {VORN_SYSCALL_FREE_MEM, free_memory},
    {VORN_SYSCALL_MEM_STAT, memory_table},
    {VORN_SYSCALL_MEM_STAT_DUMP, dump_memory},
    {VORN_SYSCALL_DUMP_THREAD_STACK, thread_stack},
    {VORN_SYSCALL_THREAD_STATUS, thread_status},
    {VORN_SYSCALL_DUMP_CPU_STACK_KERNEL, cpu_stack},
    {VORN_SYSCALL_DUMP_CPU_STACK, cpu_stack},
    {VORN_SYSCALL_DUMP_STACK_IF_NOT_RUNNING, stack_if_not_running},
    {VORN_SYSCALL_WAIT, wait_for_word},
};

Operation *find(unsigned long code) {
  for (Operation &operation : operations) {
    if (operation.code == code) return &operation;
  }
  return nullptr;
}

Operation *find_command(unsigned long command) {
  return command >> 32 == VORN_MODULE_ID ? find(command & 0xFFFFFFFF) : nullptr;
}

// Returns the number of this call of the operation, counted from 1.
unsigned long note(Operation &operation, const Arguments &arguments) {
  for (std::size_t i = 0; i < std::size(arguments); ++i)
    operation.arguments[i] = arguments[i];
  return ++operation.count;
}

long answer(Operation &operation, const Arguments &arguments) {
  const unsigned long number = note(operation, arguments);
  const Rule rule = operation.rule.load();
  if (!rule.applies_to(number)) return operation.answer(arguments);
  return rule.kind == Rule::kError ? refuse(rule.value) : rule.value;
}

bool set_rule(unsigned int code, const Rule &rule) {
  Operation *operation = find(code);
  if (operation == nullptr) return false;
  operation->rule = rule;
  return true;
}

// Sets a rule for the nth call from now on, or for every call.
int set_rule_from_now(unsigned int code, unsigned int nth, Rule rule) {
  const Operation *operation = find(code);
  if (operation == nullptr) return -1;
  const unsigned long call = nth == 0 ? 0 : operation->count + nth;
  if (call > Rule::kMaxCall) return -1;
  rule.call = static_cast<std::uint32_t>(call) & Rule::kMaxCall;
  return set_rule(code, rule) ? 0 : -1;
}

[[gnu::constructor]] void read_environment() {
  if (const char *text = std::getenv("VORNSIM_ANSWER")) parse_rules(text, set_rule);
}

} // namespace
} // namespace vornsim

// An answer may open files and print. The library promises that a request is no cancellation point.
VORN_API long vorn_private_syscall(unsigned long command, unsigned long a1, unsigned long a2,
                                   unsigned long a3, unsigned long a4) {
  vornsim::Operation *operation = vornsim::find_command(command);
  if (operation == nullptr) return vornsim::refuse(ENOSYS);
  int before = PTHREAD_CANCEL_ENABLE;
  pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &before);
  const vornsim::Arguments arguments = {a1, a2, a3, a4};
  const long result = vornsim::answer(*operation, arguments);
  pthread_setcancelstate(before, nullptr);
  return result;
}

unsigned long vornsim_count(unsigned int operation) {
  const vornsim::Operation *known = vornsim::find(operation);
  return known == nullptr ? 0 : known->count.load();
}

int vornsim_last_call(unsigned int operation, vornsim_call_s *call) {
  const vornsim::Operation *known = vornsim::find(operation);
  if (known == nullptr || call == nullptr || known->count == 0) return -1;
  for (std::size_t i = 0; i < std::size(call->arguments); ++i)
    call->arguments[i] = known->arguments[i];
  return 0;
}

int vornsim_fail(unsigned int operation, int error) {
  return vornsim_fail_call(operation, 0, error);
}

int vornsim_fail_call(unsigned int operation, unsigned int nth, int error) {
  using vornsim::Rule;
  const Rule rule = {error, error == 0 ? Rule::kNone : Rule::kError, 0};
  return vornsim::set_rule_from_now(operation, nth, rule);
}

int vornsim_answer_call(unsigned int operation, unsigned int nth, int answer) {
  return vornsim::set_rule_from_now(operation, nth, {answer, vornsim::Rule::kAnswer, 0});
}

void vornsim_reset(void) {
  for (vornsim::Operation &operation : vornsim::operations) {
    operation.rule = vornsim::Rule{};
    operation.count = 0;
  }
  vornsim::set_reboot_count(0);
  vornsim::shift_clock(0);
  vornsim::set_printing(true);
  vornsim::reset_cpus();
}

void vornsim_set_reboot_count(uint32_t count) { vornsim::set_reboot_count(count); }

void vornsim_shift_clock(int64_t seconds) { vornsim::shift_clock(seconds); }

int vornsim_set_cpu_task_info(const void *record, size_t size) {
  if (size > VORNSIM_CPU_TASK_INFO_MAX || (record == nullptr && size != 0)) return -1;
  vornsim::set_cpu_task_info(record, size);
  return 0;
}
