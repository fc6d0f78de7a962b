// Defines the byte-wise tables of both checksums: entry i is the register after the byte i, from 0.
// SPDX-License-Identifier: Apache-2.0
#ifndef VORN_CRC_TABLES_HPP
#define VORN_CRC_TABLES_HPP

#include <array>
#include <cstdint>

#include "arch/crc_polynomial.hpp"

namespace vorn::crc {

consteval std::array<std::uint32_t, 256> crc32c_table() {
  std::array<std::uint32_t, 256> table{};
  for (std::uint32_t byte = 0; byte < table.size(); ++byte) {
    std::uint32_t value = byte;
    for (int bit = 0; bit < 8; ++bit)
      value = arch::crc32c_times_x(value);
    table[byte] = value;
  }
  return table;
}

consteval std::array<std::uint16_t, 256> crc16_table() {
  std::array<std::uint16_t, 256> table{};
  for (std::uint32_t byte = 0; byte < table.size(); ++byte) {
    std::uint32_t value = byte << 8;
    for (int bit = 0; bit < 8; ++bit)
      value = arch::crc16_times_x(value);
    table[byte] = static_cast<std::uint16_t>(value);
  }
  return table;
}

inline constexpr std::array<std::uint32_t, 256> kCrc32cTable = crc32c_table();
inline constexpr std::array<std::uint16_t, 256> kCrc16Table = crc16_table();

static_assert(kCrc32cTable[1] == 0xF26B8303);
static_assert(kCrc16Table[1] == 0x8BB7);

} // namespace vorn::crc

#endif
