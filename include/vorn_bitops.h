/* Bitmaps, bit updates, population counts and byte order.
 *
 * A bitmap is an array of 64-bit words on a little-endian machine: bit n is bit n mod 8 of byte
 * n / 8. Its size is a count of bits. It may start at any byte, and it need only be as long as the
 * (size + 7) / 8 bytes that its size covers: nothing is ever read beyond them, and bits of the last
 * byte behind the size never count.
 *
 * Every function may be called from any thread and in a signal handler, and never blocks, fails or
 * logs. Searches and bit updates of one bitmap may run at the same time: a search sees each bit
 * either as it was before an update or as it is after, and orders no other access. The searches and
 * updates have the semantics of the Linux kernel's functions of like names, but for what is said
 * here. No function here is a cancellation point. */
#ifndef VORN_BITOPS_H
#define VORN_BITOPS_H

#include "vorn_api.h"

VORN_BEGIN_DECLS

/* The next word of a bitmap of which nbits remain at p: all 64 bits of it from 64 on, else those of
 * the (nbits + 7) / 8 bytes there, with the bits from nbits on 0. 0 when nbits is 0 or p is NULL.
 */
VORN_API uint64_t vorn_bitop_read_u64(const void *p, uint64_t nbits);

/* The number of the lowest set, or clear, bit of the bitmap of size bits at addr; size when there
 * is none or addr is NULL. */
VORN_API uint64_t find_first_bit(const void *addr, uint64_t size);
VORN_API uint64_t find_first_zero_bit(const void *addr, uint64_t size);

/* The same among the bits from offset on. With an offset not below size the result is size, and
 * nothing is read. */
VORN_API uint64_t find_next_bit(const void *addr, uint64_t size, uint64_t offset);
VORN_API uint64_t vorn_find_next_zero_bit(const void *addr, uint64_t size, uint64_t offset);

/* The lowest set (clear) bit below nbits; for the third function, from start on. Returns 1 with its
 * number in *out, or 0 with *out untouched when there is none or addr or out is NULL. In a negative
 * nbits there is none. */
VORN_API int vorn_bitop_findfirstsetbit(const void *addr, uint32_t nbits, uint32_t *out);
VORN_API int vorn_bitop_findfirstclrbit(const void *addr, uint32_t nbits, uint32_t *out);
VORN_API int vorn_bitop_findnextsetbit(const void *addr, int32_t nbits, uint32_t start,
                                       uint32_t *out);

/* Atomic updates of bit nr of the bitmap at addr, each of the one byte that holds it. They are no
 * lock: no other access is ordered by them, so whoever publishes data through a bit adds the
 * barriers. addr must not be NULL. vorn_clear_bit returns the mask 1 << (nr mod 8) of the bit,
 * whatever it was before; the test functions return the bit's value before the update, 0 or 1. */
VORN_API void vorn_set_bit(uint32_t nr, void *addr);
VORN_API int vorn_clear_bit(uint32_t nr, void *addr);
VORN_API int vorn_test_and_set_bit(uint32_t nr, void *addr);
VORN_API int vorn_test_and_clear_bit(uint32_t nr, void *addr);

/* The number of set bits, 0 to 32 and 0 to 64. */
VORN_API uint32_t vorn_hweight32(uint32_t x);
VORN_API uint32_t vorn_hweight64(uint64_t x);

/* Byte order, from and to the processor's own, which is little-endian: the little functions return
 * x, the big ones return it with its bytes reversed. */
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
