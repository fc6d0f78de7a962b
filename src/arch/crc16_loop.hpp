// CRC-16/T10-DIF by carry-less multiplication.
//
// A vector holds the polynomial of its bytes, the first bit of the first byte being the highest
// power. Moving it d bytes towards the end of the input multiplies it by x^(8 d), which may be
// taken modulo the checksum's polynomial in each half: with h and l the halves,
//   (h * x^64 + l) * x^(8 d) = h * (x^(8 d + 64) mod P) + l * (x^(8 d) mod P)   (modulo P)
// so that two multiplications fold it onto the vector d bytes further on. Eight vectors are under
// way at a time, each folded onto the one eight further on; at the end each is folded onto the last
// by the distance that is left, and what remains of the input with them.
#ifndef VORN_ARCH_CRC16_LOOP_HPP
#define VORN_ARCH_CRC16_LOOP_HPP

#include <array>
#include <cstddef>
#include <cstdint>
#include <type_traits>
#include <utility>

#include "arch/crc_polynomial.hpp"

namespace vorn::arch {

// What folds a vector: the multipliers of its low and its high half.
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

// From 128 bits to 16. The checksum of h * x^64 + l is that times x^16, modulo P:
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

// Of the register, what the first count > 0 bytes of the input leave to the bytes behind them.
[[gnu::always_inline]] constexpr std::uint16_t crc16_left(std::uint16_t crc, std::size_t count) {
  return static_cast<std::uint16_t>(count == 1 ? crc << 8 : 0);
}

// A protected sector, the length that is computed most.
inline constexpr std::size_t kCrc16Sector = 512;

// Sixteen bytes from kCrc16Head + 16 - n pick the first n bytes of a vector as loaded, the last of
// them lowest, and zeros above them.
inline constexpr std::uint8_t kCrc16Head[32] = {
    15,   14,   13,   12,   11,   10,   9,    8,    7,    6,    5,    4,    3,    2,    1,    0,
    0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80};

// Vector is the processor's part, and a type of the including file's own, so that no code compiled
// for special instructions is shared with another file:
//   kBytes                    16, or 32 for two of these side by side, the first in the low lane
//   load(data)                kBytes from data
//   start(crc)                what adds the register to a vector that the input begins with
//   head(crc, data, count)    the register carried on over count < kBytes bytes, folded onto the
//                             vector behind them; kBytes can be read at data
//   operator^                 the sum
//   fold(vector, Crc16Fold)   each lane by itself
//   reduce()                  the checksum
template <class Vector> class Crc16Loop {
public:
  // The register carried on over length bytes, Vector::kBytes at least. What handles short inputs
  // is inlined where they arrive, what handles long ones is not, so that the short save no
  // registers.
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

  // Vectors under way. What handles them is always inlined: they stay in registers.
  using Lanes = std::array<Vector, kUnderWay>;

  static constexpr auto kFolds = crc16_folds<kBytes>();
  static_assert(kFolds.size() == 2 * kUnderWay);

  // Calls what with 0 to kCount - 1, each a constant.
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

  // All lanes folded onto the vector that lies behind vectors after the last of them.
  [[gnu::always_inline]] static Vector gather(const Lanes &lanes, std::size_t behind) {
    Vector sum = lanes[kUnderWay - 1];
    if (behind != 0) sum = fold(sum, kFolds[behind]);
    each<kUnderWay - 1>([&](auto i) __attribute__((always_inline)) {
      sum = sum ^ fold(lanes[i], kFolds[kUnderWay - 1 - i + behind]);
    });
    return sum;
  }

  // sum, already folded onto the last of the vectors at data, and these.
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

  // Exactly kCrc16Sector bytes: without a loop.
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
