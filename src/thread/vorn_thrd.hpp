// Declares what the sources of the thread module share: the table of threads, and the steps of a
// thread's life.
//
// A slot's count of references decides which thread may access it:
//
//   0  free         a thread that changes it from 0 to 1 owns the slot and its thread record
//   1  used         the thread's own reference; it, or the thread that starts it, writes the thread
//                   record
//   n  referenced   n - 1 other threads refer to it: the thread record stays, even after the
//                   thread's end
//
// A thread takes a reference by a compare-and-swap that refuses 0, so none refers to a free slot. A
// slot keeps its thread record forever: only thread records without a slot are freed. The owner
// writes the state, except for the claim of an idle pool thread (4 to 8, by compare-and-swap). A
// thread that reads an alive state with acquire sees the thread record as its owner filled it
// before the release store of that state.
// SPDX-License-Identifier: Apache-2.0
#ifndef VORN_THRD_HPP
#define VORN_THRD_HPP

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <span>

#include "vorn_thrd.h"

struct vorn_thrd_slot {
  std::atomic<uint32_t> count{0};
  std::atomic<uint32_t> state{0};
  std::atomic<vorn_thread_s *> record{nullptr};
};

namespace vorn::thread {

enum State : std::uint32_t {
  kAllocated = 1, // a thread is being created
  kRunning = 2,
  kIdle = 4,    // a pool thread waits for a job
  kClaimed = 8, // a pool thread has a job
  kExited = 16,
};
inline constexpr std::uint32_t kAlive = kRunning | kIdle | kClaimed;

using Slot = vorn_thrd_slot;

extern thread_local constinit vorn_thread_s *t_record __attribute__((tls_model("initial-exec")));

std::span<Slot> slots();

// A reference to a slot; false if the slot is free.
class Reference {
public:
  explicit Reference(Slot &slot);
  Reference(const Reference &) = delete;
  Reference &operator=(const Reference &) = delete;
  ~Reference();

  explicit operator bool() const { return slot_ != nullptr; }
  bool alive() const { return (slot_->state.load(std::memory_order_acquire) & kAlive) != 0; }
  vorn_thread_s *record() const { return slot_->record.load(std::memory_order_acquire); }

  // Passes the reference to the caller, which gives it back.
  void release() { slot_ = nullptr; }

private:
  Slot *slot_;
};

// Returns a thread record for a new thread, in a slot if one is free. Logs an error and returns
// NULL if memory runs out.
vorn_thread_s *take_record(vorn_thrd_entry_f entry, void *argument);

// Does nothing for a thread record without a slot.
void set_state(const vorn_thread_s &record, State state);

void set_tid(vorn_thread_s &record, std::int64_t tid);

// Bind the calling thread to the thread record, before its first state, and unbind it, after its
// last. If a thread ends without leaving, the key's destructor unbinds it.
void enter(vorn_thread_s *record);
void leave(vorn_thread_s *record);

// Makes the end of the thread call the destructor. Part of entering.
void watch_end(vorn_thread_s *record);

// Start routines, whose argument is the thread record: without a strategy, and under strategy 0.
void *start_plain(void *record);
void *start_raw(void *record);

// The stack size of a thread if the instant-map flag is set.
inline constexpr std::size_t kSmallStack = 131072;

// Starts a detached thread with this thread record, and with default attributes if none are given.
// Returns 0. On failure, gives the thread record back, logs an error in the name of function, and
// returns -1; log_failed writes the message about pthread_create.
int start_thread(vorn_thread_s *record, vorn_thrd_entry_f start_routine, pthread_t *out,
                 pthread_attr_t *given, const char *function, void (*log_failed)(int error));

// Sets the attribute. Returns 0; on failure, logs the error in the name of function and returns it.
int set_small_stack(pthread_attr_t *attributes, const char *function, int level);

// Called at the end of the calling thread. Returns false if it is no thread of the pool. Otherwise
// another thread replaces it, and takes its job if that has not begun.
bool end_in_pool();

// Called in a child of fork(): there is no pool, and the calling thread belongs to none.
void forget_pool();

// Stores a name as two words, so that other threads can read it while its thread writes it.
struct Name {
  char text[VORN_THRD_NAME_SIZE];
};
void store_name(vorn_thread_s &record, const Name &name);
Name load_name(const vorn_thread_s &record);

} // namespace vorn::thread

#endif
