// Computes CRC-32C by folding in ZMM registers. On processors that have them, this alone is as fast
// as with lanes of the instruction beside it, or faster.
// SPDX-License-Identifier: Apache-2.0
#include "arch/x86_64/crc.hpp"

#include <immintrin.h>

#include "arch/x86_64/crc32c_step.hpp"
#include "arch/x86_64/zmm_fold.hpp"

namespace vorn::arch {
namespace {

using Loop = Crc32cLoop<Step>;

struct Checksum {
  // The register is the remainder of the input times x^32, and reduce() leaves out x^32 more.
  static constexpr int kScale = 64;

  // The product of two reflected words has one x too many, and a factor in the low 32 bits of 64
  // has x^32 more.
  static consteval std::uint64_t factor(int exponent) {
    return crc32c_power(static_cast<unsigned int>(exponent - 33));
  }

  [[gnu::always_inline]] static __m512i place(__m512i bytes) { return bytes; }
};

// Returns the register for the gathered lanes. They have 96 bits, since each word was multiplied by
// 32 bits. A step multiplies the first 64 by x^32 and reduces them; the others have at most x^31.
[[gnu::always_inline]] inline std::uint32_t reduce(__m128i lanes) {
  const auto first = static_cast<std::uint64_t>(_mm_cvtsi128_si64(lanes));
  const auto rest = static_cast<std::uint32_t>(_mm_extract_epi32(lanes, 2));
  return static_cast<std::uint32_t>(Step::add(0, first)) ^ rest;
}

template <class Source> [[gnu::always_inline]] inline std::uint32_t
run(std::uint32_t crc, Source source, std::size_t length) {
  return reduce(ZmmFold<Checksum>::run(crc, source, length));
}

} // namespace

std::uint32_t crc32c_zmm(std::uint32_t crc, const void *data, std::size_t length) {
  return run(crc, Loop::reader(data), length);
}

std::uint32_t crc32c_copy_zmm(std::uint32_t crc, void *to, const void *from, std::size_t length) {
  return run(crc, Loop::copier(to, from), length);
}

} // namespace vorn::arch
