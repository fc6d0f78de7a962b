// What the server does with a connection.
#ifndef VORN_SYSCALL_KRAM_SERVER_HPP
#define VORN_SYSCALL_KRAM_SERVER_HPP

#include <atomic>
#include <chrono>
#include <cstdint>

namespace vorn::kram {

// Whether a connection is idle, and since when, or busy with a request, or evicted. Its thread
// makes it busy and idle; the thread that accepts connections evicts it, but only while it is idle:
// a request is carried out or its connection is evicted, never both.
//
// All is in one word, whose changes the two threads agree on by compare and exchange. Neither reads
// anything else on the strength of it, so relaxed order is enough.
class Activity {
public:
  void become_idle(); // anew, and after a reply
  bool become_busy(); // at a request's first byte. False: it was evicted

  // A time of CLOCK_MONOTONIC in nanoseconds; kNotIdle or more where it is not idle.
  std::uint64_t idle_since() const { return word_.load(std::memory_order_relaxed); }
  static constexpr std::uint64_t kNotIdle = UINT64_MAX - 1;

  // False unless it is idle, and has been since then.
  bool evict(std::uint64_t idle_since);
  bool is_evicted() const { return idle_since() == kEvicted; }

private:
  static constexpr std::uint64_t kEvicted = kNotIdle;
  static constexpr std::uint64_t kBusy = UINT64_MAX;
  std::atomic<std::uint64_t> word_{kBusy};
};

// Answers the requests of a stream socket until its peer leaves, sends what does not fit, or takes
// longer than time_limit over a message, or until the connection is evicted. The socket stays the
// caller's to close.
void serve(int socket, Activity &activity, std::chrono::milliseconds time_limit);

} // namespace vorn::kram

#endif
