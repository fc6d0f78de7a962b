// Compiles the CRC-16 loop for AVX2 registers.
// SPDX-License-Identifier: Apache-2.0
#include "arch/x86_64/crc.hpp"

#include <immintrin.h>

#include "arch/x86_64/crc16_vector.hpp"

namespace vorn::arch {
namespace {

// Two vectors side by side.
struct Vector32 {
  static constexpr std::size_t kBytes = 32;
  __m256i value;

  static __m256i twice(__m128i value) { return _mm256_broadcastsi128_si256(value); }

  static Vector32 load(const std::uint8_t *data) {
    const __m256i bytes =
        _mm256_loadu_si256(static_cast<const __m256i *>(static_cast<const void *>(data)));
    return {_mm256_shuffle_epi8(bytes, twice(Vector16::bytes(kCrc16Head)))};
  }

  static Vector32 start(std::uint16_t crc) {
    return {_mm256_zextsi128_si256(Vector16::start(crc).value)};
  }

  static Vector32 head(std::uint16_t crc, const std::uint8_t *data, std::size_t count) {
    const std::size_t odd = count % Vector16::kBytes;
    Vector16 sum = odd != 0 ? Vector16::head(crc, data, odd) : Vector16::start(crc);
    if (count >= Vector16::kBytes) {
      sum = fold(sum ^ Vector16::load(data + odd), crc16_fold(Vector16::kBytes));
    }
    return {_mm256_zextsi128_si256(sum.value)};
  }

  friend Vector32 operator^(Vector32 a, Vector32 b) { return {_mm256_xor_si256(a.value, b.value)}; }

  friend Vector32 fold(Vector32 vector, const Crc16Fold &by) {
    const __m256i factors = twice(Vector16::words(by.low, by.high));
    return {_mm256_xor_si256(_mm256_clmulepi64_epi128(vector.value, factors, 0x00),
                             _mm256_clmulepi64_epi128(vector.value, factors, 0x11))};
  }

  std::uint16_t reduce() const {
    const Vector16 first{_mm256_castsi256_si128(value)};
    const Vector16 second{_mm256_extracti128_si256(value, 1)};
    return (fold(first, crc16_fold(Vector16::kBytes)) ^ second).reduce();
  }
};

} // namespace

std::uint16_t crc16_wide(std::uint16_t crc, const void *data, std::size_t length) {
  return Crc16Loop<Vector32>::run(crc, static_cast<const std::uint8_t *>(data), length);
}

} // namespace vorn::arch
