// Declares the dump of a stack: its frames as a table, and its words. Everything is safe in a
// signal handler: no allocation, no lock, and no read through a pointer that the kernel has not
// tested.
// SPDX-License-Identifier: Apache-2.0
#ifndef VORN_DUMP_STACK_HPP
#define VORN_DUMP_STACK_HPP

#include <cstdint>
#include <sys/types.h>

#include "base/frame_walk.hpp"

namespace vorn::thread {

// What to dump of the calling thread.
struct StackDump {
  pid_t tid;
  std::uintptr_t stack_pointer;
  std::uintptr_t frame_pointer;
  // The return address of a jump to a bad address, which is in no frame; 0 if there was no such
  // jump.
  std::uintptr_t called_from;
  bool with_words; // for a fatal signal
};

// Reads the bounds of the calling thread's stacks from its thread record, if that is readable.
bool record_is_readable();

// Writes the frames from the frame pointer outwards, within the stack. A frame of start_thread or
// main is the outermost.
void vorn_dump_stack_ext(const StackDump &dump, const StackBounds &stack);

// Writes what a signal interrupted: the kind of the stack, its frames and its words.
void vorn_thread_dump_sync_stack(const StackDump &dump);

// Writes at most 16384 bytes, four words a line, from 1024 bytes below the stack pointer.
void vorn_thread_dump_full_stack(pid_t tid, std::uintptr_t stack_pointer, const StackBounds &stack);

} // namespace vorn::thread

#endif
