/* Checksums: CRC-32C (Castagnoli, RFC 3720 appendix B.4) and CRC-16/T10-DIF (SCSI Block Commands,
 * the guard of a protected sector). Every function may be called from any thread and in a signal
 * handler, and none blocks or keeps anything of a checksum between two calls. No function here is a
 * cancellation point. */
/* SPDX-License-Identifier: Apache-2.0 */
#ifndef VORN_CRC_H
#define VORN_CRC_H

#include "vorn_api.h"

VORN_BEGIN_DECLS

/* Makes vorn_crc32cContinueHard the routine that vorn_crc32cContinue calls, as the first checksum
 * does where this call has not been made: the checksums work before it. vorn_Init makes it. */
VORN_API void vorn_crc32_init(void);

/* Carries the register crc on over length bytes at data. There is no inversion, neither before nor
 * after.
 *   crc: register before the data
 *   data: the data
 *   length: bytes of the data
 * Returns the register; crc itself when data is NULL, or length is 0 or 2 GiB and more. */
VORN_API uint32_t vorn_crc32cContinue(uint32_t crc, const void *data, uint32_t length);

/* Carries the register crc on as vorn_crc32cContinue does, which calls this: by instructions where
 * the processor has them, else by table. On x86-64 SSE4.2 and PCLMULQDQ, and for long inputs AVX2
 * and VPCLMULQDQ, are looked for when the library is loaded; on AArch64 no test is made, since
 * every processor that the library runs on has CRC32 and PMULL. data is not tested.
 *   crc: register before the data
 *   data: the data
 *   length: bytes of the data
 * Returns the register; crc itself for a length of 2 GiB and more, on every path and processor. */
VORN_API uint32_t vorn_crc32cContinueHard(uint32_t crc, const void *data, uint32_t length);

/* Carries the register crc on by table, for any length. data is not tested.
 *   crc: register before the data
 *   data: the data
 *   length: bytes of the data
 * Returns the register; crc itself when length is 0. */
VORN_API uint32_t vorn_crc32cContinueSoft(uint32_t crc, const void *data, uint32_t length);

/* Carries the register crc on over src, as vorn_crc32cContinueHard does, while it copies src to
 * dst; the two must not overlap, and neither is tested.
 *   crc: register before the data
 *   dst: where the copy goes
 *   length: bytes of the data
 *   src: the data
 * Returns the register; for a length of 2 GiB and more it copies nothing and returns crc. */
VORN_API uint32_t vorn_crc32cContinue_with_cpy(uint32_t crc, void *dst, uint32_t length,
                                               const void *src);

/* Begins a checksum over several buffers, without the final inversion.
 *   data: the data
 *   length: bytes of the data
 * Returns the register after the first buffer; 0xFFFFFFFF when data is NULL or length is 0, or 2
 * GiB and more. */
VORN_API uint32_t vorn_crc32cStart(const void *data, uint32_t length);

/* Ends a checksum over several buffers.
 *   crc: register after the last buffer
 * Returns the complement of crc. */
VORN_API uint32_t vorn_crc32cEnd(uint32_t crc);

/* Returns the CRC-32C of length bytes at data: 0xE3069283 for the nine bytes "123456789". NULL data
 * or a length of 0, or of 2 GiB and more, gives 0, the checksum of nothing.
 *   data: the data
 *   length: bytes of the data */
VORN_API uint32_t vorn_crc32c(const void *data, uint32_t length);

/* Returns the CRC-32C of length bytes at data by table, for any length; 0 for NULL data or a length
 * of 0.
 *   data: the data
 *   length: bytes of the data */
VORN_API uint32_t vorn_crc32c_soft(const void *data, uint32_t length);

/* Carries the CRC-16/T10-DIF register crc (its low 16 bits) on over length bytes at data.
 *   crc: register before the data
 *   data: the data
 *   length: bytes of the data
 * Returns the register; crc itself when data is NULL or length is 0. 0xD0DB for crc 0 and the nine
 * bytes "123456789". */
VORN_API uint16_t vorn_crc16(uint16_t crc, const void *data, uint64_t length);

/* Carries the register crc on as vorn_crc16 does, which calls this: by carry-less multiplication
 * where the processor has it, else by table. data is not tested.
 *   crc: register before the data
 *   data: the data
 *   length: bytes of the data
 * Returns the register. */
VORN_API uint16_t crc16_t10dif(uint16_t crc, const void *data, uint64_t length);

/* Carries the register crc on by table. data is not tested.
 *   crc: register before the data
 *   data: the data
 *   length: bytes of the data
 * Returns the register; crc itself when length is 0. */
VORN_API uint16_t vorn_crc16_soft(uint16_t crc, const void *data, uint64_t length);

VORN_END_DECLS

#endif
