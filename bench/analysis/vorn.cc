// Calls the library's checksums, ring and locks for the analysis.
// SPDX-License-Identifier: Apache-2.0
#include <cstdint>

#include "rows.hpp"
#include "vorn_crc.h"
#include "vorn_ring.h"
#include "vorn_rwlock.h"
#include "vorn_spinlock.h"
#include "vorn_ticketlock.h"
#include "vorn_trwlock.h"

namespace {

alignas(64) std::uint8_t data[65536];
std::uint32_t crc32c;
std::uint16_t crc16;

vorn_ring_s *single;
vorn_ring_s *many;
void *object;
int result;

vorn_spinlock_s spin = VORN_SPINLOCK_INIT;
vorn_tspinlock_s ticket = VORN_TSPINLOCK_INIT;
vorn_rwlock_s rw = VORN_RWLOCK_INIT;
vorn_trwlock_s trw = VORN_TRWLOCK_INIT;

} // namespace

extern "C" {

void row_crc32c_512() { crc32c = vorn_crc32cContinue(crc32c, data, 512); }
void row_crc32c_4096() { crc32c = vorn_crc32cContinue(crc32c, data, 4096); }
void row_crc32c_65536() { crc32c = vorn_crc32cContinue(crc32c, data, 65536); }

void row_crc16_512() { crc16 = vorn_crc16(crc16, data, 512); }
void row_crc16_4096() { crc16 = vorn_crc16(crc16, data, 4096); }
void row_crc16_65536() { crc16 = vorn_crc16(crc16, data, 65536); }

void row_single_enqueue() { result = vorn_ring_enqueue(single, object); }
void row_single_dequeue() { result = vorn_ring_dequeue(single, &object); }
void row_many_enqueue() { result = vorn_ring_enqueue(many, object); }
void row_many_dequeue() { result = vorn_ring_dequeue(many, &object); }

void row_spin() {
  vorn_spinlock_lock(&spin);
  vorn_spinlock_unlock(&spin);
}

void row_ticket() {
  vorn_tspinlock_lock(&ticket);
  vorn_tspinlock_unlock(&ticket);
}

void row_rw_read() {
  vorn_rwlock_read_lock(&rw);
  vorn_rwlock_read_unlock(&rw);
}

void row_rw_write() {
  vorn_rwlock_write_lock(&rw);
  vorn_rwlock_write_unlock(&rw);
}

void row_fair_read() {
  vorn_trwlock_read_lock(&trw);
  vorn_trwlock_read_unlock(&trw);
}

void row_fair_write() {
  vorn_trwlock_write_lock(&trw);
  vorn_trwlock_write_unlock(&trw);
}
}

int main() {
  single = vorn_ring_create(1024, VORN_RING_SINGLE);
  many = vorn_ring_create(1024, 0);
  if (single == nullptr || many == nullptr) return 1;
  run({row_crc32c_512, row_crc32c_4096, row_crc32c_65536});
  run({row_crc16_512, row_crc16_4096, row_crc16_65536});
  run({row_single_enqueue, row_single_dequeue, row_many_enqueue, row_many_dequeue});
  run({row_spin, row_ticket, row_rw_read, row_rw_write, row_fair_read, row_fair_write});
  vorn_ring_delete(&single);
  vorn_ring_delete(&many);
}
