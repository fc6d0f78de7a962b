// The dump of a stack: its frames as a table, and its words. Everything here is for signal
// handlers: no allocation, no lock, no read through a pointer that the kernel has not found
// readable.
#ifndef VORN_DUMP_STACK_HPP
#define VORN_DUMP_STACK_HPP

#include <cstdint>
#include <sys/types.h>

#include "base/frame_walk.hpp"

namespace vorn::thread {

// The dump of one thread, by that thread.
struct StackDump {
  pid_t tid;
  std::uintptr_t stack_pointer;
  std::uintptr_t frame_pointer;
  std::uintptr_t called_from; // where a jump to nowhere returns to, which no frame has; else 0
  bool with_words;            // for a fatal signal
};

// Where the calling thread's own stacks are is read from its record: not where that is unreadable.
bool record_is_readable();

// The frames from the one at the frame pointer out, within the stack. Those named start_thread and
// main are outermost.
void vorn_dump_stack_ext(const StackDump &dump, const StackBounds &stack);

// What a signal interrupted: which stack it is, its frames and its words.
void vorn_thread_dump_sync_stack(const StackDump &dump);

// Four words a line, from 1024 bytes below the stack pointer on, 16384 bytes at most.
void vorn_thread_dump_full_stack(pid_t tid, std::uintptr_t stack_pointer, const StackBounds &stack);

} // namespace vorn::thread

#endif
