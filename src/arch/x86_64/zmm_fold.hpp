// Folds 64 bytes at a time by carry-less multiplication in ZMM registers. Only kernels include it,
// and each has its own types.
//
// A register holds four lanes of 16 bytes. As in the CRC-16 loop, two multiplications move a lane
// towards the end of the input, but here the bits are reflected: the lowest bit is the highest
// power. Gathering moves a lane to the end of the input in one step, by its own factors, so that
// the products of all lanes are added in any order.
//
// 1. Move the first 1 to 64 bytes to the end of a vector, so that the rest is whole vectors.
// 2. In a long input, fold each of eight vectors onto the vector eight further on, while there is
//    one.
// 3. Gather the vectors that remain.
//
// The unit that multiplies begins one multiplication in a cycle and needs two for a vector, so
// little else may use that unit. Eight vectors fill the time that a result takes.
// SPDX-License-Identifier: Apache-2.0
#ifndef VORN_ARCH_X86_64_ZMM_FOLD_HPP
#define VORN_ARCH_X86_64_ZMM_FOLD_HPP

#include <immintrin.h>

#include <array>
#include <cstddef>
#include <cstdint>

namespace vorn::arch {
namespace {

// The factors for the two words of each lane.
struct alignas(64) ZmmFactors {
  std::uint64_t words[8];
};

// Returns the factors that move a vector over bytes, and then each lane to the last lane if
// lane_bytes is the size of a lane.
template <class Checksum>
consteval ZmmFactors zmm_factors(std::size_t bytes, std::size_t lane_bytes, int scale) {
  ZmmFactors all{};
  for (std::size_t lane = 0; lane < 4; ++lane) {
    const int exponent = static_cast<int>(8 * (bytes + (3 - lane) * lane_bytes)) + scale;
    all.words[2 * lane] = Checksum::factor(exponent + 64);
    all.words[2 * lane + 1] = Checksum::factor(exponent);
  }
  return all;
}

// Entry n gathers a vector over n vectors.
template <class Checksum, std::size_t kCount>
consteval std::array<ZmmFactors, kCount> zmm_gathering() {
  std::array<ZmmFactors, kCount> all{};
  for (std::size_t n = 0; n < kCount; ++n)
    all[n] = zmm_factors<Checksum>(64 * n, 16, Checksum::kScale);
  return all;
}

consteval std::array<std::uint8_t, 64> zmm_counting() {
  std::array<std::uint8_t, 64> bytes{};
  for (std::uint8_t i = 0; i < bytes.size(); ++i)
    bytes[i] = i;
  return bytes;
}

// Checksum is the kernel's part:
//   factor(exponent)   what multiplies a word by x^exponent
//   kScale             the sum of the gathered lanes is multiplied by x^kScale
//   place(bytes)       the bytes with their bits reflected
template <class Checksum> class ZmmFold {
public:
  // Returns the sum of the gathered lanes: the input, with the register start added to its first
  // bytes. The input has at least 64 bytes.
  template <class Source> [[gnu::always_inline]] static __m128i
  run(std::uint32_t start, Source source, std::size_t length) {
    const std::size_t after_first = (length - 1) / kBytes;
    const std::size_t count = length - after_first * kBytes;
    std::uint32_t left = 0; // of start, for the second vector
    if (count < sizeof(start)) [[unlikely]] {
      left = start >> (8 * count);
      start &= (1u << (8 * count)) - 1;
    }
    const __m512i first = take_first(start, source, count);
    if (after_first >= kMaxGathered) [[unlikely]]
      return join(many(first, left, source, after_first));
    __m512i sum = gather(first, after_first, _mm512_setzero_si512());
    if (left != 0) [[unlikely]]
      sum = gather(Checksum::place(begin_with(left)), after_first - 1, sum);
    return join(gather_all(sum, source, after_first));
  }

private:
  static constexpr std::size_t kBytes = 64;
  static constexpr std::size_t kUnderWay = 8;

  // A vector is gathered over fewer vectors than this.
  static constexpr std::size_t kMaxGathered = 2 * kUnderWay;

  static constexpr ZmmFactors kAdvance = zmm_factors<Checksum>(kUnderWay * kBytes, 0, 0);
  static constexpr auto kGather = zmm_gathering<Checksum, kMaxGathered>();
  alignas(64) static constexpr auto kCounting = zmm_counting();

  [[gnu::always_inline]] static __m512i fold(__m512i vector, const ZmmFactors &by, __m512i sum) {
    const __m512i factors = _mm512_load_si512(by.words);
    return _mm512_ternarylogic_epi64(sum, _mm512_clmulepi64_epi128(vector, factors, 0x00),
                                     _mm512_clmulepi64_epi128(vector, factors, 0x11), 0x96);
  }

  // Adds the vector to sum, as gathered that many vectors further on.
  [[gnu::always_inline]] static __m512i gather(__m512i vector, std::size_t vectors, __m512i sum) {
    return fold(vector, kGather[vectors], sum);
  }

  template <class Source>
  [[gnu::always_inline]] static __m512i take(const Source &source, std::ptrdiff_t offset) {
    const __m512i bytes = _mm512_loadu_si512(source.from + offset);
    if constexpr (requires { source.to; }) _mm512_storeu_si512(source.to + offset, bytes);
    return Checksum::place(bytes);
  }

  [[gnu::always_inline]] static __m512i begin_with(std::uint32_t word) {
    return _mm512_zextsi128_si512(_mm_cvtsi32_si128(static_cast<int>(word)));
  }

  // Takes the first count bytes, to which start is added: the end of the vector, after zeros.
  template <class Source> [[gnu::always_inline]] static __m512i
  take_first(std::uint32_t start, Source &source, std::size_t count) {
    if (count == kBytes) [[likely]] {
      const __m512i bytes = take(source, 0);
      source.skip(count);
      return _mm512_xor_si512(bytes, Checksum::place(begin_with(start)));
    }
    const __mmask64 wanted = ~__mmask64{0} >> (kBytes - count);
    const __m512i bytes = _mm512_maskz_loadu_epi8(wanted, source.from);
    if constexpr (requires { source.to; }) _mm512_mask_storeu_epi8(source.to, wanted, bytes);
    source.skip(count);
    return Checksum::place(rotate(_mm512_xor_si512(bytes, begin_with(start)), count));
  }

  // Moves the first count bytes to the end, and the others before them.
  [[gnu::always_inline]] static __m512i rotate(__m512i bytes, std::size_t count) {
    const __m512i from = _mm512_add_epi8(_mm512_load_si512(kCounting.data()),
                                         _mm512_set1_epi8(static_cast<char>(count)));
    return _mm512_maskz_permutexvar_epi8(~__mmask64{0}, from, bytes);
  }

  // Adds the vectors at source to sum, gathered in the last of them. Begins with the last one,
  // whose factors do not depend on the number, and has no loop.
  template <class Source> [[gnu::always_inline]] static __m512i
  gather_all(__m512i sum, Source source, std::size_t vectors) {
    source.skip(vectors * kBytes);
    return gather_backward<0>(sum, source, vectors);
  }

  // Adds the vectors that end kDone vectors before source.
  template <std::size_t kDone, class Source> [[gnu::always_inline]] static __m512i
  gather_backward(__m512i sum, const Source &source, std::size_t vectors) {
    if constexpr (kDone + 1 < kMaxGathered) {
      if (vectors == kDone) return sum;
      constexpr auto kOffset = -static_cast<std::ptrdiff_t>((kDone + 1) * kBytes);
      sum = gather(take(source, kOffset), kDone, sum);
      return gather_backward<kDone + 1>(sum, source, vectors);
    }
    return sum;
  }

  // Returns the sum of first and of the vectors at source, at least kMaxGathered, to the
  // first of which left is added.
  template <class Source> [[gnu::always_inline]] static __m512i
  many(__m512i first, std::uint32_t left, Source source, std::size_t vectors) {
    __m512i under_way[kUnderWay] = {first};
#pragma GCC unroll 8
    for (std::size_t i = 1; i < kUnderWay; ++i)
      under_way[i] = take(source, (i - 1) * kBytes);
    under_way[1] = _mm512_xor_si512(under_way[1], Checksum::place(begin_with(left)));
    source.skip((kUnderWay - 1) * kBytes);
    vectors -= kUnderWay - 1;
    for (; vectors >= kUnderWay; vectors -= kUnderWay) {
#pragma GCC unroll 8
      for (std::size_t i = 0; i < kUnderWay; ++i)
        under_way[i] = fold(under_way[i], kAdvance, take(source, i * kBytes));
      source.skip(kUnderWay * kBytes);
    }
    __m512i sum = _mm512_setzero_si512();
#pragma GCC unroll 8
    for (std::size_t i = 0; i < kUnderWay; ++i)
      sum = gather(under_way[i], vectors + kUnderWay - 1 - i, sum);
    return gather_all(sum, source, vectors);
  }

  // Returns the sum of the lanes. (The conversion without a mask makes the compiler warn about its
  // own header.)
  [[gnu::always_inline]] static __m128i join(__m512i lanes) {
    const __m256i two = _mm256_xor_si256(_mm512_maskz_extracti64x4_epi64(0xF, lanes, 0),
                                         _mm512_maskz_extracti64x4_epi64(0xF, lanes, 1));
    return _mm_xor_si128(_mm256_castsi256_si128(two), _mm256_extracti128_si256(two, 1));
  }
};

} // namespace
} // namespace vorn::arch

#endif
