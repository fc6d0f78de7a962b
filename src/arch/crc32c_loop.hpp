// CRC-32C by instruction, for every processor that has one. A step waits for the step before it,
// for three cycles or so, while the processor could begin one in each: so long inputs are cut into
// three lanes of whole words that run side by side, and are then joined.
//
// Joining: with the registers a, b and c of three lanes of n words each, the register of the whole
// is a * x^(128 n) + b * x^(64 n) + c modulo the polynomial. A carry-less multiplication of two
// reflected 32-bit values gives their product times x, reflected, in 64 bits; a step over that as
// if it were data multiplies it by x^32 and reduces it. So with the constant x^(64 d - 33), one
// multiplication and a step carry a register over d words; and the step over the last word of the
// third lane serves for both products, which are added to that word first.
#ifndef VORN_ARCH_CRC32C_LOOP_HPP
#define VORN_ARCH_CRC32C_LOOP_HPP

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <utility>

#include "arch/crc_polynomial.hpp"

namespace vorn::arch {

// Words in a lane: 6 KiB are joined at a time.
inline constexpr std::size_t kMaxLane = 256;

// Below this many bytes a single chain is faster than three and a join.
inline constexpr std::size_t kMinLanes = 192;

// Entry d carries a register over d words.
consteval std::array<std::uint32_t, 2 * kMaxLane + 1> crc32c_carries() {
  std::array<std::uint32_t, 2 * kMaxLane + 1> carries{};
  std::uint32_t value = crc32c_power(64 - 33);
  for (std::size_t words = 1; words < carries.size(); ++words) {
    carries[words] = value;
    for (int bit = 0; bit < 64; ++bit) value = crc32c_times_x(value);
  }
  return carries;
}

// Step is the processor's part, and a type of the including file's own, so that no code compiled
// for special instructions is shared with another file:
//   Register                       what the instruction takes and gives
//   add(Register, word)            a step over a word of 8, 4, 2 or 1 bytes
//   multiply(Register, constant)   the low 64 bits of the carry-less product
template <class Step> class Crc32cLoop {
  using Register = typename Step::Register;

public:
  // Where words come from: from memory,
  struct Reader {
    const std::uint8_t *from;

    template <class Word> Word take(std::size_t offset) const {
      Word word;
      std::memcpy(&word, from + offset, sizeof(word));
      return word;
    }
    void skip(std::size_t bytes) { from += bytes; }
  };

  // or from memory while they are copied: each is stored before it is used.
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

  template <class Source>
  static std::uint32_t run(std::uint32_t crc, Source source, std::size_t length) {
    // A function of its own, so that short inputs, for which it counts, save no registers.
    if (length >= kMinLanes) [[unlikely]] return run_long(crc, source, length);
    return chain(crc, source, length);
  }

private:
  static constexpr std::size_t kWord = sizeof(std::uint64_t);
  static constexpr std::array<std::uint32_t, 2 * kMaxLane + 1> kCarries = crc32c_carries();

  template <class Source>
  [[gnu::noinline]] static std::uint32_t run_long(Register crc, Source source, std::size_t length) {
    while (length >= kMinLanes) {
      const std::size_t words = length / (3 * kWord) < kMaxLane ? length / (3 * kWord) : kMaxLane;
      crc = lanes(crc, source, words);
      length -= 3 * kWord * words;
    }
    return chain(crc, source, length);
  }

  template <class Source>
  static std::uint32_t chain(Register crc, Source source, std::size_t length) {
    for (; length >= 8 * kWord; length -= 8 * kWord) crc = words<8>(crc, source);
    for (; length >= 2 * kWord; length -= 2 * kWord) crc = words<2>(crc, source);
    if (length == 0) return static_cast<std::uint32_t>(crc);
    if ((length & 8) != 0) crc = one<std::uint64_t>(crc, source);
    if ((length & 4) != 0) crc = one<std::uint32_t>(crc, source);
    if ((length & 2) != 0) crc = one<std::uint16_t>(crc, source);
    if ((length & 1) != 0) crc = one<std::uint8_t>(crc, source);
    return static_cast<std::uint32_t>(crc);
  }

  template <class Word, class Source> static Register one(Register crc, Source &source) {
    crc = Step::add(crc, source.template take<Word>(0));
    source.skip(sizeof(Word));
    return crc;
  }

  template <std::size_t kCount, class Source> static Register words(Register crc, Source &source) {
    const auto steps = [&]<std::size_t... kIndex>(std::index_sequence<kIndex...>) {
      ((crc = Step::add(crc, source.template take<std::uint64_t>(kIndex * kWord))), ...);
    };
    steps(std::make_index_sequence<kCount>());
    source.skip(kCount * kWord);
    return crc;
  }

  template <class Source>
  static Register lanes(Register first, Source &source, std::size_t words) {
    const std::size_t lane = words * kWord;
    Register second = 0;
    Register third = 0;
    std::size_t at = 0;
    for (; at < lane - kWord; at += kWord) {
      first = Step::add(first, source.template take<std::uint64_t>(at));
      second = Step::add(second, source.template take<std::uint64_t>(lane + at));
      third = Step::add(third, source.template take<std::uint64_t>(2 * lane + at));
    }
    first = Step::add(first, source.template take<std::uint64_t>(at));
    second = Step::add(second, source.template take<std::uint64_t>(lane + at));
    const std::uint64_t carried = Step::multiply(first, kCarries[2 * words]) ^
                                  Step::multiply(second, kCarries[words]);
    third = Step::add(third, source.template take<std::uint64_t>(2 * lane + at) ^ carried);
    source.skip(3 * lane);
    return third;
  }
};

} // namespace vorn::arch

#endif
