// Declares the checksum functions that use the special instructions of AArch64.
// SPDX-License-Identifier: Apache-2.0
#ifndef VORN_ARCH_AARCH64_CRC_HPP
#define VORN_ARCH_AARCH64_CRC_HPP

#include <cstddef>
#include <cstdint>

namespace vorn::arch {

// Every supported processor has the CRC32 and PMULL instructions, so no probe is needed.
struct CrcProbe {};
inline constexpr CrcProbe crc_probe{};

constexpr bool has_crc32c(CrcProbe) { return true; }
constexpr bool has_crc16(CrcProbe) { return true; }

std::uint32_t crc32c(std::uint32_t crc, const void *data, std::size_t length);
std::uint32_t crc32c_copy(std::uint32_t crc, void *to, const void *from, std::size_t length);
std::uint16_t crc16(std::uint16_t crc, const void *data, std::size_t length);

inline std::uint32_t crc32c(CrcProbe, std::uint32_t crc, const void *data, std::size_t length) {
  return crc32c(crc, data, length);
}

inline std::uint32_t crc32c_copy(CrcProbe, std::uint32_t crc, void *to, const void *from,
                                 std::size_t length) {
  return crc32c_copy(crc, to, from, length);
}

inline std::uint16_t crc16(CrcProbe, std::uint16_t crc, const void *data, std::size_t length) {
  return crc16(crc, data, length);
}

} // namespace vorn::arch

#endif
