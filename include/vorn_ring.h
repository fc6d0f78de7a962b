/* A queue of pointers, first in first out, of a fixed size and without locks.
 *
 * Each end is for one thread or for many, as the flags of vorn_ring_create say. An end for many may
 * be used by any number of threads at once. An end for one is used by one thread at a time: threads
 * that take turns at it order their turns themselves. The two ends never exclude each other.
 *
 * Capacity: a ring of count slots holds count - 1 objects, since one slot always stays empty.
 *
 * Order: the objects of one call stay together and in order, and those that one thread enqueues
 * leave in the order in which they were enqueued. What a thread wrote before it enqueued a pointer
 * is seen by the thread that dequeues that pointer.
 *
 * Blocking: no operation allocates, locks or makes a system call, and a full or an empty ring is a
 * result, not a wait. But on an end for many a call reserves its slots, copies, and then publishes,
 * and publications keep the order of the reservations: a call waits for those that reserved before
 * it. It spins, and yields the processor (vorn_yield) after each 0x8000000 tests. A thread that is
 * descheduled between the two steps stalls those after it at its end for that time, and the other
 * end sees the ring as full (empty) sooner. A thread that dies there (killed, cancelled, left by a
 * longjmp) never publishes: those that reserve after it at its end wait forever, its slots and all
 * after them are lost to the other end, and the ring cannot be repaired.
 *
 * Signals: a handler that uses an end which the interrupted thread is using is wrong. At an end for
 * many it waits forever for the thread that it interrupted, at an end for one it destroys the
 * order. Nothing here is to be called by a handler, unless it alone uses its end.
 *
 * Cancellation: vorn_yield is no cancellation point, so that only asynchronous cancellation can end
 * a thread in here.
 *
 * Cost: an operation of n objects takes time proportional to n, besides what it waits; a query
 * takes constant time. A ring is 512 + 8 * count bytes of this process, from the standard
 * allocator. */
/* SPDX-License-Identifier: Apache-2.0 */
#ifndef VORN_RING_H
#define VORN_RING_H

#include "vorn_api.h"

VORN_BEGIN_DECLS

/* A flag of vorn_ring_create: one thread at a time enqueues. Other bits are kept and ignored. */
#define VORN_RING_SINGLE_PRODUCER 1u

/* A flag of vorn_ring_create: one thread at a time dequeues. */
#define VORN_RING_SINGLE_CONSUMER 2u

/* Alone, taken as both of the flags above. */
#define VORN_RING_SINGLE 4u

/* A ring is made of fewer slots than this. */
#define VORN_RING_MAX_COUNT 0x10000000u

/* In the result of vorn_ring_enqueue_burst: the ring is filled beyond its watermark. */
#define VORN_RING_QUOTA_EXCEEDED 0x80000000u

/* What starts a line of its own, so that the two ends do not share one. */
#define VORN_RING_LINE __attribute__((aligned(128)))

/* One end of a ring. Its counters run freely modulo 2^32; a counter AND mask is the index of the
 * slot. */
typedef struct vorn_ring_end {
  uint32_t single;        /* the flag of an end for one thread, 0 of an end for many */
  uint32_t size;          /* of the ring, in slots */
  uint32_t mask;          /* size - 1 */
  volatile uint32_t head; /* the slots before it are reserved at this end */
  volatile uint32_t tail; /* and those before this are published to the other */
} vorn_ring_end_s;

/* A ring; its size slots follow, each a pointer. Made by vorn_ring_create only, and for the
 * operations below to change. */
typedef struct vorn_ring {
  VORN_RING_LINE uint32_t flags;           /* as given, with 4 replaced by 3 */
  VORN_RING_LINE uint32_t watermark;       /* what enqueues compare with; size */
  vorn_ring_end_s producer;                /* where objects enter */
  VORN_RING_LINE vorn_ring_end_s consumer; /* where they leave */
  VORN_RING_LINE uint32_t spare_size;      /* size once more; not read, as those below */
  uint32_t spare_mask;                     /* mask once more */
  uint32_t spare[2];                       /* 0 */
} vorn_ring_s;

/* Makes an empty ring of count slots, a power of two below VORN_RING_MAX_COUNT. A ring of one slot
 * holds nothing.
 *   count: number of slots, a power of two
 *   flags: VORN_RING_* combined, 0 for many threads at both ends
 * Returns the ring, which the caller deletes; NULL after an error message for another count, NULL
 * without one when memory ran out. Any thread; not signal-safe. */
