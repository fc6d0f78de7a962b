// Compiles the mixed loop of CRC-32C for AVX2 registers.
// SPDX-License-Identifier: Apache-2.0
#include "arch/x86_64/crc.hpp"

#include <immintrin.h>

#include "arch/crc32c_mixed_loop.hpp"
#include "arch/x86_64/crc32c_step.hpp"

namespace vorn::arch {
namespace {

struct Vector {
  static constexpr std::size_t kBytes = 32;
  __m256i value;

  template <class Source> static Vector take(const Source &source, std::size_t offset) {
    const __m256i bytes =
        _mm256_loadu_si256(reinterpret_cast<const __m256i *>(source.from + offset));
    if constexpr (requires { source.to; }) {
      _mm256_storeu_si256(reinterpret_cast<__m256i *>(source.to + offset), bytes);
    }
    return {bytes};
  }

  template <unsigned int kDistance> __m256i folded() const {
    using Fold = Crc32cFold<kDistance>;
    const __m256i by = _mm256_set_epi64x(Fold::kSecond, Fold::kFirst, Fold::kSecond, Fold::kFirst);
    return _mm256_xor_si256(_mm256_clmulepi64_epi128(value, by, 0x00),
                            _mm256_clmulepi64_epi128(value, by, 0x11));
  }

  template <unsigned int kDistance, std::size_t> Vector fold(Vector next) const {
    return {_mm256_xor_si256(folded<kDistance>(), next.value)};
  }

  std::uint64_t reduce(std::uint64_t carried) const {
    const __m128i first = _mm256_castsi256_si128(folded<16>());
    const __m128i sum = _mm_xor_si128(first, _mm256_extracti128_si256(value, 1));
    const auto low = static_cast<std::uint64_t>(_mm_cvtsi128_si64(sum));
    const auto high = static_cast<std::uint64_t>(_mm_extract_epi64(sum, 1));
    return Step::add(Step::add(0, low), high ^ carried);
  }
};

// A round folds four vectors, in the time of five steps of the lanes.
struct Mix {
  using Step = arch::Step;
  using Vector = arch::Vector;
  static constexpr std::size_t kVectors = 4;
  static constexpr std::size_t kSteps = 5;
  static constexpr std::size_t kRest = 128; // takes as long as to reduce the stretch
};

using Loop = Crc32cLoop<Step>;
using MixedLoop = Crc32cMixedLoop<Mix>;

// The length of a disk sector.
constexpr std::size_t kSector = 512;

static_assert(kCrc32cWideMin >= MixedLoop::kMin);

template <class Source> std::uint32_t run(std::uint64_t crc, Source source, std::size_t length) {
  if (length == kSector) return MixedLoop::run_exactly<kSector>(crc, source);
  return MixedLoop::run(crc, source, length);
}

} // namespace

std::uint32_t crc32c_wide(std::uint32_t crc, const void *data, std::size_t length) {
  return run(crc, Loop::reader(data), length);
}

std::uint32_t crc32c_copy_wide(std::uint32_t crc, void *to, const void *from, std::size_t length) {
  return run(crc, Loop::copier(to, from), length);
}

} // namespace vorn::arch
