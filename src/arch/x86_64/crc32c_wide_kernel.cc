// Computes CRC-32C of long inputs in lanes and by folding at the same time. A stretch before the
// three lanes of words is folded by carry-less multiplication, as in CRC-16, on units of the
// processor that the CRC instruction leaves idle.
// SPDX-License-Identifier: Apache-2.0
#include "arch/x86_64/crc.hpp"

#include <immintrin.h>

#include "arch/x86_64/crc32c_step.hpp"

namespace vorn::arch {
namespace {

using Loop = Crc32cLoop<Step>;

// A round folds four vectors, in the time of five steps of the lanes.
constexpr std::size_t kVector = 32;
constexpr std::size_t kStretch = 4 * kVector;
constexpr std::size_t kSteps = 5;
constexpr std::size_t kRound = kStretch + kSteps * 3 * Loop::kWord;

// The lanes get the rest, which is long enough to reduce the stretch at the same time.
constexpr std::size_t kMinRest = kStretch;
constexpr std::size_t kMaxRest = kMinRest + kRound;

// The length of a disk sector.
constexpr std::size_t kSector = 512;

// The bytes that are joined at a time.
constexpr std::size_t kMaxRounds = (kMaxLane - kMaxRest / (3 * Loop::kWord)) / kSteps;
constexpr std::size_t kMaxBlock = kMaxRounds * kRound + kMinRest;

// Returns the factors that fold a vector onto the one kBytes further on: x^(8 kBytes + 64) for the
// first word of each half, x^(8 kBytes) for the second. The product of two reflected values has one
// x too many, and a factor in the low 32 bits of 64 has x^32 more.
template <unsigned int kBytes> __m256i factors() {
  constexpr std::uint32_t first = crc32c_power(8 * kBytes + 64 - 33);
  constexpr std::uint32_t second = crc32c_power(8 * kBytes - 33);
  return _mm256_set_epi64x(second, first, second, first);
}

struct Vector {
  __m256i value;

  template <class Source> static Vector take(const Source &source, std::size_t offset) {
    const __m256i bytes =
        _mm256_loadu_si256(reinterpret_cast<const __m256i *>(source.from + offset));
    if constexpr (requires { source.to; }) {
      _mm256_storeu_si256(reinterpret_cast<__m256i *>(source.to + offset), bytes);
    }
    return {bytes};
  }

  static Vector start(std::uint64_t crc) {
    return {_mm256_zextsi128_si256(_mm_cvtsi64_si128(static_cast<long long>(crc)))};
  }

  friend Vector operator^(Vector a, Vector b) { return {_mm256_xor_si256(a.value, b.value)}; }

  template <unsigned int kBytes> Vector fold() const {
    const __m256i by = factors<kBytes>();
    return {_mm256_xor_si256(_mm256_clmulepi64_epi128(value, by, 0x00),
                             _mm256_clmulepi64_epi128(value, by, 0x11))};
  }

  // Returns the register after these bytes.
  std::uint64_t reduce() const {
    const __m128i first = _mm256_castsi256_si128(fold<16>().value);
    const __m128i sum = _mm_xor_si128(first, _mm256_extracti128_si256(value, 1));
    const auto low = static_cast<std::uint64_t>(_mm_cvtsi128_si64(sum));
    const auto high = static_cast<std::uint64_t>(_mm_extract_epi64(sum, 1));
    return Step::add(Step::add(0, low), high);
  }
};

struct Stretch {
  Vector a, b, c, d;

  template <class Source>
  [[gnu::always_inline]] static Stretch begin(std::uint64_t crc, Source &source) {
    const Stretch first{Vector::take(source, 0) ^ Vector::start(crc), Vector::take(source, kVector),
                        Vector::take(source, 2 * kVector), Vector::take(source, 3 * kVector)};
    source.skip(kStretch);
    return first;
  }

  template <class Source> [[gnu::always_inline]] void advance(Source &source) {
    a = a.fold<kStretch>() ^ Vector::take(source, 0);
    b = b.fold<kStretch>() ^ Vector::take(source, kVector);
    c = c.fold<kStretch>() ^ Vector::take(source, 2 * kVector);
    d = d.fold<kStretch>() ^ Vector::take(source, 3 * kVector);
    source.skip(kStretch);
  }

  std::uint64_t reduce() const {
    return (a.fold<3 * kVector>() ^ b.fold<2 * kVector>() ^ (c.fold<kVector>() ^ d)).reduce();
  }
};

// Carries crc and source over a block of length bytes, except a rest whose length is returned.
template <class Source> [[gnu::always_inline]] inline std::size_t
run_block(std::uint64_t &crc, Source &source, std::size_t length) {
  const std::size_t rounds = (length - kMinRest) / kRound;
  const std::size_t words = (length - rounds * kStretch) / (3 * Loop::kWord);
  Source lane = source;
  lane.skip(rounds * kStretch);
  Loop::Lanes lanes{0, words};

  Stretch stretch = Stretch::begin(crc, source);
  for (std::size_t round = 1; round < rounds; ++round) {
    stretch.advance(source);
    Loop::repeat<kSteps>([&] { lanes.step(lane); });
  }
  const std::uint64_t carried = Step::multiply(stretch.reduce(), kCrc32cCarries[3 * words]);
  while (lanes.left() > 1)
    lanes.step(lane);
  crc = lanes.join(lane, carried);
  source = lane;
  return length - rounds * kStretch - 3 * Loop::kWord * words;
}

// The same for a block of kSector bytes, without a loop and without a rest.
template <class Source>
[[gnu::always_inline]] inline std::uint64_t run_sector(std::uint64_t crc, Source &source) {
  constexpr std::size_t kWords = (kSector - kStretch) / (3 * Loop::kWord);
  static_assert(kStretch + kWords * 3 * Loop::kWord == kSector);
  const std::uint64_t stretch = Stretch::begin(crc, source).reduce();
  Loop::Lanes lanes{0, kWords};
  Loop::repeat<kWords - 1>([&] { lanes.step(source); });
  return lanes.join(source, Step::multiply(stretch, kCrc32cCarries[3 * kWords]));
}

template <class Source> std::uint32_t run(std::uint64_t crc, Source source, std::size_t length) {
  if (length == kSector) return static_cast<std::uint32_t>(run_sector(crc, source));
  while (length >= kCrc32cWideMin) {
    const std::size_t block = length < kMaxBlock ? length : kMaxBlock;
    const std::size_t rest = run_block(crc, source, block);
    length -= block - rest;
  }
  return Loop::run(crc, source, length);
}

} // namespace

std::uint32_t crc32c_wide(std::uint32_t crc, const void *data, std::size_t length) {
  return run(crc, Loop::reader(data), length);
}

std::uint32_t crc32c_copy_wide(std::uint32_t crc, void *to, const void *from, std::size_t length) {
  return run(crc, Loop::copier(to, from), length);
}

} // namespace vorn::arch
