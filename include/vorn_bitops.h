/* Bitmaps, bit updates, population counts and byte order.
 *
 * A bitmap is an array of 64-bit words on a little-endian machine: bit n is bit n mod 8 of byte n
 * / 8. Its size is a count of bits, and it need only be as long as the bytes that its size covers:
 * nothing is ever read beyond them. Every function may be called from any thread and in a signal
 * handler, and never blocks. */
#ifndef VORN_BITOPS_H
#define VORN_BITOPS_H

#include "vorn_api.h"

VORN_BEGIN_DECLS

/* The next word of a bitmap of which nbits remain at p: all of it from 64 on, else the bytes that
 * nbits covers, with the bits from nbits on 0. 0 bits or a NULL p give 0. */
VORN_API uint64_t vorn_bitop_read_u64(const void *p, uint64_t nbits);

/* The lowest set, or clear, bit of the bitmap of size bits at addr; size when there is none or addr
 * is NULL. */
VORN_API uint64_t find_first_bit(const void *addr, uint64_t size);
VORN_API uint64_t find_first_zero_bit(const void *addr, uint64_t size);

/* The same among the bits from offset on. An offset not below size gives size, nothing is read. */
VORN_API uint64_t find_next_bit(const void *addr, uint64_t size, uint64_t offset);
VORN_API uint64_t vorn_find_next_zero_bit(const void *addr, uint64_t size, uint64_t offset);

/* 1 with the lowest set (clear) bit below nbits in *out, else 0 with *out untouched. A NULL addr or
 * out gives 0; so does a negative nbits, silently. */
VORN_API int vorn_bitop_findfirstsetbit(const void *addr, uint32_t nbits, uint32_t *out);
VORN_API int vorn_bitop_findfirstclrbit(const void *addr, uint32_t nbits, uint32_t *out);
VORN_API int vorn_bitop_findnextsetbit(const void *addr, int32_t nbits, uint32_t start,
                                       uint32_t *out);

/* Atomic updates of bit nr in the bytes at addr. They are no lock: no other access is ordered by
 * them, so whoever publishes data through a bit adds the barriers. addr is not tested.
 * vorn_clear_bit returns the mask 1 << (nr mod 8) that it cleared, the test functions the bit's old
 * value, 0 or 1. */
VORN_API void vorn_set_bit(uint32_t nr, void *addr);
VORN_API int vorn_clear_bit(uint32_t nr, void *addr);
VORN_API int vorn_test_and_set_bit(uint32_t nr, void *addr);
VORN_API int vorn_test_and_clear_bit(uint32_t nr, void *addr);

/* The number of set bits. */
VORN_API uint32_t vorn_hweight32(uint32_t x);
VORN_API uint32_t vorn_hweight64(uint64_t x);

/* Byte order, from and to the processor's own, which is little-endian. */
VORN_API uint16_t vorn_endian_cputolittle16(uint16_t x);
VORN_API uint32_t vorn_endian_cputolittle32(uint32_t x);
VORN_API uint64_t vorn_endian_cputolittle64(uint64_t x);
VORN_API uint16_t vorn_endian_littletocpu16(uint16_t x);
VORN_API uint32_t vorn_endian_littletocpu32(uint32_t x);
VORN_API uint64_t vorn_endian_littletocpu64(uint64_t x);
VORN_API uint16_t vorn_endian_cputobig16(uint16_t x);
VORN_API uint32_t vorn_endian_cputobig32(uint32_t x);
VORN_API uint64_t vorn_endian_cputobig64(uint64_t x);
VORN_API uint16_t vorn_endian_bigtocpu16(uint16_t x);
VORN_API uint32_t vorn_endian_bigtocpu32(uint32_t x);
VORN_API uint64_t vorn_endian_bigtocpu64(uint64_t x);

VORN_END_DECLS

#endif
