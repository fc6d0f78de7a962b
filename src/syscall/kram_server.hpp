// Declares how the server of private calls serves a connection.
// SPDX-License-Identifier: Apache-2.0
#ifndef VORN_SYSCALL_KRAM_SERVER_HPP
#define VORN_SYSCALL_KRAM_SERVER_HPP

#include <atomic>
#include <chrono>
#include <cstdint>

namespace vorn::kram {

// The activity of a connection: idle since some time, busy with a request, or evicted. Its thread
// makes it busy and idle. The thread that accepts connections evicts it, but only while it is idle:
// a request is carried out, or its connection is evicted, never both.
//
// It is one word. Both threads change it from idle by a compare-and-swap. A plain store makes it
// idle: no other thread changes it then. It publishes no other data, so relaxed order is enough.
class Activity {
public:
  void become_idle(); // at the beginning, and after a reply
  bool become_busy(); // at a request's first byte; false if evicted

  // The CLOCK_MONOTONIC time in nanoseconds since which it is idle; kNotIdle or more if it is not
  // idle.
  std::uint64_t idle_since() const { return word_.load(std::memory_order_relaxed); }
  static constexpr std::uint64_t kNotIdle = UINT64_MAX - 1;

  // Returns false unless it has been idle since then.
  bool evict(std::uint64_t idle_since);
  bool is_evicted() const { return idle_since() == kEvicted; }

private:
  static constexpr std::uint64_t kEvicted = kNotIdle;
  static constexpr std::uint64_t kBusy = UINT64_MAX;
  std::atomic<std::uint64_t> word_{kBusy};
};

// Answers the requests of a stream socket until its peer leaves, sends an invalid message, or takes
// longer than time_limit for a message, or until the connection is evicted. The caller closes the
// socket.
void serve(int socket, Activity &activity, std::chrono::milliseconds time_limit);

} // namespace vorn::kram

#endif
