// Passes pointers from one thread to another, in order, through a ring of the library. A semaphore
// counts the pointers in the ring; the thread that takes them sleeps on it.
// SPDX-License-Identifier: Apache-2.0
#ifndef SCRUB_HANDOVER_HPP
#define SCRUB_HANDOVER_HPP

#include <new>

#include "vorn_ring.h"
#include "vorn_sem_enhance.h"

namespace scrub {

// One thread puts and one thread takes.
template <class T> class Handover {
public:
  // capacity is one less than a power of two.
  explicit Handover(unsigned int capacity)
      : ring_(vorn_ring_create(capacity + 1, VORN_RING_SINGLE)) {
    if (ring_ == nullptr) throw std::bad_alloc();
    vorn_sem_enhance_init(&held_, 0);
  }
  Handover(const Handover &) = delete;
  Handover &operator=(const Handover &) = delete;
  ~Handover() { vorn_ring_delete(&ring_); }

  // The ring must have room.
  void put(T &item) {
    vorn_ring_enqueue(ring_, &item);
    vorn_sem_enhance_up(&held_);
  }

  // Closes the ring for more pointers. Any thread may call this, once.
  void close() { vorn_sem_enhance_up(&held_); }

  // Waits for the next pointer. Returns NULL, after the last one, if the ring is closed; must not
  // be called after that.
  T *take() {
    vorn_sem_enhance_down(&held_);
    void *item = nullptr;
    vorn_ring_dequeue(ring_, &item);
    return static_cast<T *>(item);
  }

private:
  vorn_ring_s *ring_;
  vorn_sem_enhance_s held_;
};

} // namespace scrub

#endif
