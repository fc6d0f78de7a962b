// Hands pointers from one thread to another, in order: a ring of the library, and a semaphore that
// counts what is in it, on which whoever takes from it sleeps.
#ifndef SCRUB_HANDOVER_HPP
#define SCRUB_HANDOVER_HPP

#include <new>

#include "vorn_ring.h"
#include "vorn_sem_enhance.h"

namespace scrub {

// One thread puts and one takes.
template <class T> class Handover {
public:
  // For so many pointers at most, one less than a power of two.
  explicit Handover(unsigned int capacity)
      : ring_(vorn_ring_create(capacity + 1, VORN_RING_SINGLE)) {
    if (ring_ == nullptr) throw std::bad_alloc();
    vorn_sem_enhance_init(&held_, 0);
  }
  Handover(const Handover &) = delete;
  Handover &operator=(const Handover &) = delete;
  ~Handover() { vorn_ring_delete(&ring_); }

  // There must be room.
  void put(T &item) {
    vorn_ring_enqueue(ring_, &item);
    vorn_sem_enhance_up(&held_);
  }

  // Nothing is put any more: any thread may say so, once.
  void close() { vorn_sem_enhance_up(&held_); }

  // Waits for the next, NULL when it is closed and all was taken. Not to be called behind that.
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
