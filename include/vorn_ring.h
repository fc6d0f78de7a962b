/* A lock-free queue of pointers, first in first out, with a fixed size.
 *
 * The flags of vorn_ring_create choose for each end whether it is for one thread or for many. Any
 * number of threads may use an end for many at the same time. Only one thread at a time may use an
 * end for one: threads that share it must synchronise. The two ends never exclude each other.
 *
 * Capacity: a ring of count slots holds count - 1 objects, because one slot always stays empty.
 *
 * Order: the objects of one call stay together and in order, and the objects that one thread
 * enqueues leave in the order in which it enqueued them. The thread that dequeues a pointer sees
 * everything that the thread that enqueued it wrote before. No operation is a full barrier: a
 * thread that stores a flag and then finds the ring empty must make a barrier between the two, if
 * the thread that enqueues tests the flag.
 *
 * Blocking: no operation allocates, locks or makes a system call, except for the yield below. On a
 * full or an empty ring an operation does not wait, but returns a result that says so. On an end
 * for many, a call reserves its slots, copies, and then publishes, and the calls publish in the
 * order of their reservations: a call waits for the calls that reserved before it. It spins, and
 * yields the processor (vorn_yield) every few microseconds. A call that could reserve, but finds
 * such reservations before its own, first waits for one of them to be published, but not longer
 * than until the first yield: threads that take turns on a CPU would otherwise wait for each other
 * again and again. A thread that is descheduled between the two steps delays the later calls at its
 * end for that time, and the other end sees the ring as full (empty) sooner. A thread that dies
 * between the two steps (killed, cancelled, left by a longjmp) never publishes: the calls that
 * reserve after it at its end wait forever, the other end never gets its slots or any slots after
 * them, and the ring cannot be repaired.
 *
 * Signals: a handler must not use an end that the interrupted thread is using. At an end for many
 * it would wait forever for the thread that it interrupted; at an end for one it would destroy the
 * order. A handler may use an end only if no thread uses that end.
 *
 * Cancellation: vorn_yield is not a cancellation point, so only asynchronous cancellation can end a
 * thread in these functions.
 *
 * Cost: an operation on n objects takes time proportional to n, in addition to any wait; a query
 * takes constant time. A ring takes 512 + 8 * count bytes from malloc(3). */
/* SPDX-License-Identifier: Apache-2.0 */
#ifndef VORN_RING_H
#define VORN_RING_H

#include "vorn_api.h"

VORN_BEGIN_DECLS

/* A flag of vorn_ring_create: only one thread at a time enqueues. Unknown bits are stored and
 * ignored. */
#define VORN_RING_SINGLE_PRODUCER 1u

/* A flag of vorn_ring_create: only one thread at a time dequeues. */
#define VORN_RING_SINGLE_CONSUMER 2u

/* A flag of vorn_ring_create that, alone, means both of the flags above. */
#define VORN_RING_SINGLE 4u

/* A ring must have fewer slots than this. */
#define VORN_RING_MAX_COUNT 0x10000000u

/* A bit in the result of vorn_ring_enqueue_burst: the ring is filled beyond its watermark. */
#define VORN_RING_QUOTA_EXCEEDED 0x80000000u

/* Alignment to a cache line, so that the two ends do not share one. */
#define VORN_RING_LINE __attribute__((aligned(128)))

/* One end of a ring. Its counters wrap at 2^32; a counter AND mask is the index of a slot. */
typedef struct vorn_ring_end {
  uint32_t single;        /* the flag of an end for one thread; 0 for an end for many */
  uint32_t size;          /* size of the ring in slots */
  uint32_t mask;          /* size - 1 */
  volatile uint32_t head; /* this end has reserved the slots before it */
  volatile uint32_t tail; /* and has published the slots before this one */
  volatile uint32_t seen; /* a tail of the other end that a thread of this end has read */
} vorn_ring_end_s;

/* A ring; its slots follow, each a pointer. Only vorn_ring_create creates a ring, and only the
 * operations below change it. */
typedef struct vorn_ring {
  VORN_RING_LINE uint32_t flags;           /* as passed, with 4 replaced by 3 */
  VORN_RING_LINE uint32_t watermark;       /* enqueues compare with it; equal to size */
  vorn_ring_end_s producer;                /* the end where objects enter */
  VORN_RING_LINE vorn_ring_end_s consumer; /* the end where they leave */
  VORN_RING_LINE uint32_t spare_size;      /* size again; this and the next two are not used */
  uint32_t spare_mask;                     /* mask again */
  uint32_t spare[2];                       /* 0 */
} vorn_ring_s;

