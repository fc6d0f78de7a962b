// Declares what the stand-in reads about threads from /proc. Nothing here allocates, because a
// fault handler may call it.
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNSIM_PROC_HPP
#define VORNSIM_PROC_HPP

#include <cstddef>

namespace vornsim {

struct ThreadState {
  int tid;
  char name[16];
  char state; // of proc(5): R while it runs or could
  int cpu;    // that it runs on, or ran on last
};

// The thread with kernel id tid, of this process or another. False when there is none.
bool find_thread(int tid, ThreadState *out);

// The thread of this process that the CPU runs: the caller, or the first that /proc has. False when
// there is none.
bool find_thread_on(int cpu, ThreadState *out);

// The begin of a thread's file in /proc as a text, without its last line feed; false where it
// cannot be read or is empty.
bool read_thread_file(int tid, const char *file, char *text, std::size_t size);

} // namespace vornsim

#endif
