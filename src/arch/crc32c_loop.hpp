// Computes CRC-32C by the processor's instruction. A step waits two or three cycles for the
// previous step, but the processor can begin a step in each cycle. So:
//
// 1. Cut a long input into three lanes of whole words.
// 2. Run the steps of the three lanes side by side.
// 3. Join the registers of the lanes.
//
// Joining: with the registers a, b and c of three lanes of n words each, the register of the whole
// is a * x^(128 n) + b * x^(64 n) + c modulo the polynomial. A carry-less multiplication of two
// reflected 32-bit values gives their product times x, reflected, in 64 bits; a step over that as
// if it were data multiplies it by x^32 and reduces it. So with the constant x^(64 d - 33), one
// multiplication and a step carry a register over d words. The carried registers are added to the
// last word of the third lane, so that its step serves for them too.
// SPDX-License-Identifier: Apache-2.0
#ifndef VORN_ARCH_CRC32C_LOOP_HPP
#define VORN_ARCH_CRC32C_LOOP_HPP

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "arch/crc_polynomial.hpp"

namespace vorn::arch {

// Words in a lane: 6 KiB are joined at a time.
inline constexpr std::size_t kMaxLane = 256;

// Below this many bytes a single chain is faster than three and a join.
inline constexpr std::size_t kMinLanes = 192;

// Entry d carries a register over d words: over three lanes at most.
using Crc32cCarries = std::array<std::uint32_t, 1 + 3 * kMaxLane>;

consteval Crc32cCarries crc32c_carries() {
  Crc32cCarries carries{};
  std::uint32_t value = crc32c_power(64 - 33);
  for (std::size_t words = 1; words < carries.size(); ++words) {
    carries[words] = value;
    for (int bit = 0; bit < 64; ++bit)
      value = crc32c_times_x(value);
  }
  return carries;
}

inline constexpr Crc32cCarries kCrc32cCarries = crc32c_carries();

// Step is the processor's part. Each including file defines its own type, so that the linker does
// not merge code that is compiled for special instructions with another file's:
//   Register                       the instruction's operand and result
//   add(Register, word)            a step over a word of 8, 4, 2 or 1 bytes
//   multiply(Register, constant)   the low 64 bits of the carry-less product
template <class Step> class Crc32cLoop {
  using Register = typename Step::Register;

public:
  static constexpr std::size_t kWord = sizeof(std::uint64_t);

  // Reads words from memory.
  struct Reader {
    const std::uint8_t *from;

    template <class Word> Word take(std::size_t offset) const {
      Word word;
      std::memcpy(&word, from + offset, sizeof(word));
      return word;
    }
    void skip(std::size_t bytes) { from += bytes; }
  };

  // Reads words from memory and copies them: stores each word before it is used.
  struct Copier {
    const std::uint8_t *from;
    std::uint8_t *to;

    template <class Word> Word take(std::size_t offset) const {
      Word word;
      std::memcpy(&word, from + offset, sizeof(word));
      std::memcpy(to + offset, &word, sizeof(word));
      return word;
    }
    void skip(std::size_t bytes) {
      from += bytes;
      to += bytes;
    }
  };

  static Reader reader(const void *from) { return {static_cast<const std::uint8_t *>(from)}; }
  static Copier copier(void *to, const void *from) {
    return {static_cast<const std::uint8_t *>(from), static_cast<std::uint8_t *>(to)};
  }

  // Returns the register after length more bytes.
  template <class Source>
  [[gnu::always_inline]] static std::uint32_t run(Register crc, Source source, std::size_t length) {
    if (length >= kMinLanes) [[unlikely]]
      return run_lanes(crc, source, length);
    return run_chain(crc, source, length);
  }

  // The same in a single chain, for short inputs. Inlined.
  template <class Source> [[gnu::always_inline]] static std::uint32_t
  run_chain(Register crc, Source source, std::size_t length) {
    if (length >= 8 * kWord) { // the usual lengths are multiples, and need only this
      for (; length >= 8 * kWord; length -= 8 * kWord)
        crc = words<8>(crc, source);
      if (length == 0) [[likely]]
        return static_cast<std::uint32_t>(crc);
    }
    for (; length >= 2 * kWord; length -= 2 * kWord)
      crc = words<2>(crc, source);
    if (length == 0) return static_cast<std::uint32_t>(crc);
    if ((length & 8) != 0) crc = one<std::uint64_t>(crc, source);
    if ((length & 4) != 0) crc = one<std::uint32_t>(crc, source);
    if ((length & 2) != 0) crc = one<std::uint16_t>(crc, source);
    if ((length & 1) != 0) crc = one<std::uint8_t>(crc, source);
    return static_cast<std::uint32_t>(crc);
  }

  // The same in lanes, for long inputs. Not inlined, so that short inputs save no registers.
  template <class Source> [[gnu::noinline]] static std::uint32_t
  run_lanes(Register crc, Source source, std::size_t length) {
    while (length >= kMinLanes) {
      const std::size_t fit = length / (3 * kWord);
      const std::size_t words = fit < kMaxLane ? fit : kMaxLane;
      Lanes lanes{crc, words};
      while (lanes.left() > 1)
        lanes.step(source);
      crc = lanes.join(source, 0);
      length -= 3 * kWord * words;
    }
    return run_chain(crc, source, length);
  }

  // Calls what kTimes times without a loop.
  template <std::size_t kTimes, class Do> [[gnu::always_inline]] static void repeat(Do what) {
    if constexpr (kTimes > 0) {
      what();
      repeat<kTimes - 1>(what);
    }
  }

  // Handles three lanes of words, the first of which is at source.
  class Lanes {
  public:
    Lanes(Register crc, std::size_t words) : first_(crc), words_(words), left_(words) {}

    std::size_t left() const { return left_; }

    template <class Source> [[gnu::always_inline]] void step(Source &source) {
      step_first_two(source);
      third_ = Step::add(third_, source.template take<std::uint64_t>(2 * kWord * words_));
      source.skip(kWord);
      --left_;
    }

    // Makes the last step of each lane, and returns the joined register, to which it adds carried.
    // Leaves source after the third lane.
    template <class Source>
    [[gnu::always_inline]] Register join(Source &source, std::uint64_t carried) {
      step_first_two(source);
      carried ^= Step::multiply(first_, kCrc32cCarries[2 * words_]);
      carried ^= Step::multiply(second_, kCrc32cCarries[words_]);
      const auto last = source.template take<std::uint64_t>(2 * kWord * words_);
      source.skip(2 * kWord * words_ + kWord);
      return Step::add(third_, last ^ carried);
    }

  private:
    template <class Source> [[gnu::always_inline]] void step_first_two(const Source &source) {
      first_ = Step::add(first_, source.template take<std::uint64_t>(0));
      second_ = Step::add(second_, source.template take<std::uint64_t>(kWord * words_));
    }

    Register first_;
    Register second_ = 0;
    Register third_ = 0;
    std::size_t words_;
    std::size_t left_;
  };

private:
  template <class Word, class Source>
  [[gnu::always_inline]] static Register one(Register crc, Source &source) {
    crc = Step::add(crc, source.template take<Word>(0));
    source.skip(sizeof(Word));
    return crc;
  }

  template <std::size_t kCount, class Source>
  [[gnu::always_inline]] static Register words(Register crc, Source &source) {
    repeat<kCount>([&] { crc = one<std::uint64_t>(crc, source); });
    return crc;
  }
};

} // namespace vorn::arch

#endif
