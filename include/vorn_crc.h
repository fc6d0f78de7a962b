/* Checksums: CRC-32C (Castagnoli, RFC 3720 appendix B.4) and CRC-16/T10-DIF (SCSI Block Commands,
 * the guard of a protected sector). Any thread and any signal handler may call these functions.
 * None blocks or keeps state of a checksum between two calls. No function here is a cancellation
 * point. */
/* SPDX-License-Identifier: Apache-2.0 */
#ifndef VORN_CRC_H
#define VORN_CRC_H

#include "vorn_api.h"

VORN_BEGIN_DECLS

/* Does nothing: the library looks for the processor's instructions when it is loaded. Services may
 * call this function before their first checksum; vorn_Init calls it too. */
VORN_API void vorn_crc32_init(void);

/* Continues the checksum register crc over length bytes at data, without inversion before or after.
 *   crc: register before the data
 *   data: the data
 *   length: bytes of the data
 * Returns the register; crc unchanged if data is NULL or length is 0 or is 2 GiB or more. */
VORN_API uint32_t vorn_crc32cContinue(uint32_t crc, const void *data, uint32_t length);

/* Continues the register crc as vorn_crc32cContinue does: with special instructions if the
 * processor has them, otherwise by table. On x86-64 the library looks for SSE4.2 and PCLMULQDQ, and
 * for long inputs for AVX2, VPCLMULQDQ, AVX-512 and GFNI, when it is loaded; on AArch64 it looks
 * for EOR3 (SHA3), because every processor that it supports has CRC32 and PMULL. data is not
 * checked.
 *   crc: register before the data
 *   data: the data
 *   length: bytes of the data
 * Returns the register; crc unchanged if length is 2 GiB or more, on every processor. */
VORN_API uint32_t vorn_crc32cContinueHard(uint32_t crc, const void *data, uint32_t length);

/* Continues the CRC-32C register crc by table, for any length. data is not checked.
 *   crc: register before the data
 *   data: the data
 *   length: bytes of the data
 * Returns the register; crc unchanged if length is 0. */
VORN_API uint32_t vorn_crc32cContinueSoft(uint32_t crc, const void *data, uint32_t length);

/* Continues the register crc over src, as vorn_crc32cContinueHard does, while it copies src to dst.
 * The two must not overlap, and neither is checked.
 *   crc: register before the data
 *   dst: where the copy goes
 *   length: bytes of the data
 *   src: the data
 * Returns the register; if length is 2 GiB or more, copies nothing and returns crc. */
VORN_API uint32_t vorn_crc32cContinue_with_cpy(uint32_t crc, void *dst, uint32_t length,
                                               const void *src);

/* Begins a checksum over several buffers, without the final inversion.
 *   data: the data
 *   length: bytes of the data
 * Returns the register after the first buffer; 0xFFFFFFFF if data is NULL or length is 0 or is 2
 * GiB or more. */
VORN_API uint32_t vorn_crc32cStart(const void *data, uint32_t length);

/* Ends a checksum over several buffers.
 *   crc: register after the last buffer
 * Returns the complement of crc. */
VORN_API uint32_t vorn_crc32cEnd(uint32_t crc);

/* Returns the CRC-32C of length bytes at data: 0xE3069283 for the nine bytes "123456789". The
 * result is 0, the checksum of no data, if data is NULL or length is 0 or is 2 GiB or more.
 *   data: the data
 *   length: bytes of the data */
VORN_API uint32_t vorn_crc32c(const void *data, uint32_t length);

/* Returns the CRC-32C of length bytes at data, computed by table, for any length; 0 if data is NULL
 * or length is 0.
 *   data: the data
 *   length: bytes of the data */
VORN_API uint32_t vorn_crc32c_soft(const void *data, uint32_t length);

/* Continues the CRC-16/T10-DIF register crc over length bytes at data.
 *   crc: register before the data
 *   data: the data
 *   length: bytes of the data
 * Returns the register; crc unchanged if data is NULL or length is 0. With crc 0, the nine bytes
 * "123456789" give 0xD0DB. */
VORN_API uint16_t vorn_crc16(uint16_t crc, const void *data, uint64_t length);

/* Continues the register crc as vorn_crc16 does, which calls this function: by carry-less
 * multiplication if the processor has it, otherwise by table. data is not checked.
 *   crc: register before the data
 *   data: the data
 *   length: bytes of the data
 * Returns the register. */
VORN_API uint16_t crc16_t10dif(uint16_t crc, const void *data, uint64_t length);

/* Continues the CRC-16/T10-DIF register crc by table. data is not checked.
 *   crc: register before the data
 *   data: the data
 *   length: bytes of the data
 * Returns the register; crc unchanged if length is 0. */
VORN_API uint16_t vorn_crc16_soft(uint16_t crc, const void *data, uint64_t length);

VORN_END_DECLS

#endif