VORN_API vorn_ring_s *vorn_ring_create(uint32_t count, uint32_t flags);

/* Frees *ring, when it is not NULL, and sets it to NULL. No thread may be using the ring. The
 * objects that are left in it are forgotten: they belong to the caller, which dequeues them first.
 * Any thread; not signal-safe.
 *   ring: variable that holds the ring */
VORN_API void vorn_ring_delete(vorn_ring_s **ring);

/* Returns whether not one more object can be enqueued: 1 or 0. As the other queries, it looks at
 * what both ends have published, not at what is reserved; while others use the ring the answer may
 * be out of date, and where a query reads both ends they may stem from different moments. All of
 * them return 0xFFFFFFFF for a NULL ring, after an error message. Any thread, never waits.
 *   ring: the ring */
VORN_API uint32_t vorn_ring_full(const vorn_ring_s *ring);

/* Returns whether no object is in the ring: 1 or 0.
 *   ring: the ring */
VORN_API uint32_t vorn_ring_empty(const vorn_ring_s *ring);

/* Returns the number of objects in the ring.
 *   ring: the ring */
VORN_API uint32_t vorn_ring_count(const vorn_ring_s *ring);

/* Returns the number of slots: one more than the ring holds.
 *   ring: the ring */
VORN_API uint32_t vorn_ring_size(const vorn_ring_s *ring);

/* Returns the number of objects that can still be enqueued.
 *   ring: the ring */
VORN_API uint32_t vorn_ring_free_count(const vorn_ring_s *ring);

/* Enqueues the first of the n objects at objs, as many as fit.
 *   ring: the ring
 *   objs: objects to enqueue
 *   n: number of objects
 * Returns the number of objects, 0 when the ring is full. VORN_RING_QUOTA_EXCEEDED is added to it
 * when the objects that are then in the ring, and the slot that stays empty, are more than the
 * watermark: never in a ring as vorn_ring_create makes it. No log message is written. The ring must
 * not be NULL: that is not tested. */
VORN_API uint32_t vorn_ring_enqueue_burst(vorn_ring_s *ring, void *const *objs, uint32_t n);

/* Enqueues all of the n objects at objs, or none.
 *   ring: the ring
 *   objs: objects to enqueue
 *   n: number of objects
 * Returns 0, also for an n of 0; -105 (ENOBUFS) when fewer than n slots are free, nothing is
 * enqueued then; -122 (EDQUOT) when all are enqueued and, as above, are more than the watermark. No
 * log message is written. The ring must not be NULL: that is not tested. */
VORN_API int vorn_ring_enqueue_bulk(vorn_ring_s *ring, void *const *objs, uint32_t n);

/* Enqueues one object, which may be NULL.
 *   ring: the ring
 *   obj: object to enqueue
 * Returns what a bulk of one returns; logs an error and returns -1 for a NULL ring. */
VORN_API int vorn_ring_enqueue(vorn_ring_s *ring, void *obj);

/* Dequeues the oldest objects into objs, n at most.
 *   ring: the ring
 *   objs: where the objects go
 *   n: number of objects
 * Returns the number of objects, 0 when the ring is empty. No log message is written. The ring must
 * not be NULL: that is not tested. */
VORN_API uint32_t vorn_ring_dequeue_burst(vorn_ring_s *ring, void **objs, uint32_t n);

/* Dequeues the oldest n objects into objs, or none.
 *   ring: the ring
 *   objs: where the objects go
 *   n: number of objects
 * Returns 0, also for an n of 0; -2 (ENOENT) when fewer than n are in the ring, nothing is dequeued
 * and objs not written then. No log message is written. The ring must not be NULL: that is not
 * tested. */
VORN_API int vorn_ring_dequeue_bulk(vorn_ring_s *ring, void **objs, uint32_t n);

/* Dequeues the oldest object into *obj.
 *   ring: the ring
 *   obj: where the object goes
 * Returns what a bulk of one returns; logs an error and returns -1 for a NULL ring. */
VORN_API int vorn_ring_dequeue(vorn_ring_s *ring, void **obj);

VORN_END_DECLS

#endif
