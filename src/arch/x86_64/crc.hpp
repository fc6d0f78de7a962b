#ifndef VORN_ARCH_X86_64_CRC_HPP
#define VORN_ARCH_X86_64_CRC_HPP

#include <cstddef>
#include <cstdint>

namespace vorn::arch {

// What this processor has. Written once, when the library is loaded; until then nothing.
struct CrcProbe {
  bool narrow; // SSE4.2 and PCLMULQDQ
  bool wide;   // AVX2 and VPCLMULQDQ besides
};

extern const CrcProbe crc_probe;

std::uint32_t crc32c_narrow(std::uint32_t crc, const void *data, std::size_t length);
std::uint32_t crc32c_copy_narrow(std::uint32_t crc, void *to, const void *from, std::size_t length);
std::uint16_t crc16_narrow(std::uint16_t crc, const void *data, std::size_t length);

// The wide kernels take no fewer bytes than these, from which on they are the faster ones.
inline constexpr std::size_t kCrc32cWideMin = 512;
inline constexpr std::size_t kCrc16WideMin = 64;

std::uint32_t crc32c_wide(std::uint32_t crc, const void *data, std::size_t length);
std::uint32_t crc32c_copy_wide(std::uint32_t crc, void *to, const void *from, std::size_t length);
std::uint16_t crc16_wide(std::uint16_t crc, const void *data, std::size_t length);

inline bool has_crc32c() { return crc_probe.narrow; }
inline bool has_crc16() { return crc_probe.narrow; }

inline std::uint32_t crc32c(std::uint32_t crc, const void *data, std::size_t length) {
  if (length >= kCrc32cWideMin && crc_probe.wide) return crc32c_wide(crc, data, length);
  return crc32c_narrow(crc, data, length);
}

inline std::uint32_t crc32c_copy(std::uint32_t crc, void *to, const void *from,
                                 std::size_t length) {
  if (length >= kCrc32cWideMin && crc_probe.wide) return crc32c_copy_wide(crc, to, from, length);
  return crc32c_copy_narrow(crc, to, from, length);
}

inline std::uint16_t crc16(std::uint16_t crc, const void *data, std::size_t length) {
  if (length >= kCrc16WideMin && crc_probe.wide) return crc16_wide(crc, data, length);
  return crc16_narrow(crc, data, length);
}

} // namespace vorn::arch

#endif
