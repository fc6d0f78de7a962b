// Exports the checksum routines.
// SPDX-License-Identifier: Apache-2.0
#include "vorn_crc.h"

#include "crc/routines.hpp"

namespace vorn::crc {
namespace {

constexpr std::uint32_t kStart = 0xFFFFFFFF;

// The length of the hard routines is signed: 2 GiB and more is negative and counts as no bytes.
bool is_negative(std::uint32_t length) { return static_cast<std::int32_t>(length) < 0; }

std::uint32_t continue_hard(std::uint32_t crc, const void *data, std::uint32_t length) {
  if (is_negative(length)) [[unlikely]]
    return crc;
  return vorn::crc::crc32c(arch::crc_probe, crc, data, length);
}

} // namespace
} // namespace vorn::crc

using namespace vorn::crc;

// Nothing is left to choose: the processor is probed when the library is loaded.
void vorn_crc32_init() {}

uint32_t vorn_crc32cContinue(uint32_t crc, const void *data, uint32_t length) {
  if (data == nullptr || length == 0) [[unlikely]]
    return crc;
  return continue_hard(crc, data, length);
}

uint32_t vorn_crc32cContinueHard(uint32_t crc, const void *data, uint32_t length) {
  return continue_hard(crc, data, length);
}

uint32_t vorn_crc32cContinueSoft(uint32_t crc, const void *data, uint32_t length) {
  return crc32c_by_table(crc, data, length);
}

uint32_t vorn_crc32cContinue_with_cpy(uint32_t crc, void *dst, uint32_t length, const void *src) {
  if (is_negative(length)) [[unlikely]]
    return crc;
  return vorn::crc::crc32c_copy(vorn::arch::crc_probe, crc, dst, src, length);
}

uint32_t vorn_crc32cStart(const void *data, uint32_t length) {
  return vorn_crc32cContinue(kStart, data, length);
}

uint32_t vorn_crc32cEnd(uint32_t crc) { return ~crc; }

uint32_t vorn_crc32c(const void *data, uint32_t length) {
  return ~vorn_crc32cContinue(kStart, data, length);
}

uint32_t vorn_crc32c_soft(const void *data, uint32_t length) {
  if (data == nullptr || length == 0) return 0;
  return ~vorn_crc32cContinueSoft(kStart, data, length);
}

uint16_t vorn_crc16(uint16_t crc, const void *data, uint64_t length) {
  if (data == nullptr || length == 0) [[unlikely]]
    return crc;
  return vorn::crc::crc16(vorn::arch::crc_probe, crc, data, length);
}

uint16_t crc16_t10dif(uint16_t crc, const void *data, uint64_t length) {
  return vorn::crc::crc16(vorn::arch::crc_probe, crc, data, length);
}

uint16_t vorn_crc16_soft(uint16_t crc, const void *data, uint64_t length) {
  return crc16_by_table(crc, data, length);
}
