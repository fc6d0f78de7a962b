// Computes CRC-32C of long inputs by the processor's instruction and by carry-less multiplication
// side by side: the units of the processor that multiply work while others make the steps.
//
// 1. Cut a block into a stretch of vectors and, after it, three lanes of words.
// 2. In a round, fold each vector under way onto the one that many vectors further on, as in the
//    CRC-16 loop, and make some steps of each lane.
// 3. Fold the vectors under way onto the last one and reduce that, while the lanes make their last
//    steps.
// 4. Join the registers of the stretch and of the lanes.
//
// The register from before the block is added where the stretch ends, not where it begins, so that
// a block does not wait for the block before it.
// SPDX-License-Identifier: Apache-2.0
#ifndef VORN_ARCH_CRC32C_MIXED_LOOP_HPP
#define VORN_ARCH_CRC32C_MIXED_LOOP_HPP

#include <array>
#include <cstddef>
#include <cstdint>
#include <type_traits>
#include <utility>

#include "arch/crc32c_loop.hpp"

namespace vorn::arch {

// The factors that move a vector bytes further on: for the first word of each half x^(8 bytes +
// 64), for the second x^(8 bytes). The product of two reflected values has one x too many, and a
// factor in the low 32 bits of 64 has x^32 more.
template <unsigned int kBytes> struct Crc32cFold {
  static constexpr std::uint32_t kFirst = crc32c_power(8 * kBytes + 64 - 33);
  static constexpr std::uint32_t kSecond = crc32c_power(8 * kBytes - 33);
};

// Entry n carries a register over n stretches.
template <std::size_t kBytes, std::size_t kMax>
consteval std::array<std::uint32_t, kMax + 1> crc32c_stretch_carries() {
  std::array<std::uint32_t, kMax + 1> carries{};
  for (std::size_t n = 1; n < carries.size(); ++n)
    carries[n] = crc32c_power(static_cast<unsigned int>(8 * kBytes * n - 33));
  return carries;
}

// Mix is the processor's part. Each including file defines its own type, as for Crc32cLoop:
//   Step       as for Crc32cLoop
//   Vector     kBytes, of a vector
//              take(source, offset)
//              fold<kDistance, kIndex>(next), onto next, which is kDistance bytes further on;
//              kIndex is the number of the vector among those under way.
//              reduce(carried), to the register after it, with carried added to its last word
//   kVectors   the vectors under way
//   kSteps     the steps of each lane in a round
//   kRest      the bytes that are left to the lanes after the last round, at least
template <class Mix> class Crc32cMixedLoop {
  using Step = typename Mix::Step;
  using Register = typename Step::Register;
  using Vector = typename Mix::Vector;
  using Loop = Crc32cLoop<Step>;

  static constexpr std::size_t kVectors = Mix::kVectors;
  static constexpr std::size_t kStretch = kVectors * Vector::kBytes;
  static constexpr std::size_t kStep = 3 * Loop::kWord;
  static constexpr std::size_t kRound = kStretch + Mix::kSteps * kStep;

  // The lanes of a block have at most kMaxLane words.
  static constexpr std::size_t kMaxRounds =
      (kMaxLane * kStep - Mix::kRest - kRound) / (Mix::kSteps * kStep);
  static constexpr std::size_t kMaxBlock = kMaxRounds * kRound + Mix::kRest;

public:
  static constexpr std::size_t kMin = kRound + Mix::kRest;

  // Returns the register after length more bytes. Less than kMin of them are left to the lanes.
  template <class Source>
  static std::uint32_t run(Register crc, Source source, std::size_t length) {
    while (length >= kMin) {
      const std::size_t block = length < kMaxBlock ? length : kMaxBlock;
      const std::size_t rest = run_block(crc, source, block);
      length -= block - rest;
    }
    return Loop::run(crc, source, length);
  }

  // The same for exactly kLength bytes, without a loop.
  template <std::size_t kLength, class Source>
  [[gnu::always_inline]] static std::uint32_t run_exactly(Register crc, Source source) {
    constexpr std::size_t kRounds = rounds_of(kLength);
    constexpr std::size_t kWords = words_of(kLength, kRounds);
    Source lane = source;
    lane.skip(kRounds * kStretch);
    typename Loop::Lanes lanes{0, kWords};
    Stretch stretch{source};
    Loop::template repeat<kRounds - 1>([&]() __attribute__((always_inline)) {
      stretch.advance(source);
      Loop::template repeat<Mix::kSteps>([&] { lanes.step(lane); });
    });
    Loop::template repeat<kWords - 1 - (kRounds - 1) * Mix::kSteps>([&] { lanes.step(lane); });
    crc = finish(stretch, lanes, lane, crc, kRounds, kWords);
    return Loop::run_chain(crc, lane, kLength - kRounds * kStretch - kWords * kStep);
  }

private:
  static constexpr auto kStretchCarries = crc32c_stretch_carries<kStretch, kMaxRounds>();

  static constexpr std::size_t rounds_of(std::size_t length) {
    return (length - Mix::kRest) / kRound;
  }
  static constexpr std::size_t words_of(std::size_t length, std::size_t rounds) {
    return (length - rounds * kStretch) / kStep;
  }

  // Calls what with the constants 0 to kVectors - 1.
  template <class Do> [[gnu::always_inline]] static void each(Do what) {
    const auto calls = [&]<std::size_t... kIndex>(std::index_sequence<kIndex...>)
        __attribute__((always_inline)) {
      (what(std::integral_constant<std::size_t, kIndex>{}), ...);
    };
    calls(std::make_index_sequence<kVectors>());
  }

  // The vectors under way.
  class Stretch {
  public:
    template <class Source> [[gnu::always_inline]] explicit Stretch(Source &source) {
      each([&](auto i) __attribute__((always_inline)) {
        vectors_[i] = Vector::take(source, i * Vector::kBytes);
      });
      source.skip(kStretch);
    }

    template <class Source> [[gnu::always_inline]] void advance(Source &source) {
      each([&](auto i) __attribute__((always_inline)) {
        const Vector next = Vector::take(source, i * Vector::kBytes);
        vectors_[i] = vectors_[i].template fold<kStretch, i>(next);
      });
      source.skip(kStretch);
    }

    [[gnu::always_inline]] Register reduce(std::uint64_t carried) const {
      Vector sum = vectors_[kVectors - 1];
      each([&](auto i) __attribute__((always_inline)) {
        constexpr std::size_t kAfter = kVectors - 1 - i;
        if constexpr (kAfter != 0) sum = vectors_[i].template fold<kAfter * Vector::kBytes, i>(sum);
      });
      return sum.reduce(carried);
    }

  private:
    std::array<Vector, kVectors> vectors_;
  };

  // Carries crc and source over a block of length bytes, except a rest whose length is returned.
  template <class Source> [[gnu::always_inline]] static std::size_t
  run_block(Register &crc, Source &source, std::size_t length) {
    const std::size_t rounds = rounds_of(length);
    const std::size_t words = words_of(length, rounds);
    Source lane = source;
    lane.skip(rounds * kStretch);
    typename Loop::Lanes lanes{0, words};

    Stretch stretch{source};
    for (std::size_t round = 1; round < rounds; ++round) {
      stretch.advance(source);
      Loop::template repeat<Mix::kSteps>([&] { lanes.step(lane); });
    }
    crc = finish(stretch, lanes, lane, crc, rounds, words);
    source = lane;
    return length - rounds * kStretch - words * kStep;
  }

  template <class Source>
  [[gnu::always_inline]] static Register finish(const Stretch &stretch, typename Loop::Lanes &lanes,
                                                Source &lane, Register crc, std::size_t rounds,
                                                std::size_t words) {
    const Register sum = stretch.reduce(Step::multiply(crc, kStretchCarries[rounds]));
    const std::uint64_t carried = Step::multiply(sum, kCrc32cCarries[3 * words]);
    while (lanes.left() > 1)
      lanes.step(lane);
    return lanes.join(lane, carried);
  }
};

} // namespace vorn::arch

#endif
