// Defines the vector of the CRC-16 loop in an SSE register. Only kernels include it, and each has
// its own type.
// SPDX-License-Identifier: Apache-2.0
#ifndef VORN_ARCH_X86_64_CRC16_VECTOR_HPP
#define VORN_ARCH_X86_64_CRC16_VECTOR_HPP

#include <smmintrin.h>
#include <tmmintrin.h>
#include <wmmintrin.h>

#include <cstddef>
#include <cstdint>

#include "arch/crc16_loop.hpp"

namespace vorn::arch {
namespace {

struct Vector16 {
  static constexpr std::size_t kBytes = 16;
  __m128i value;

  static __m128i bytes(const void *at) { return _mm_loadu_si128(static_cast<const __m128i *>(at)); }
  static __m128i words(std::uint64_t low, std::uint64_t high) {
    return _mm_set_epi64x(static_cast<long long>(high), static_cast<long long>(low));
  }

  static Vector16 load(const std::uint8_t *data) {
    return {_mm_shuffle_epi8(bytes(data), bytes(kCrc16Head))};
  }

  static Vector16 start(std::uint16_t crc) {
    return {_mm_insert_epi16(_mm_setzero_si128(), crc, 7)};
  }

  static Vector16 head(std::uint16_t crc, const std::uint8_t *data, std::size_t count) {
    const __m128i first = _mm_xor_si128(bytes(data), _mm_cvtsi32_si128(__builtin_bswap16(crc)));
    const Vector16 odd{_mm_shuffle_epi8(first, bytes(kCrc16Head + kBytes - count))};
    return fold(odd, crc16_fold(kBytes)) ^ start(crc16_left(crc, count));
  }

  friend Vector16 operator^(Vector16 a, Vector16 b) { return {_mm_xor_si128(a.value, b.value)}; }

  friend Vector16 fold(Vector16 vector, const Crc16Fold &by) {
    const __m128i factors = words(by.low, by.high);
    return {_mm_xor_si128(_mm_clmulepi64_si128(vector.value, factors, 0x00),
                          _mm_clmulepi64_si128(vector.value, factors, 0x11))};
  }

  std::uint16_t reduce() const {
    const __m128i factors = words(kCrc16Quotient, kCrc16Top);
    const __m128i t = _mm_clmulepi64_si128(value, factors, 0x11);
    const __m128i a = _mm_xor_si128(value, _mm_srli_si128(t, 2));
    const __m128i am = _mm_clmulepi64_si128(a, factors, 0x00);
    const __m128i q = _mm_xor_si128(a, _mm_srli_si128(am, 8));
    const __m128i qp = _mm_clmulepi64_si128(q, words(kCrc16Polynomial, 0), 0x00);
    return static_cast<std::uint16_t>(_mm_cvtsi128_si32(_mm_xor_si128(t, qp)));
  }
};

} // namespace
} // namespace vorn::arch

#endif
