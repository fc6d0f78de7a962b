// Calls the ring and the locks of ck for the analysis.
// SPDX-License-Identifier: Apache-2.0
#include <ck_pflock.h>
#include <ck_rwlock.h>
#include <spinlock/cas.h>
#include <spinlock/fas.h>
#include <spinlock/ticket.h>

#define false 0 // its functions also return false as a pointer
#include <ck_ring.h>
#undef false

#include "rows.hpp"

namespace {

ck_ring_t ring;
ck_ring_t shared;
ck_ring_buffer_t buffer[1024];
ck_ring_buffer_t shared_buffer[1024];
void *object;
bool result;

ck_spinlock_fas_t spin = CK_SPINLOCK_FAS_INITIALIZER;
ck_spinlock_ticket_t ticket = CK_SPINLOCK_TICKET_INITIALIZER;
ck_rwlock_t rw = CK_RWLOCK_INITIALIZER;
ck_pflock_t fair = CK_PFLOCK_INITIALIZER;

} // namespace

extern "C" {

void row_single_enqueue() { result = ck_ring_enqueue_spsc(&ring, buffer, object); }
void row_single_dequeue() { result = ck_ring_dequeue_spsc(&ring, buffer, &object); }
void row_many_enqueue() { result = ck_ring_enqueue_mpmc(&shared, shared_buffer, object); }
void row_many_dequeue() { result = ck_ring_dequeue_mpmc(&shared, shared_buffer, &object); }

void row_spin() {
  ck_spinlock_fas_lock(&spin);
  ck_spinlock_fas_unlock(&spin);
}

void row_ticket() {
  ck_spinlock_ticket_lock(&ticket);
  ck_spinlock_ticket_unlock(&ticket);
}

void row_rw_read() {
  ck_rwlock_read_lock(&rw);
  ck_rwlock_read_unlock(&rw);
}

void row_rw_write() {
  ck_rwlock_write_lock(&rw);
  ck_rwlock_write_unlock(&rw);
}

void row_fair_read() {
  ck_pflock_read_lock(&fair);
  ck_pflock_read_unlock(&fair);
}

void row_fair_write() {
  ck_pflock_write_lock(&fair);
  ck_pflock_write_unlock(&fair);
}
}

int main() {
  ck_ring_init(&ring, 1024);
  ck_ring_init(&shared, 1024);
  run({row_single_enqueue, row_single_dequeue, row_many_enqueue, row_many_dequeue});
  run({row_spin, row_ticket, row_rw_read, row_rw_write, row_fair_read, row_fair_write});
}
