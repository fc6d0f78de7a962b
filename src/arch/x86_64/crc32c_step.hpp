// Defines the step of the CRC-32C loop. Only kernels include it, and each has its own type.
// SPDX-License-Identifier: Apache-2.0
#ifndef VORN_ARCH_X86_64_CRC32C_STEP_HPP
#define VORN_ARCH_X86_64_CRC32C_STEP_HPP

#include <nmmintrin.h>
#include <wmmintrin.h>

#include "arch/crc32c_loop.hpp"

namespace vorn::arch {
namespace {

struct Step {
  // As wide as the instruction's result, so that no step is followed by a conversion.
  using Register = std::uint64_t;

  static Register add(Register crc, std::uint64_t word) { return _mm_crc32_u64(crc, word); }
  static Register add(Register crc, std::uint32_t word) {
    return _mm_crc32_u32(static_cast<std::uint32_t>(crc), word);
  }
  static Register add(Register crc, std::uint16_t word) {
    return _mm_crc32_u16(static_cast<std::uint32_t>(crc), word);
  }
  static Register add(Register crc, std::uint8_t word) {
    return _mm_crc32_u8(static_cast<std::uint32_t>(crc), word);
  }
  static std::uint64_t multiply(Register crc, std::uint32_t constant) {
    const __m128i product =
        _mm_clmulepi64_si128(_mm_cvtsi64_si128(static_cast<long long>(crc)),
                             _mm_cvtsi32_si128(static_cast<int>(constant)), 0x00);
    return static_cast<std::uint64_t>(_mm_cvtsi128_si64(product));
  }
};

} // namespace
} // namespace vorn::arch

#endif
