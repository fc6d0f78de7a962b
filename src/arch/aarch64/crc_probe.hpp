#ifndef VORN_ARCH_AARCH64_CRC_PROBE_HPP
#define VORN_ARCH_AARCH64_CRC_PROBE_HPP

namespace vorn::arch {

// Every processor that the library runs on has the CRC32 and PMULL instructions: nothing is probed.
constexpr bool has_crc32c() { return true; }
constexpr bool has_crc16() { return true; }

} // namespace vorn::arch

#endif
