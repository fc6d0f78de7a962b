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

// x^exponent modulo the polynomial, in the bit order of that polynomial.
constexpr std::uint32_t crc32c_power(unsigned int exponent) {
  std::uint32_t value = 0x80000000;
  for (; exponent > 0; --exponent)
    value = crc32c_times_x(value);
  return value;
}

constexpr std::uint32_t crc16_power(unsigned int exponent) {
  std::uint32_t value = 1;
  for (; exponent > 0; --exponent)
    value = crc16_times_x(value);
  return value;
}

} // namespace vorn::arch

#endif
