// Declares the checksum functions that use the special instructions of AArch64.
// SPDX-License-Identifier: Apache-2.0
#ifndef VORN_ARCH_AARCH64_CRC_HPP
#define VORN_ARCH_AARCH64_CRC_HPP

#include <cstddef>
#include <cstdint>

namespace vorn::arch {

// From this length on, the mixed loop of the plain kernel is faster than lanes alone.
inline constexpr std::size_t kCrc32cMixedMin = 512;

// From this length on, the kernel for EOR3 is faster; it accepts no shorter input.
inline constexpr std::size_t kCrc32cSha3Min = 1024;

// Every supported processor has the CRC32 and PMULL instructions. All bytes are 0 if it has no
// more, as they are before the library is loaded.
struct CrcProbe {
  bool sha3 = false; // EOR3
};

// The instructions of this processor: the least until the library is loaded, then constant.
extern const CrcProbe crc_probe;

constexpr bool has_crc32c(const CrcProbe &) { return true; }
constexpr bool has_crc16(const CrcProbe &) { return true; }

std::uint32_t crc32c_plain(std::uint32_t crc, const void *data, std::size_t length);
std::uint32_t crc32c_copy_plain(std::uint32_t crc, void *to, const void *from, std::size_t length);
std::uint16_t crc16_plain(std::uint16_t crc, const void *data, std::size_t length);

std::uint32_t crc32c_sha3(std::uint32_t crc, const void *data, std::size_t length);
std::uint32_t crc32c_copy_sha3(std::uint32_t crc, void *to, const void *from, std::size_t length);

inline std::uint32_t crc32c(const CrcProbe &probe, std::uint32_t crc, const void *data,
                            std::size_t length) {
  if (length >= kCrc32cSha3Min && probe.sha3) [[unlikely]]
    return crc32c_sha3(crc, data, length);
  return crc32c_plain(crc, data, length);
}

inline std::uint32_t crc32c_copy(const CrcProbe &probe, std::uint32_t crc, void *to,
                                 const void *from, std::size_t length) {
  if (length >= kCrc32cSha3Min && probe.sha3) [[unlikely]]
    return crc32c_copy_sha3(crc, to, from, length);
  return crc32c_copy_plain(crc, to, from, length);
}

inline std::uint16_t crc16(const CrcProbe &, std::uint16_t crc, const void *data,
                           std::size_t length) {
  return crc16_plain(crc, data, length);
}

} // namespace vorn::arch

#endif
