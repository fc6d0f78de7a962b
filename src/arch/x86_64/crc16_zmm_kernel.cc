// Computes CRC-16/T10-DIF by folding in ZMM registers.
// SPDX-License-Identifier: Apache-2.0
#include "arch/x86_64/crc.hpp"

#include <immintrin.h>

#include "arch/crc16_loop.hpp"
#include "arch/x86_64/zmm_fold.hpp"

namespace vorn::arch {
namespace {

// The matrix that reflects the bits of a byte.
constexpr long long kReflect = static_cast<long long>(0x8040201008040201);

struct Checksum {
  // The checksum is the remainder of the input times x^16.
  static constexpr int kScale = 16;

  // The product of two reflected words has one x too many.
  static consteval std::uint64_t factor(int exponent) {
    const std::uint32_t power = crc16_power(static_cast<unsigned int>(exponent - 1));
    std::uint64_t reflected = 0;
    for (int bit = 0; bit < 16; ++bit)
      reflected |= std::uint64_t{(power >> bit) & 1} << (63 - bit);
    return reflected;
  }

  // The unit that reflects bytes is not the one that multiplies: putting the bytes in the opposite
  // order, as the other kernels do, would take a third of that unit's time.
  [[gnu::always_inline]] static __m512i place(__m512i bytes) {
    return _mm512_gf2p8affine_epi64_epi8(bytes, _mm512_set1_epi64(kReflect), 0);
  }
};

struct Reader {
  const std::uint8_t *from;
  void skip(std::size_t bytes) { from += bytes; }
};

// Returns the remainder of the gathered lanes, v. They have 80 bits, since each word was multiplied
// by 16 bits:
//   a = v / x^16               64 bits
//   q = a + (a * m >> 64)      v / P, with m = x^80 / P less its x^64
//   the low 16 bits of v + q * P
std::uint16_t reduce(__m128i lanes) {
  // a in the low half, the low 16 bits of v in the high half.
  const __m128i order = _mm_setr_epi8(13, 12, 11, 10, 9, 8, 7, 6, 15, 14, -1, -1, -1, -1, -1, -1);
  const __m128i quotient = _mm_cvtsi64_si128(static_cast<long long>(kCrc16Quotient));
  const __m128i polynomial = _mm_cvtsi32_si128(kCrc16Polynomial);
  const __m128i v =
      _mm_shuffle_epi8(_mm_gf2p8affine_epi64_epi8(lanes, _mm_set1_epi64x(kReflect), 0), order);
  const __m128i am = _mm_clmulepi64_si128(v, quotient, 0x00);
  const __m128i q = _mm_xor_si128(v, _mm_srli_si128(am, 8));
  const __m128i qp = _mm_clmulepi64_si128(q, polynomial, 0x00);
  return static_cast<std::uint16_t>(_mm_extract_epi16(v, 4) ^ _mm_cvtsi128_si32(qp));
}

} // namespace

std::uint16_t crc16_zmm(std::uint16_t crc, const void *data, std::size_t length) {
  const Reader source{static_cast<const std::uint8_t *>(data)};
  return reduce(ZmmFold<Checksum>::run(__builtin_bswap16(crc), source, length));
}

} // namespace vorn::arch
