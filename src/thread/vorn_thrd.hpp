// What the sources of this module share: the table of threads, and the steps of a thread's life.
//
// A slot's count of references decides who may do what:
//
//   0  free         the thread that moves it from 0 to 1 owns the slot, and its record with it
//   1  a thread     the thread's own reference; it, or the one that starts it, writes the record
//   n  looked at    n - 1 others hold it: the record stays that thread's, also after its end
//
// A reference is taken by compare-and-swap that refuses 0, so a slot between two threads is never
// taken hold of; and because the record is cached in its slot forever, one that was seen is never
// freed. The state is written by the owner, but for the claim of an idle pool thread (4 to 8, by
// compare-and-swap). A thread that reads an alive state with acquire sees the record as its owner
// had filled it before the release store of that state.
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
  kIdle = 4,    // a pool thread that waits for a job
  kClaimed = 8, // a pool thread with a job
  kExited = 16,
};
inline constexpr std::uint32_t kAlive = kRunning | kIdle | kClaimed;

using Slot = vorn_thrd_slot;

extern thread_local constinit vorn_thread_s *t_record __attribute__((tls_model("initial-exec")));

std::span<Slot> slots();

// A reference to a slot; false when the slot is free.
class Reference {
public:
  explicit Reference(Slot &slot);
  Reference(const Reference &) = delete;
  Reference &operator=(const Reference &) = delete;
  ~Reference();

  explicit operator bool() const { return slot_ != nullptr; }
  bool alive() const { return (slot_->state.load(std::memory_order_acquire) & kAlive) != 0; }
  vorn_thread_s *record() const { return slot_->record.load(std::memory_order_acquire); }

  // Leaves the reference to the caller, which puts the record back.
  void release() { slot_ = nullptr; }

private:
  Slot *slot_;
};

// A record for a new thread, in a slot if there is a free one. NULL after an error message.
vorn_thread_s *take_record(vorn_thrd_entry_f entry, void *argument);

// Nothing for a record without a slot.
void set_state(const vorn_thread_s &record, State state);

void set_tid(vorn_thread_s &record, std::int64_t tid);

// The calling thread begins to be, and ceases to be, the one of this record: what comes before its
// first state and after its last. A thread that ends without leaving is made to leave.
void enter(vorn_thread_s *record);
void leave(vorn_thread_s *record);

// Has the end of the calling thread looked after. Part of entering.
void watch_end(vorn_thread_s *record);

// Start routines, whose argument is the record: of a thread as it is, and of one under strategy 0.
void *start_plain(void *record);
void *start_raw(void *record);

// Stack of a thread where the instant-map flag is set.
inline constexpr std::size_t kSmallStack = 131072;

// Starts a detached thread with this record, with default attributes where none are given. 0; -1
// after an error message in the name of function, of which log_failed writes what is told of
// pthread_create, and with the record put back.
int start_thread(vorn_thread_s *record, vorn_thrd_entry_f start_routine, pthread_t *out,
                 pthread_attr_t *given, const char *function, void (*log_failed)(int error));

// Sets the attribute. 0, or the error after a message in the name of function.
int set_small_stack(pthread_attr_t *attributes, const char *function, int level);

// The calling thread ends: false when it is none of the pool. One of the pool leaves, and another
// thread takes its place, and its job if that has not begun.
bool end_in_pool();

// The pool, in a child of fork(): there is none yet, and the calling thread is none of one.
void forget_pool();

// A name as two words, so that others can read it while its thread writes it.
struct Name {
  char text[VORN_THRD_NAME_SIZE];
};
void store_name(vorn_thread_s &record, const Name &name);
Name load_name(const vorn_thread_s &record);

} // namespace vorn::thread

#endif
