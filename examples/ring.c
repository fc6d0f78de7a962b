/* Passes requests through a ring: two producers make requests, one consumer handles them.
 *
 *   ./ring                           prints what the consumer got
 *
 * The ring itself never waits. The threads wait on two semaphores: one counts the free slots, so
 * that no producer finds the ring full, and one counts the requests in the ring. A producer ends
 * with a NULL, the end marker, which the consumer takes after all requests of that producer. */
/* SPDX-License-Identifier: Apache-2.0 */
#include <stdio.h>

#include <vorn_init.h>
#include <vorn_log.h>
#include <vorn_mem.h>
#include <vorn_ring.h>
#include <vorn_sem_enhance.h>
#include <vorn_thrd.h>

enum { kModule = 900, kProducers = 2, kRequests = 10000, kSlots = 256 };

struct request {
  unsigned int producer;
  unsigned int number; /* from 1 */
};

static vorn_ring_s *ring;
static vorn_sem_enhance_s places;   /* free slots of the ring */
static vorn_sem_enhance_s requests; /* entries of the ring, including end markers */
static vorn_sem_enhance_s ended;    /* producers that have ended */

/* The caller holds a unit of places, so the ring is not full and the enqueue succeeds. */
static void pass_on(struct request *request) {
  vorn_sem_enhance_down(&places);
  vorn_ring_enqueue(ring, request);
  vorn_sem_enhance_up(&requests);
}

static void *produce(void *argument) {
  const unsigned int producer = (unsigned int)(uintptr_t)argument;
  vorn_thrd_setname("producer_%u", producer);
  for (unsigned int number = 1; number <= kRequests; ++number) {
    struct request *request = vorn_malloc(kModule, sizeof *request);
    if (request == NULL) break;
    *request = (struct request){producer, number};
    pass_on(request); /* the consumer now owns it */
  }
  pass_on(NULL);
  vorn_sem_enhance_up(&ended);
  return NULL;
}

/* Returns the number of requests that arrived in their producer's order. */
static unsigned int consume(unsigned int producers) {
  unsigned int latest[kProducers] = {0};
  unsigned int ordered = 0;
  while (producers > 0) {
    struct request *request = NULL;
    vorn_sem_enhance_down(&requests);
    vorn_ring_dequeue(ring, (void **)&request);
    vorn_sem_enhance_up(&places);
    if (request == NULL) {
      --producers;
      continue;
    }
    if (request->number == ++latest[request->producer]) ++ordered;
    vorn_free(request);
  }
  return ordered;
}

static int run(void) {
  vorn_sem_enhance_init(&places, kSlots - 1); /* a ring holds one pointer less than it has slots */
  vorn_sem_enhance_init(&requests, 0);
  vorn_sem_enhance_init(&ended, 0);
  ring = vorn_ring_create(kSlots, VORN_RING_SINGLE_CONSUMER);
  if (ring == NULL) return -1;
  unsigned int producers = 0;
  while (producers < kProducers &&
         vorn_thrd_create(produce, (void *)(uintptr_t)producers, NULL) == 0)
    ++producers;
  const unsigned int ordered = consume(producers);
  for (unsigned int i = 0; i < producers; ++i)
    vorn_sem_enhance_down(&ended); /* a producer may still be enqueueing its marker */
  vorn_ring_delete(&ring);
  printf("%u requests of %u producers came in order\n", ordered, producers);
  return ordered == kProducers * kRequests ? 0 : -1;
}

int main(void) {
  if (vorn_log_init("ring", ".") != 0 || vorn_Init() != 0) {
    fputs("ring: the library does not start\n", stderr);
    return 1;
  }
  const int result = run();
  vorn_destory();
  vorn_log_destroy((uintptr_t)0);
  return result == 0 ? 0 : 1;
}
