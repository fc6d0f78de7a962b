// The checksums by this processor's special instructions, each of which may be called where its
// probe says so.
#ifndef VORN_ARCH_CRC_HPP
#define VORN_ARCH_CRC_HPP

#include <cstddef>
#include <cstdint>

#if defined(__aarch64__)
#include "arch/aarch64/crc_probe.hpp"
#elif defined(__x86_64__)
#include "arch/x86_64/crc_probe.hpp"
#else
#error "no checksum kernels for this processor"
#endif

namespace vorn::arch {

// Where has_crc32c(): the register carried on over length bytes, and the same while copying them.
std::uint32_t crc32c(std::uint32_t crc, const void *data, std::size_t length);
std::uint32_t crc32c_copy(std::uint32_t crc, void *to, const void *from, std::size_t length);

// Where has_crc16(): the register carried on over length bytes, of which there are more than 16.
std::uint16_t crc16(std::uint16_t crc, const void *data, std::size_t length);

} // namespace vorn::arch

#endif
