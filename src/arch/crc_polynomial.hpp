// Defines the polynomials of the two checksums and the powers of x modulo them. The compiler
// computes every constant of the checksum routines from these.
// SPDX-License-Identifier: Apache-2.0
#ifndef VORN_ARCH_CRC_POLYNOMIAL_HPP
#define VORN_ARCH_CRC_POLYNOMIAL_HPP

#include <cstdint>

namespace vorn::arch {

// CRC-32C's, reflected: bit 31 stands for x^0, bit 0 for x^31; the x^32 is left out.
inline constexpr std::uint32_t kCrc32cPolynomial = 0x82F63B78;

// CRC-16/T10-DIF's: bit n stands for x^n; the x^16 is left out.
inline constexpr std::uint32_t kCrc16Polynomial = 0x8BB7;

constexpr std::uint32_t crc32c_times_x(std::uint32_t value) {
  return (value >> 1) ^ ((value & 1) != 0 ? kCrc32cPolynomial : 0);
}

constexpr std::uint32_t crc16_times_x(std::uint32_t value) {
  return ((value << 1) & 0xFFFF) ^ ((value & 0x8000) != 0 ? kCrc16Polynomial : 0);
}

constexpr std::uint32_t crc32c_times(std::uint32_t a, std::uint32_t b) {
  std::uint32_t product = 0;
  for (; b != 0; b <<= 1) {
    if ((b & 0x80000000) != 0) product ^= a;
    a = crc32c_times_x(a);
  }
  return product;
}

constexpr std::uint32_t crc16_times(std::uint32_t a, std::uint32_t b) {
  std::uint32_t product = 0;
  for (; b != 0; b >>= 1) {
    if ((b & 1) != 0) product ^= a;
    a = crc16_times_x(a);
  }
  return product;
}

// x^exponent modulo the polynomial, in the bit order of that polynomial. By squares: a compiler
// limits the steps of an evaluation.
constexpr std::uint32_t crc32c_power(unsigned int exponent) {
  std::uint32_t value = 0x80000000;
  std::uint32_t square = crc32c_times_x(value);
  for (; exponent != 0; exponent >>= 1) {
    if ((exponent & 1) != 0) value = crc32c_times(value, square);
    square = crc32c_times(square, square);
  }
  return value;
}

constexpr std::uint32_t crc16_power(unsigned int exponent) {
  std::uint32_t value = 1;
  std::uint32_t square = crc16_times_x(value);
  for (; exponent != 0; exponent >>= 1) {
    if ((exponent & 1) != 0) value = crc16_times(value, square);
    square = crc16_times(square, square);
  }
  return value;
}

} // namespace vorn::arch

#endif
