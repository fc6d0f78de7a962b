// Declares the answer of the stand-in to each operation. An answer is the result of the request: -1
// with errno for a failure.
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNSIM_ANSWERS_HPP
#define VORNSIM_ANSWERS_HPP

#include <cerrno>

namespace vornsim {

using Arguments = unsigned long[4];
using Answer = long(const Arguments &arguments);

template <class T> T *pointer(unsigned long word) { return reinterpret_cast<T *>(word); }

inline long refuse(int error) {
  errno = error;
  return -1;
}

// board.cc
Answer reset_board, reboot, read_reboot_count, panic;
void set_reboot_count(unsigned int count);

// clock.cc
Answer local_time, local_time_from_utc, utc_time, dst_from_utc, dst_time;
void shift_clock(long seconds);

// console.cc
Answer start_login_query, stop_login_query, printing_on, printing_off;

// cpus.cc
Answer lowest_frequency, highest_frequency, frequency_up, frequency_down, read_frequency;
Answer read_idle, write_idle, cpu_task_info;
void set_cpu_task_info(const void *record, unsigned long size);
void reset_cpus();

// memory.cc
Answer free_memory, memory_table, dump_memory;

// threads.cc
Answer thread_status, thread_stack, stack_if_not_running, cpu_stack;

// wait.cc
Answer wait_for_word;

} // namespace vornsim

#endif
