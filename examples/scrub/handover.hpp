// Hands pointers from one thread to another, in order: a ring of the library, and the waiting of
// whoever takes from it.
#ifndef SCRUB_HANDOVER_HPP
#define SCRUB_HANDOVER_HPP

#include <algorithm>
#include <new>
#include <stop_token>

#include "vorn_ring.h"
#include "vorn_sched.h"

namespace scrub {

// Waits for longer and longer: first gives the processor away, then sleeps.
class Patience {
public:
  void wait() {
    if (yields_ != 0) {
      --yields_;
      vorn_yield();
      return;
    }
    vorn_usleep(sleep_);
    sleep_ = std::min(2 * sleep_, kLongestSleep);
  }

private:
  static constexpr unsigned int kLongestSleep = 1000; // microseconds

  unsigned int yields_ = 4;
  unsigned int sleep_ = 100;
};

// One thread puts and one takes.
template <class T> class Handover {
public:
  // For so many pointers at most, one less than a power of two.
  explicit Handover(unsigned int capacity)
      : ring_(vorn_ring_create(capacity + 1, VORN_RING_SINGLE)) {
    if (ring_ == nullptr) throw std::bad_alloc();
  }
  Handover(const Handover &) = delete;
  Handover &operator=(const Handover &) = delete;
  ~Handover() { vorn_ring_delete(&ring_); }

  // There must be room.
  void put(T &item) { vorn_ring_enqueue(ring_, &item); }

  // Waits for the next, NULL once it is told to stop.
  T *take(const std::stop_token &stop) {
    void *item = nullptr;
    Patience patience;
    while (vorn_ring_dequeue(ring_, &item) != 0) {
      if (stop.stop_requested()) return nullptr;
      patience.wait();
    }
    return static_cast<T *>(item);
  }

private:
  vorn_ring_s *ring_;
};

} // namespace scrub

#endif
