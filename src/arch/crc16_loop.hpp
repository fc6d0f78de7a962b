// Computes CRC-16/T10-DIF by carry-less multiplication.
//
// A vector holds the polynomial of its bytes, the first bit of the first byte being the highest
// power. Moving it d bytes towards the end of the input multiplies it by x^(8 d), which may be
// taken modulo the checksum's polynomial in each half: with h and l the halves,
//   (h * x^64 + l) * x^(8 d) = h * (x^(8 d + 64) mod P) + l * (x^(8 d) mod P)   (modulo P)
// so that two multiplications fold it onto the vector d bytes further on.
//
// 1. Load eight vectors, and add the register to the first.
// 2. Fold each of the eight onto the vector eight further on, while there is one.
// 3. Fold each of the eight onto the last by the remaining distance, and the rest of the input too.
// 4. Reduce the last vector to 16 bits.
// SPDX-License-Identifier: Apache-2.0
#ifndef VORN_ARCH_CRC16_LOOP_HPP
#define VORN_ARCH_CRC16_LOOP_HPP

#include <array>
#include <cstddef>
#include <cstdint>
#include <type_traits>
#include <utility>

#include "arch/crc_polynomial.hpp"

namespace vorn::arch {

// The multipliers that fold the low and the high half of a vector.
struct alignas(16) Crc16Fold {
  std::uint64_t low;
  std::uint64_t high;
};

consteval Crc16Fold crc16_fold(unsigned int bytes) {
  return {crc16_power(8 * bytes), crc16_power(8 * bytes + 64)};
}

// Entry n folds over n vectors of kBytes.
template <unsigned int kBytes> consteval std::array<Crc16Fold, 16> crc16_folds() {
  std::array<Crc16Fold, 16> folds{};
  for (unsigned int n = 0; n < folds.size(); ++n)
    folds[n] = crc16_fold(kBytes * n);
  return folds;
}

// Reduces 128 bits to 16. The checksum of h * x^64 + l is that times x^16, modulo P:
//   t = h * (x^80 mod P)           80 bits: adding l * x^16 makes them v, whose remainder it is
//   a = (t >> 16) + l              v / x^16
//   q = a + (a * m >> 64)          v / P, with m = x^80 / P less its x^64
//   the low 16 bits of t + q * P
inline constexpr std::uint64_t kCrc16Top = crc16_power(80);

consteval std::uint64_t crc16_quotient() {
  std::uint32_t rest = 1;
  std::uint64_t quotient = 0;
  for (int bit = 0; bit < 80; ++bit) {
    quotient = (quotient << 1) | ((rest & 0x8000) != 0 ? 1 : 0);
    rest = crc16_times_x(rest);
  }
  return quotient;
}

inline constexpr std::uint64_t kCrc16Quotient = crc16_quotient();

// Returns the bits of the register that remain for the bytes after the first count > 0 bytes.
[[gnu::always_inline]] constexpr std::uint16_t crc16_left(std::uint16_t crc, std::size_t count) {
  return static_cast<std::uint16_t>(count == 1 ? crc << 8 : 0);
}

// A protected sector, the most frequent length.
inline constexpr std::size_t kCrc16Sector = 512;

// Sixteen bytes from kCrc16Head + 16 - n pick the first n bytes of a vector as loaded, the last of
// them lowest, and zeros above them.
inline constexpr std::uint8_t kCrc16Head[32] = {
    15,   14,   13,   12,   11,   10,   9,    8,    7,    6,    5,    4,    3,    2,    1,    0,
    0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80};

// Vector is the processor's part. Each including file defines its own type, so that the linker does
// not merge code that is compiled for special instructions with another file's:
//   kBytes                    16, or 32 for two of these side by side, the first in the low lane
//   load(data)                kBytes from data
//   start(crc)                the register as a vector, to add to the first vector of the input
//   head(crc, data, count)    the register after count < kBytes bytes, folded onto the vector after
//                             them; kBytes can be read at data
//   operator^                 the sum
//   fold(vector, Crc16Fold)   each lane by itself
//   reduce()                  the checksum
template <class Vector> class Crc16Loop {
public:
  // Returns the register after length more bytes, at least Vector::kBytes. The code for short
  // inputs is inlined and the code for long inputs is not, so that short inputs save no registers.
  [[gnu::always_inline]] static std::uint16_t run(std::uint16_t crc, const std::uint8_t *data,
                                                  std::size_t length) {
    if (length == kCrc16Sector) return sector(crc, data);
    const std::size_t odd = length % kBytes;
    const Vector before = odd != 0 ? Vector::head(crc, data, odd) : Vector::start(crc);
    const std::size_t vectors = length / kBytes;
    if (vectors >= kUnderWay) return many(before, data + odd, vectors);
    return few(before, data + odd, vectors);
  }

private:
  static constexpr std::size_t kBytes = Vector::kBytes;
  static constexpr std::size_t kUnderWay = 8;
  static constexpr std::size_t kBlock = kUnderWay * kBytes;
  static constexpr std::size_t kAhead = 1024; // bytes from the data in use to the data prefetched

  // The eight vectors. Their functions are always inlined, so that they stay in registers.
  using Lanes = std::array<Vector, kUnderWay>;

  static constexpr auto kFolds = crc16_folds<kBytes>();
  static_assert(kFolds.size() == 2 * kUnderWay);

  // Calls what with the constants 0 to kCount - 1.
  template <std::size_t kCount, class Do> [[gnu::always_inline]] static void each(Do what) {
    const auto calls = [&]<std::size_t... kIndex>(std::index_sequence<kIndex...>)
        __attribute__((always_inline)) {
      (what(std::integral_constant<std::size_t, kIndex>{}), ...);
    };
    calls(std::make_index_sequence<kCount>());
  }

  [[gnu::always_inline]] static Lanes begin(Vector before, const std::uint8_t *data) {
    Lanes lanes;
    each<kUnderWay>([&](auto i) __attribute__((always_inline)) {
      lanes[i] = Vector::load(data + i * kBytes);
    });
    lanes[0] = lanes[0] ^ before;
    return lanes;
  }

  [[gnu::always_inline]] static void advance(Lanes &lanes, const std::uint8_t *data) {
    each<kUnderWay>([&](auto i) __attribute__((always_inline)) {
      lanes[i] = fold(lanes[i], kFolds[kUnderWay]) ^ Vector::load(data + i * kBytes);
    });
  }

  // Folds all lanes onto the vector that is distance vectors after the last lane.
  [[gnu::always_inline]] static Vector gather(const Lanes &lanes, std::size_t distance) {
    Vector sum = lanes[kUnderWay - 1];
    if (distance != 0) sum = fold(sum, kFolds[distance]);
    each<kUnderWay - 1>([&](auto i) __attribute__((always_inline)) {
      sum = sum ^ fold(lanes[i], kFolds[kUnderWay - 1 - i + distance]);
    });
    return sum;
  }

  // Adds the vectors at data to sum, which is folded onto the last of them already.
  static Vector finish(Vector sum, const std::uint8_t *data, std::size_t vectors) {
    for (; vectors > 1; --vectors) {
      sum = sum ^ fold(Vector::load(data), kFolds[vectors - 1]);
      data += kBytes;
    }
    return sum ^ Vector::load(data);
  }

  [[gnu::always_inline]] static std::uint16_t few(Vector before, const std::uint8_t *data,
                                                  std::size_t vectors) {
    Vector sum = before ^ Vector::load(data);
    if (vectors > 1) sum = finish(fold(sum, kFolds[vectors - 1]), data + kBytes, vectors - 1);
    return sum.reduce();
  }

  [[gnu::noinline]] static std::uint16_t many(Vector before, const std::uint8_t *data,
                                              std::size_t vectors) {
    const std::size_t rest = vectors % kUnderWay;
    const std::uint8_t *end = data + (vectors - rest) * kBytes;
    Lanes lanes = begin(before, data);
    while ((data += kBlock) != end) {
      for (std::size_t line = 0; line < kBlock; line += 64) {
        __builtin_prefetch(data + kAhead + line);
      }
      advance(lanes, data);
    }
    Vector sum = gather(lanes, rest);
    if (rest != 0) sum = finish(sum, end, rest);
    return sum.reduce();
  }

  // For exactly kCrc16Sector bytes, without a loop.
  [[gnu::noinline]] static std::uint16_t sector(std::uint16_t crc, const std::uint8_t *data) {
    Lanes lanes = begin(Vector::start(crc), data);
    each<kCrc16Sector / kBlock - 1>([&](auto block) __attribute__((always_inline)) {
      advance(lanes, data + (block + 1) * kBlock);
    });
    return gather(lanes, 0).reduce();
  }
};

} // namespace vorn::arch

#endif
