// Selects the checksum routines of the processor and exports them.
// SPDX-License-Identifier: Apache-2.0
#include "vorn_crc.h"

#include <atomic>

#include "crc/routines.hpp"

namespace vorn::crc {
namespace {

using Continue = std::uint32_t (*)(std::uint32_t crc, const void *data, std::uint32_t length);

constexpr std::uint32_t kStart = 0xFFFFFFFF;

std::uint32_t continue_first(std::uint32_t crc, const void *data, std::uint32_t length);

// The routine of vorn_crc32cContinue. Never null, so that the checksums work before, and without,
// the start of the library.
constinit std::atomic<Continue> dispatch{continue_first};

void choose() { dispatch.store(vorn_crc32cContinueHard, std::memory_order_relaxed); }

std::uint32_t continue_first(std::uint32_t crc, const void *data, std::uint32_t length) {
  choose();
  return vorn_crc32cContinueHard(crc, data, length);
}

// The length of the hard routines is signed: 2 GiB and more is negative and counts as no bytes.
bool is_negative(std::uint32_t length) { return static_cast<std::int32_t>(length) < 0; }

} // namespace
} // namespace vorn::crc

using namespace vorn::crc;

void vorn_crc32_init() { choose(); }

uint32_t vorn_crc32cContinue(uint32_t crc, const void *data, uint32_t length) {
  if (data == nullptr || length == 0) [[unlikely]]
    return crc;
  return dispatch.load(std::memory_order_relaxed)(crc, data, length);
}

uint32_t vorn_crc32cContinueHard(uint32_t crc, const void *data, uint32_t length) {
  if (is_negative(length)) [[unlikely]]
    return crc;
  return vorn::crc::crc32c(vorn::arch::crc_probe, crc, data, length);
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
  return crc16_t10dif(crc, data, length);
}

uint16_t crc16_t10dif(uint16_t crc, const void *data, uint64_t length) {
  return vorn::crc::crc16(vorn::arch::crc_probe, crc, data, length);
}

uint16_t vorn_crc16_soft(uint16_t crc, const void *data, uint64_t length) {
  return crc16_by_table(crc, data, length);
}
