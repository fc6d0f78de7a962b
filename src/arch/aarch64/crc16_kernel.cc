// Compiles the CRC-16 loop for the PMULL instruction.
// SPDX-License-Identifier: Apache-2.0
#include "arch/aarch64/crc.hpp"

#include <arm_neon.h>

#include "arch/crc16_loop.hpp"

namespace vorn::arch {
namespace {

struct Vector16 {
  static constexpr std::size_t kBytes = 16;
  uint8x16_t value;

  static uint8x16_t product(poly64_t a, poly64_t b) {
    return vreinterpretq_u8_p128(vmull_p64(a, b));
  }
  poly64_t half(int index) const {
    const poly64x2_t halves = vreinterpretq_p64_u8(value);
    return index == 0 ? vgetq_lane_p64(halves, 0) : vgetq_lane_p64(halves, 1);
  }

  static Vector16 load(const std::uint8_t *data) {
    return {vqtbl1q_u8(vld1q_u8(data), vld1q_u8(kCrc16Head))};
  }

  static Vector16 start(std::uint16_t crc) {
    return {vreinterpretq_u8_u16(vsetq_lane_u16(crc, vdupq_n_u16(0), 7))};
  }

  static Vector16 head(std::uint16_t crc, const std::uint8_t *data, std::size_t count) {
    const uint16x8_t added = vsetq_lane_u16(__builtin_bswap16(crc), vdupq_n_u16(0), 0);
    const uint8x16_t first = veorq_u8(vld1q_u8(data), vreinterpretq_u8_u16(added));
    const Vector16 odd{vqtbl1q_u8(first, vld1q_u8(kCrc16Head + kBytes - count))};
    return fold(odd, crc16_fold(kBytes)) ^ start(crc16_left(crc, count));
  }

  friend Vector16 operator^(Vector16 a, Vector16 b) { return {veorq_u8(a.value, b.value)}; }

  friend Vector16 fold(Vector16 vector, const Crc16Fold &by) {
    const poly64x2_t factors = vreinterpretq_p64_u64(vld1q_u64(&by.low));
    const poly64x2_t halves = vreinterpretq_p64_u8(vector.value);
    return {veorq_u8(product(vgetq_lane_p64(halves, 0), vgetq_lane_p64(factors, 0)),
                     vreinterpretq_u8_p128(vmull_high_p64(halves, factors)))};
  }

  std::uint16_t reduce() const {
    const uint8x16_t zero = vdupq_n_u8(0);
    const uint8x16_t t = product(half(1), kCrc16Top);
    const Vector16 a{veorq_u8(value, vextq_u8(t, zero, 2))};
    const uint8x16_t am = product(a.half(0), kCrc16Quotient);
    const Vector16 q{veorq_u8(a.value, vextq_u8(am, zero, 8))};
    const uint8x16_t qp = product(q.half(0), kCrc16Polynomial);
    return vgetq_lane_u16(vreinterpretq_u16_u8(veorq_u8(t, qp)), 0);
  }
};

} // namespace

std::uint16_t crc16_plain(std::uint16_t crc, const void *data, std::size_t length) {
  return Crc16Loop<Vector16>::run(crc, static_cast<const std::uint8_t *>(data), length);
}

} // namespace vorn::arch
