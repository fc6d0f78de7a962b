// Computes the checksums by table, or by the instructions that the processor has.
// SPDX-License-Identifier: Apache-2.0
#ifndef VORN_CRC_ROUTINES_HPP
#define VORN_CRC_ROUTINES_HPP

#include <cstddef>
#include <cstdint>

#include "arch/crc.hpp"
#include "crc/tables.hpp"

namespace vorn::crc {

// Inputs that are too short for the kernel use the table.
inline constexpr std::size_t kCrc16KernelMin = 16;

inline std::uint32_t crc32c_by_table(std::uint32_t crc, const void *data, std::size_t length) {
  const auto *at = static_cast<const std::uint8_t *>(data);
  for (const auto *end = at + length; at != end; ++at) {
    crc = kCrc32cTable[(crc ^ *at) & 0xFF] ^ (crc >> 8);
  }
  return crc;
}

inline std::uint32_t crc32c_copy_by_table(std::uint32_t crc, void *to, const void *from,
                                          std::size_t length) {
  const auto *at = static_cast<const std::uint8_t *>(from);
  auto *copy = static_cast<std::uint8_t *>(to);
  for (const auto *end = at + length; at != end; ++at, ++copy) {
    const std::uint8_t byte = *at;
    *copy = byte;
    crc = kCrc32cTable[(crc ^ byte) & 0xFF] ^ (crc >> 8);
  }
  return crc;
}

inline std::uint16_t crc16_by_table(std::uint16_t crc, const void *data, std::size_t length) {
  const auto *at = static_cast<const std::uint8_t *>(data);
  for (const auto *end = at + length; at != end; ++at) {
    crc = static_cast<std::uint16_t>((crc << 8) ^ kCrc16Table[*at ^ (crc >> 8)]);
  }
  return crc;
}

inline std::uint32_t crc32c(const arch::CrcProbe &probe, std::uint32_t crc, const void *data,
                            std::size_t length) {
  if (!arch::has_crc32c(probe)) [[unlikely]]
    return crc32c_by_table(crc, data, length);
  return arch::crc32c(probe, crc, data, length);
}

inline std::uint32_t crc32c_copy(const arch::CrcProbe &probe, std::uint32_t crc, void *to,
                                 const void *from, std::size_t length) {
  if (!arch::has_crc32c(probe)) [[unlikely]]
    return crc32c_copy_by_table(crc, to, from, length);
  return arch::crc32c_copy(probe, crc, to, from, length);
}

inline std::uint16_t crc16(const arch::CrcProbe &probe, std::uint16_t crc, const void *data,
                           std::size_t length) {
  if (length < kCrc16KernelMin || !arch::has_crc16(probe)) [[unlikely]]
    return crc16_by_table(crc, data, length);
  return arch::crc16(probe, crc, data, length);
}

} // namespace vorn::crc

#endif
