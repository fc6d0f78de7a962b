/* Bitmaps, bit updates, population counts and byte order.
 *
 * A bitmap is an array of 64-bit words on a little-endian machine: bit n is bit n mod 8 of byte
 * n / 8. Its size is a number of bits. The bitmap may start at any byte and need only be
 * (size + 7) / 8 bytes long: no function reads beyond them, and the bits of the last byte beyond
 * size never count.
 *
 * Any thread and any signal handler may call these functions. None blocks, fails or logs. Searches
 * and bit updates of one bitmap may run concurrently: a search sees each bit either as it was
 * before an update or as it is after, and orders no other access. Except as described here, the
 * searches and updates behave as the Linux kernel's functions of similar names. No function here is
 * a cancellation point. */
/* SPDX-License-Identifier: Apache-2.0 */
#ifndef VORN_BITOPS_H
#define VORN_BITOPS_H

#include "vorn_api.h"

VORN_BEGIN_DECLS

/* Returns the next word of a bitmap with nbits bits left at p. If nbits is 64 or more, these are
 * all 64 bits; otherwise, the (nbits + 7) / 8 bytes at p, with the bits from nbits on cleared.
 * The result is 0 if nbits is 0 or p is NULL.
 *   p: next byte of the bitmap
 *   nbits: number of bits that remain */
VORN_API uint64_t vorn_bitop_read_u64(const void *p, uint64_t nbits);

/* Returns the number of the lowest set bit of the bitmap of size bits at addr; size if there is
 * none or addr is NULL.
 *   addr: first byte of the bitmap
 *   size: size of the bitmap in bits */
VORN_API uint64_t find_first_bit(const void *addr, uint64_t size);

/* Returns the number of the lowest clear bit of the bitmap of size bits at addr; size if there is
 * none or addr is NULL.
 *   addr: first byte of the bitmap
 *   size: size of the bitmap in bits */
VORN_API uint64_t find_first_zero_bit(const void *addr, uint64_t size);

/* Returns the number of the lowest set bit from offset on; size if there is none or addr is NULL.
 * If offset is size or more, reads nothing and returns size.
 *   addr: first byte of the bitmap
 *   size: size of the bitmap in bits
 *   offset: first bit that counts */
VORN_API uint64_t find_next_bit(const void *addr, uint64_t size, uint64_t offset);

/* Returns the number of the lowest clear bit from offset on; size if there is none or addr is NULL.
 * If offset is size or more, reads nothing and returns size.
 *   addr: first byte of the bitmap
 *   size: size of the bitmap in bits
 *   offset: first bit that counts */
VORN_API uint64_t vorn_find_next_zero_bit(const void *addr, uint64_t size, uint64_t offset);

/* Finds the lowest set bit below nbits.
 *   addr: first byte of the bitmap
 *   nbits: size of the bitmap in bits
 *   out: where the number of the bit goes
 * Returns 1 and stores the number of the bit in *out; returns 0 and leaves *out unchanged if there
 * is none or if addr or out is NULL. */
VORN_API int vorn_bitop_findfirstsetbit(const void *addr, uint32_t nbits, uint32_t *out);

/* Finds the lowest clear bit below nbits.
 *   addr: first byte of the bitmap
 *   nbits: size of the bitmap in bits
 *   out: where the number of the bit goes
 * Returns 1 and stores the number of the bit in *out; returns 0 and leaves *out unchanged if there
 * is none or if addr or out is NULL. */
VORN_API int vorn_bitop_findfirstclrbit(const void *addr, uint32_t nbits, uint32_t *out);

/* Finds the lowest set bit from start on and below nbits. Finds none if nbits is negative.
 *   addr: first byte of the bitmap
 *   nbits: size of the bitmap in bits
 *   start: first bit that counts
 *   out: where the number of the bit goes
 * Returns 1 and stores the number of the bit in *out; returns 0 and leaves *out unchanged if there
 * is none or if addr or out is NULL. */
VORN_API int vorn_bitop_findnextsetbit(const void *addr, int32_t nbits, uint32_t start,
                                       uint32_t *out);

/* Atomically sets bit nr of the bitmap at addr. Writes only the byte that holds the bit. The update
 * is not a lock: it orders no other access, so a thread that publishes data through a bit must add
 * barriers. addr must not be NULL.
 *   nr: number of the bit
 *   addr: first byte of the bitmap */
VORN_API void vorn_set_bit(uint32_t nr, void *addr);

/* Clears bit nr of the bitmap at addr, atomically as vorn_set_bit sets one.
 *   nr: number of the bit
 *   addr: first byte of the bitmap
 * Returns the mask 1 << (nr mod 8) of the bit, whatever it was before. */
VORN_API int vorn_clear_bit(uint32_t nr, void *addr);

/* Sets bit nr of the bitmap at addr, atomically as vorn_set_bit does.
 *   nr: number of the bit
 *   addr: first byte of the bitmap
 * Returns the bit's value before the update, 0 or 1. */
VORN_API int vorn_test_and_set_bit(uint32_t nr, void *addr);

/* Clears bit nr of the bitmap at addr, atomically as vorn_set_bit sets one.
 *   nr: number of the bit
 *   addr: first byte of the bitmap
 * Returns the bit's value before the update, 0 or 1. */
VORN_API int vorn_test_and_clear_bit(uint32_t nr, void *addr);

/* Returns the number of set bits, 0 to 32.
 *   x: value in which to count bits */
VORN_API uint32_t vorn_hweight32(uint32_t x);

/* Returns the number of set bits, 0 to 64.
 *   x: value in which to count bits */
VORN_API uint32_t vorn_hweight64(uint64_t x);

/* Convert a value from or to the processor's byte order, which is little-endian.
 *   x: value to convert
 * Returns x from the little functions, x with its bytes reversed from the big ones. */
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
