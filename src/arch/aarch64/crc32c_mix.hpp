// Defines the parts of the CRC-32C loops on AArch64. Only kernels include it, and each has its own
// types.
// SPDX-License-Identifier: Apache-2.0
#ifndef VORN_ARCH_AARCH64_CRC32C_MIX_HPP
#define VORN_ARCH_AARCH64_CRC32C_MIX_HPP

#include <arm_acle.h>
#include <arm_neon.h>

#include <cstddef>
#include <cstdint>

#include "arch/crc32c_mixed_loop.hpp"

namespace vorn::arch {
namespace {

struct CrcStep {
  using Register = std::uint32_t;

  static Register add(Register crc, std::uint64_t word) { return __crc32cd(crc, word); }
  static Register add(Register crc, std::uint32_t word) { return __crc32cw(crc, word); }
  static Register add(Register crc, std::uint16_t word) { return __crc32ch(crc, word); }
  static Register add(Register crc, std::uint8_t word) { return __crc32cb(crc, word); }
  static std::uint64_t multiply(Register crc, std::uint32_t constant) {
    return vgetq_lane_u64(vreinterpretq_u64_p128(vmull_p64(crc, constant)), 0);
  }
};

// Sum adds the products of a fold: add<kIndex>(first, second, next).
template <class Sum> struct CrcVector {
  static constexpr std::size_t kBytes = 16;
  uint8x16_t value;

  template <class Source>
  [[gnu::always_inline]] static CrcVector take(const Source &source, std::size_t offset) {
    const uint8x16_t bytes = vld1q_u8(source.from + offset);
    if constexpr (requires { source.to; }) vst1q_u8(source.to + offset, bytes);
    return {bytes};
  }

  template <unsigned int kDistance, std::size_t kIndex>
  [[gnu::always_inline]] CrcVector fold(CrcVector next) const {
    using Fold = Crc32cFold<kDistance>;
    const poly64x2_t words = vreinterpretq_p64_u8(value);
    const poly128_t first = vmull_p64(vgetq_lane_p64(words, 0), Fold::kFirst);
    const poly128_t second = vmull_high_p64(words, vdupq_n_p64(Fold::kSecond));
    return {Sum::template add<kIndex>(vreinterpretq_u8_p128(first), vreinterpretq_u8_p128(second),
                                      next.value)};
  }

  [[gnu::always_inline]] std::uint32_t reduce(std::uint64_t carried) const {
    const uint64x2_t words = vreinterpretq_u64_u8(value);
    const std::uint32_t crc = CrcStep::add(0, std::uint64_t{vgetq_lane_u64(words, 0)});
    return CrcStep::add(crc, vgetq_lane_u64(words, 1) ^ carried);
  }
};

} // namespace
} // namespace vorn::arch

#endif
