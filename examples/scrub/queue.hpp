// Passes pointers between threads, in order, through a ring of the library. A semaphore counts the
// pointers in the ring; a thread that takes one sleeps on it.
// SPDX-License-Identifier: Apache-2.0
#ifndef SCRUB_QUEUE_HPP
#define SCRUB_QUEUE_HPP

#include <new>

#include "interrupt.hpp"
#include "vorn_ring.h"
#include "vorn_sem_enhance.h"

namespace scrub {

// A semaphore whose wait ends when the run is interrupted.
class Semaphore {
public:
  Semaphore() { vorn_sem_enhance_init(&sem_, 0); }
  Semaphore(const Semaphore &) = delete;
  Semaphore &operator=(const Semaphore &) = delete;

  void up() { vorn_sem_enhance_up(&sem_); }
  void down() { vorn_sem_enhance_down(&sem_); }

  // Returns false, without a unit, if the run is interrupted.
  bool down_unless_interrupted() {
    constexpr int kInterval = 100; // milliseconds
    while (vorn_sem_enhance_down_timeout(&sem_, kInterval) != 0) {
      if (interrupted()) return false;
    }
    return true;
  }

private:
  vorn_sem_enhance_s sem_;
};

// Any thread may put and take.
template <class T> class Queue {
public:
  // least is the number of pointers that the queue has room for.
  explicit Queue(unsigned int least) : ring_(vorn_ring_create(slots(least), 0)) {
    if (ring_ == nullptr) throw std::bad_alloc();
  }
  Queue(const Queue &) = delete;
  Queue &operator=(const Queue &) = delete;
  ~Queue() { vorn_ring_delete(&ring_); }

  // The queue must have room.
  void put(T &item) {
    vorn_ring_enqueue(ring_, &item);
    held_.up();
  }

  // Makes one take() return NULL.
  void close() { held_.up(); }

  // Waits for the next pointer. Returns NULL if the queue is closed and empty.
  T *take() {
    held_.down();
    return next();
  }

  // Also returns NULL if the run is interrupted.
  T *take_unless_interrupted() { return held_.down_unless_interrupted() ? next() : nullptr; }

private:
  static unsigned int slots(unsigned int least) {
    unsigned int count = 2;
    while (count - 1 < least)
      count *= 2;
    return count;
  }

  T *next() {
    void *item = nullptr;
    vorn_ring_dequeue(ring_, &item);
    return static_cast<T *>(item);
  }

  vorn_ring_s *ring_;
  Semaphore held_;
};

} // namespace scrub

#endif
