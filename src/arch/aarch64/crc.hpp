#ifndef VORN_ARCH_AARCH64_CRC_HPP
#define VORN_ARCH_AARCH64_CRC_HPP

#include <cstddef>
#include <cstdint>

namespace vorn::arch {

// Every processor that the library runs on has the CRC32 and PMULL instructions: nothing is probed.
constexpr bool has_crc32c() { return true; }
constexpr bool has_crc16() { return true; }

std::uint32_t crc32c(std::uint32_t crc, const void *data, std::size_t length);
std::uint32_t crc32c_copy(std::uint32_t crc, void *to, const void *from, std::size_t length);
std::uint16_t crc16(std::uint16_t crc, const void *data, std::size_t length);

} // namespace vorn::arch

#endif
