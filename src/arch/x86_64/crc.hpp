// Declares the checksum functions that use the special instructions of x86-64.
// SPDX-License-Identifier: Apache-2.0
#ifndef VORN_ARCH_X86_64_CRC_HPP
#define VORN_ARCH_X86_64_CRC_HPP

#include <cstddef>
#include <cstdint>

namespace vorn::arch {

// From these lengths on, the wide kernels are faster; they accept no shorter input.
inline constexpr std::size_t kCrc32cWideMin = 512;
inline constexpr std::size_t kCrc16WideMin = 64;
inline constexpr std::size_t kCrc32cZmmMin = 160;
inline constexpr std::size_t kCrc16ZmmMin = 128;

// The instructions that a processor has. The wide ones are given as the shortest input for their
// kernels, so that a short input costs one comparison for each.
struct CrcProbe {
  bool narrow = false;                    // SSE4.2 and PCLMULQDQ
  std::size_t crc32c_wide_min = SIZE_MAX; // also AVX2 and VPCLMULQDQ
  std::size_t crc16_wide_min = SIZE_MAX;
  std::size_t crc32c_zmm_min = SIZE_MAX; // also AVX-512 F, BW, VL and VBMI, and GFNI
  std::size_t crc16_zmm_min = SIZE_MAX;
};

inline constexpr CrcProbe kCrcNarrow{.narrow = true};
inline constexpr CrcProbe kCrcWide{true, kCrc32cWideMin, kCrc16WideMin};
inline constexpr CrcProbe kCrcZmm{true, kCrc32cWideMin, kCrc16WideMin, kCrc32cZmmMin, kCrc16ZmmMin};

// The instructions of this processor: none until the library is loaded, then constant.
extern const CrcProbe crc_probe;

std::uint32_t crc32c_narrow(std::uint32_t crc, const void *data, std::size_t length);
std::uint32_t crc32c_copy_narrow(std::uint32_t crc, void *to, const void *from, std::size_t length);
std::uint16_t crc16_narrow(std::uint16_t crc, const void *data, std::size_t length);

std::uint32_t crc32c_wide(std::uint32_t crc, const void *data, std::size_t length);
std::uint32_t crc32c_copy_wide(std::uint32_t crc, void *to, const void *from, std::size_t length);
std::uint16_t crc16_wide(std::uint16_t crc, const void *data, std::size_t length);

std::uint32_t crc32c_zmm(std::uint32_t crc, const void *data, std::size_t length);
std::uint32_t crc32c_copy_zmm(std::uint32_t crc, void *to, const void *from, std::size_t length);
std::uint16_t crc16_zmm(std::uint16_t crc, const void *data, std::size_t length);

inline bool has_crc32c(const CrcProbe &probe) { return probe.narrow; }
inline bool has_crc16(const CrcProbe &probe) { return probe.narrow; }

inline std::uint32_t crc32c(const CrcProbe &probe, std::uint32_t crc, const void *data,
                            std::size_t length) {
  if (length >= probe.crc32c_zmm_min) [[unlikely]]
    return crc32c_zmm(crc, data, length);
  if (length >= probe.crc32c_wide_min) [[unlikely]]
    return crc32c_wide(crc, data, length);
  return crc32c_narrow(crc, data, length);
}

inline std::uint32_t crc32c_copy(const CrcProbe &probe, std::uint32_t crc, void *to,
                                 const void *from, std::size_t length) {
  if (length >= probe.crc32c_zmm_min) [[unlikely]]
    return crc32c_copy_zmm(crc, to, from, length);
  if (length >= probe.crc32c_wide_min) [[unlikely]]
    return crc32c_copy_wide(crc, to, from, length);
  return crc32c_copy_narrow(crc, to, from, length);
}

inline std::uint16_t crc16(const CrcProbe &probe, std::uint16_t crc, const void *data,
                           std::size_t length) {
  if (length >= probe.crc16_zmm_min) [[likely]]
    return crc16_zmm(crc, data, length);
  if (length >= probe.crc16_wide_min) [[likely]]
    return crc16_wide(crc, data, length);
  return crc16_narrow(crc, data, length);
}

} // namespace vorn::arch

#endif