/* Creates an empty ring of count slots, a power of two below VORN_RING_MAX_COUNT. A ring of one
 * slot holds no objects.
 *   count: number of slots, a power of two
 *   flags: VORN_RING_* combined, 0 for many threads at both ends
 * Returns the ring, which the caller deletes with vorn_ring_delete. Logs an error and returns NULL
 * for another count; returns NULL without a log message if memory runs out. Any thread; not
 * signal-safe. */
VORN_API vorn_ring_s *vorn_ring_create(uint32_t count, uint32_t flags);

/* Frees *ring, unless it is NULL, and sets it to NULL. No thread may be using the ring. Does not
 * free the objects in the ring: the caller owns them and must dequeue them before this call. Any
 * thread; not signal-safe.
 *   ring: variable that holds the ring */
VORN_API void vorn_ring_delete(vorn_ring_s **ring);

/* Returns 1 if the ring is full; otherwise, 0. This and the other queries use what both ends have
 * published, not what they have reserved. While other threads use the ring, the result may be out
 * of date, and a query that reads both ends may read them at different moments. If ring is NULL,
 * all queries log an error and return 0xFFFFFFFF. Any thread, never waits.
 *   ring: the ring */
VORN_API uint32_t vorn_ring_full(const vorn_ring_s *ring);

/* Returns 1 if the ring is empty; otherwise, 0.
 *   ring: the ring */
VORN_API uint32_t vorn_ring_empty(const vorn_ring_s *ring);

/* Returns the number of objects in the ring.
 *   ring: the ring */
VORN_API uint32_t vorn_ring_count(const vorn_ring_s *ring);

/* Returns the number of slots: one more than the number of objects that the ring can hold.
 *   ring: the ring */
VORN_API uint32_t vorn_ring_size(const vorn_ring_s *ring);

/* Returns the number of objects that can still be enqueued.
 *   ring: the ring */
VORN_API uint32_t vorn_ring_free_count(const vorn_ring_s *ring);

/* Enqueues as many of the n objects at objs as fit, from the first on.
 *   ring: the ring
 *   objs: objects to enqueue
 *   n: number of objects
 * Returns the number of enqueued objects; 0 if the ring is full. Adds VORN_RING_QUOTA_EXCEEDED if
 * the number of objects in the ring plus one, for the slot that stays empty, is then above the
 * watermark; this never happens with the watermark that vorn_ring_create sets. Logs nothing. The
 * ring must not be NULL, which is not checked. */
VORN_API uint32_t vorn_ring_enqueue_burst(vorn_ring_s *ring, void *const *objs, uint32_t n);

/* Enqueues all of the n objects at objs, or none.
 *   ring: the ring
 *   objs: objects to enqueue
 *   n: number of objects
 * Returns 0, also if n is 0. If fewer than n slots are free, enqueues nothing and returns -105
 * (ENOBUFS). If all are enqueued and the ring is then filled beyond its watermark, the result is
 * -122 (EDQUOT). Logs nothing. The ring must not be NULL, which is not checked. */
VORN_API int vorn_ring_enqueue_bulk(vorn_ring_s *ring, void *const *objs, uint32_t n);

/* Enqueues one object, which may be NULL.
 *   ring: the ring
 *   obj: object to enqueue
 * Returns what the bulk operation with one object returns; logs an error and returns -1 if ring is
 * NULL. */
VORN_API int vorn_ring_enqueue(vorn_ring_s *ring, void *obj);

/* Dequeues at most n objects into objs, the oldest first.
 *   ring: the ring
 *   objs: where the objects go
 *   n: number of objects
 * Returns the number of objects; 0 if the ring is empty. Logs nothing. The ring must not be NULL,
 * which is not checked. */
VORN_API uint32_t vorn_ring_dequeue_burst(vorn_ring_s *ring, void **objs, uint32_t n);

/* Dequeues exactly n objects into objs, the oldest first, or none.
 *   ring: the ring
 *   objs: where the objects go
 *   n: number of objects
 * Returns 0, also if n is 0. If the ring has fewer than n objects, dequeues nothing, leaves objs
 * unchanged and returns -2 (ENOENT). Logs nothing. The ring must not be NULL, which is not
 * checked. */
VORN_API int vorn_ring_dequeue_bulk(vorn_ring_s *ring, void **objs, uint32_t n);

/* Dequeues the oldest object into *obj.
 *   ring: the ring
 *   obj: where the object goes
 * Returns what the bulk operation with one object returns; logs an error and returns -1 if ring is
 * NULL. */
VORN_API int vorn_ring_dequeue(vorn_ring_s *ring, void **obj);

VORN_END_DECLS

#endif
